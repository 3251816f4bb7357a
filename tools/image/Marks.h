// What would a later change of an image change?
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "image/Image.h"
#include "image/Traits.h"

namespace kelvane::tool {

// Equal ones of the same image at two times say that nobody has begun to write to it in between: of a file its times,
// of a block device how much was written to it, to what it is made of, and to the whole disk past its partitions.
struct Marks {
    std::int64_t size = 0;
    Traits traits;
    std::string doubt; // why they could be equal all the same; empty when they could not

    timespec latest = {};  // the time of the last change
    bool isMoving = false; // more is on its way to it
};

// Of the image as it stands; what waits in memory would be stamped, or counted, later.
Marks marksOf(const Image& image);

// The times of a regular file, and under this name how often its file system has failed.
constexpr const char* FAILURES = "failures";
Traits stampsOf(const Descriptor& file, timespec& latest);

// Whether another change could still have the same time as the last one, at a time of this clock, which must have been
// read before what waited in memory was flushed.
bool isRecent(const timespec& latest, const timespec& clock);
timespec stampingClock();

} // namespace kelvane::tool

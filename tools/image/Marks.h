// What would a later change of an image change?
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "base/Descriptor.h"
#include "image/BlockDevice.h"
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

// Of the image as it stands, by the file that holds its bytes or the device by which they are reached, but for its
// size; what waits in memory would be stamped, or counted, later. `isStamped`: the file records every change.
Marks marksOf(const Descriptor& bytes, const BlockDevice* device, bool isStamped);

// How many sectors were written to a device between two of them.
std::int64_t sectorsWritten(const Marks& before, const Marks& after);

// The times of a regular file, and under this name how often its file system has failed.
constexpr const char* FAILURES = "failures";
Traits stampsOf(const Descriptor& file, timespec& latest);

// Whether another change could still have the same time as the last one, at a time of this clock, which must have been
// read before what waited in memory was flushed.
bool isRecent(const timespec& latest, const timespec& clock);
timespec stampingClock();

} // namespace kelvane::tool

// Goes through the blocks of an image whose hash is known, or unknown, with their data at hand.
#pragma once

#include <cstdint>
#include <functional>

#include "hash_file/HashFile.h"
#include "image/Image.h"
#include "image/RangeSource.h"
#include "terminal/Progress.h"

namespace kelvane::tool {

// How a command works, whatever it does.
struct Common {
    unsigned jobs = 1; // threads that read and hash
    ProgressMode progress = ProgressMode::Automatic;
};

struct Traffic {
    std::int64_t read = 0;  // bytes that came from the image
    std::int64_t holes = 0; // bytes of holes, which are zeros without being read
    std::int64_t left = 0;  // bytes that nothing was to be done for
};

enum class Which { Unknown, Known };

// What is done with one piece of consecutive whole blocks.
using Work = std::function<void(Store& store, Range piece, char* data)>;

// How much of an image one thread takes at a time.
std::int64_t sliceSize(std::int64_t blockSize);

// With one job, reading overlaps the work; with several, each has its own thread and store and reads for itself.
// They never share a block, so no store sees or overwrites what another one stored. Stops with Interrupted.
Traffic forBlocks(HashFile& hashFile, const Image& image, RangeSource& source, Which which, unsigned jobs,
                  Progress& progress, const Work& work);

// Hashes the blocks of a range whose hash is unknown and stores the hashes.
Traffic fillUnknown(HashFile& hashFile, const Image& image, Range range, unsigned jobs, ProgressMode mode,
                    const char* phase);

} // namespace kelvane::tool

// Goes through the blocks of an image whose hash is known, or unknown, with their data at hand.
#pragma once

#include <cstdint>
#include <functional>

#include "base/Reporter.h"
#include "hash_file/HashFile.h"
#include "image/ImageReader.h"
#include "work/Common.h"
#include "work/Slices.h"

namespace kelvane::tool {

struct Traffic {
    std::int64_t read = 0;  // bytes that came from the image
    std::int64_t holes = 0; // bytes of holes, which are zeros without being read
    std::int64_t left = 0;  // bytes that nothing was to be done for
};

enum class Which { Unknown, Known, All };

// Consecutive whole blocks of one kind.
struct Blocks {
    Range range;
    bool isKnown;
    bool isHole; // which can be far longer than what is read at once
};

// What is done with some of them; `data` is null for a hole, whose bytes are zeros.
using Work = std::function<void(Store& store, const Blocks& blocks, const char* data)>;

// How much of an image one thread takes as its slice, and how much of a hole.
std::int64_t sliceSize(std::int64_t blockSize);
std::int64_t holeSliceSize(std::int64_t blockSize);

// As many are worked on at once as there are jobs, while the next ones are read. Each thread has its own store. They
// never share a block, so no store sees or overwrites what another one stored. Stops with Interrupted.
Traffic forBlocks(HashFile& hashFile, const ImageReader& reader, Slices& slices, Which which, unsigned jobs,
                  Phase& phase, const Work& work);

} // namespace kelvane::tool

// Goes through the blocks of an image whose hash is known, or unknown, with their data at hand.
#pragma once

#include <cstdint>
#include <functional>

#include "hash_file/HashFile.h"
#include "image/Image.h"
#include "image/RangeSource.h"
#include "terminal/Progress.h"
#include "work/Common.h"

namespace kelvane::tool {

struct Traffic {
    std::int64_t read = 0;  // bytes that came from the image
    std::int64_t holes = 0; // bytes of holes, which are zeros without being read
    std::int64_t left = 0;  // bytes that nothing was to be done for
};

enum class Which { Unknown, Known, All };

// Consecutive whole blocks of one kind.
struct Piece {
    Range range;
    bool isKnown;
    bool isHole; // which can be far longer than what is read at once
};

// What is done with one piece; `data` is null for a hole, whose bytes are zeros.
using Work = std::function<void(Store& store, const Piece& piece, char* data)>;

// How much of an image one thread takes at a time, and how much of a hole.
std::int64_t sliceSize(std::int64_t blockSize);
std::int64_t holeSliceSize(std::int64_t blockSize);

// With several jobs, each has its own thread and store. They never share a block, so no store sees or overwrites what
// another one stored. Stops with Interrupted.
Traffic forBlocks(HashFile& hashFile, const Image& image, RangeSource& source, Which which, unsigned jobsWanted,
                  Progress& progress, const Work& work);

} // namespace kelvane::tool

// Finds where two images differ by the hashes of ranges alone.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "base/Range.h"
#include "work/Side.h"

namespace kelvane::tool {

struct Comparison {
    std::vector<Range> differing; // ascending, of whole blocks but for the images' ends
    std::int64_t bytes = 0;       // that were compared: none where the second image was still to be made
    std::int64_t comparisons = 0; // pairs of hashes
    std::int64_t bytesRead = 0;   // from both images, to compare them
};

// Both sides, started, and what they differ in.
struct Compared {
    StartedSide& first;
    StartedSide& second;
    Comparison comparison;
};

// What the caller knows of the two.
struct Agreement {
    // Throws when they do not fit together: it looks at how they were opened, which for a far side may be known only
    // after it was asked to start.
    std::function<void()> refuse;

    // The second one is to become what the first is. While it is not there, or empty, no hash is needed, nor asked for:
    // all differs.
    bool isCopied = false;
};

// Opens their hash files, starts both, and compares level by level what `start` says.
Compared compare(Side& first, Side& second, const Start& start, const Agreement& agreement);

// Reads both again; the offset of the first byte in a range that differs. `advance` is told how much was compared.
std::optional<std::int64_t> firstDifference(StartedSide& first, StartedSide& second, Range range,
                                            const std::function<void(std::int64_t)>& advance);

} // namespace kelvane::tool

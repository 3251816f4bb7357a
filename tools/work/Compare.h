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
    std::int64_t comparisons = 0; // pairs of hashes
    std::int64_t bytesRead = 0;   // from both images
};

// Starts both, and compares level by level what `start` says. `refuse` throws when they do not fit together: it looks
// at how they were opened, which for a far side may be known only after it was asked to start.
Comparison compare(Side& first, Side& second, const Start& start, const std::function<void()>& refuse);

// Reads both again; the offset of the first byte in a range that differs. `advance` is told how much was compared.
std::optional<std::int64_t> firstDifference(Side& first, Side& second, Range range,
                                            const std::function<void(std::int64_t)>& advance);

} // namespace kelvane::tool

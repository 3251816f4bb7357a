// Finds where two images differ by the hashes of ranges alone.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "base/Range.h"
#include "work/HashedImage.h"

namespace kelvane::tool {

struct Comparison {
    std::vector<Range> differing; // ascending, of whole blocks but for the images' ends
    std::int64_t comparisons = 0; // pairs of range hashes
    std::int64_t bytesRead = 0;   // from both images
};

// Completes the hashes of both, then halves ranges whose hashes differ. What only one image has, behind
// the end of the other, is not looked at.
Comparison compare(HashedImage& first, HashedImage& second);

// Compares the bytes of a range of two images; the offset of the first one that differs. `advance` is told how much
// was compared.
std::optional<std::int64_t> firstDifference(const Image& first, const Image& second, Range range,
                                            const std::function<void(std::int64_t)>& advance);

} // namespace kelvane::tool

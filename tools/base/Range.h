// Byte ranges of an image, and lists of them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace kelvane::tool {

struct Range {
    std::int64_t offset; // from the image's first byte on
    std::int64_t length;

    std::int64_t end() const { return offset + length; }
};

inline Range between(std::int64_t start, std::int64_t end)
{
    return {start, std::max<std::int64_t>(0, end - start)};
}

inline std::int64_t roundDown(std::int64_t value, std::int64_t unit)
{
    return value / unit * unit;
}

inline std::int64_t roundUp(std::int64_t value, std::int64_t unit)
{
    return roundDown(value, unit) + (value % unit != 0 ? unit : 0);
}

// The whole blocks inside a range.
inline Range wholeBlocks(Range range, std::int64_t blockSize)
{
    return between(roundUp(range.offset, blockSize), roundDown(range.end(), blockSize));
}

// Takes the first bytes of a range away from it, so many at most.
inline Range takeFirst(Range& rest, std::int64_t most)
{
    const Range first = {rest.offset, std::min(rest.length, most)};
    rest = between(first.end(), rest.end());
    return first;
}

// Adds a range behind all others; ranges that touch become one.
inline void append(std::vector<Range>& ranges, Range range)
{
    if (range.length == 0) {
        return;
    }
    if (!ranges.empty() && ranges.back().end() == range.offset) {
        ranges.back().length += range.length;
    } else {
        ranges.push_back(range);
    }
}

inline std::int64_t totalLength(const std::vector<Range>& ranges)
{
    std::int64_t total = 0;
    for (const Range& range : ranges) {
        total += range.length;
    }
    return total;
}

} // namespace kelvane::tool

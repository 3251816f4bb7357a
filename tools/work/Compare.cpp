#include "work/Compare.h"

#include <algorithm>
#include <atomic>

#include "base/Interrupt.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t BLOCKS_AT_ONCE = 1 << 18; // bounds the memory that both stores keep for them

class Halving {
public:
    Halving(HashedImage& first, HashedImage& second, Comparison& result)
        : m_first(first)
        , m_second(second)
        , m_blockSize(first.store().blockSize())
        , m_result(result)
    {
    }

    void compare(Range range)
    {
        if (differs(range)) {
            split(range);
        }
    }

    std::int64_t bytesRead() const { return m_bytesRead; }

private:
    bool differs(Range range)
    {
        throwWhenInterrupted();
        ++m_result.comparisons;
        return m_first.store().hash(range, m_first.image(), m_bytesRead)
            != m_second.store().hash(range, m_second.image(), m_bytesRead);
    }

    // The range is known to differ somewhere.
    void split(Range range)
    {
        if (range.length <= m_blockSize) {
            append(m_result.differing, range);
            return;
        }
        const std::int64_t middle = range.offset + roundUp(range.length / 2, m_blockSize);
        const Range left = between(range.offset, middle);
        const Range right = between(middle, range.end());
        const bool leftDiffers = differs(left);
        if (leftDiffers) {
            split(left);
        }
        if (!leftDiffers || differs(right)) { // when the left half does not differ, the right one does
            split(right);
        }
    }

    HashedImage& m_first;
    HashedImage& m_second;
    std::int64_t m_blockSize;
    Comparison& m_result;
    std::atomic<std::int64_t> m_bytesRead = 0;
};

} // namespace

std::optional<std::int64_t> firstDifference(const Image& first, const Image& second, Range range,
                                            const std::function<void(std::int64_t)>& advance)
{
    constexpr std::int64_t PIECE = 1 << 20;
    std::vector<char> left(PIECE);
    std::vector<char> right(PIECE);
    while (range.length > 0) {
        throwWhenInterrupted();
        const Range piece = {range.offset, std::min(PIECE, range.length)};
        first.read(left.data(), piece);
        second.read(right.data(), piece);
        const auto end = left.begin() + piece.length;
        const auto difference = std::mismatch(left.begin(), end, right.begin()).first;
        if (difference != end) {
            return piece.offset + (difference - left.begin());
        }
        advance(piece.length);
        range = between(piece.end(), range.end());
    }
    return std::nullopt;
}

Comparison compare(HashedImage& first, HashedImage& second)
{
    const Range range = {0, std::min(first.image().size(), second.image().size())};
    Comparison result;
    for (HashedImage* const side : {&first, &second}) {
        side->complete(side->believes() ? range : Range {0, side->image().size()}, "hash");
        result.bytesRead += side->traffic().read;
    }
    const std::int64_t blockSize = first.store().blockSize();
    const Range whole = wholeBlocks(range, blockSize);
    const std::int64_t step = BLOCKS_AT_ONCE * blockSize;
    Halving halving(first, second, result);
    for (Range rest = whole; rest.length > 0;) {
        const Range next = between(rest.offset, rest.offset + std::min(step, rest.length));
        halving.compare(next);
        rest = between(next.end(), rest.end());
    }
    if (whole.length < range.length) {
        // The hash of a partial block would be that of a whole one, which can be far larger, so bytes are compared.
        const Range tail = between(whole.length, range.length);
        ++result.comparisons;
        result.bytesRead += 2 * tail.length;
        if (firstDifference(first.image(), second.image(), tail, [](std::int64_t) {})) {
            append(result.differing, tail);
        }
    }
    result.bytesRead += halving.bytesRead();
    return result;
}

} // namespace kelvane::tool

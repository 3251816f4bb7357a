// Deals out a range in slices to the threads that work on it, each slice to one of them.
#pragma once

#include <mutex>
#include <optional>
#include <random>

#include "base/Range.h"
#include "image/Image.h"

namespace kelvane::tool {

class Slices {
public:
    // Everything, in slices of `size` bytes, whole blocks. Holes of an image may come in slices of up to `holeSize`.
    Slices(const Image& image, Range range, std::int64_t size, std::int64_t holeSize)
        : Slices(range, size)
    {
        m_image = &image;
        m_holeSize = holeSize;
    }

    // A random share of the slices, at least one.
    Slices(Range range, std::int64_t size, double share, std::uint64_t seed)
        : Slices(range, size)
    {
        const auto wanted = static_cast<std::int64_t>(share * static_cast<double>(m_left) + 0.5);
        m_toTake = std::min(m_left, std::max<std::int64_t>(1, wanted));
        m_random.seed(seed);
    }

    // In ascending order. Any thread.
    std::optional<Range> next()
    {
        const std::scoped_lock lock(m_mutex);
        if (m_image != nullptr) {
            return nextOfAll();
        }
        while (m_toTake > 0) {
            const Range slice = takeFirst(m_rest, m_size);
            // Every choice of so many slices is equally likely.
            const bool isTaken = std::uniform_int_distribution<std::int64_t>(1, m_left)(m_random) <= m_toTake;
            --m_left;
            if (isTaken) {
                --m_toTake;
                return slice;
            }
        }
        return std::nullopt;
    }

private:
    Slices(Range range, std::int64_t size)
        : m_rest(range)
        , m_size(size)
        , m_left(roundUp(range.length, size) / size)
        , m_toTake(m_left)
    {
    }

    std::optional<Range> nextOfAll()
    {
        if (m_rest.length == 0) {
            return std::nullopt;
        }
        const std::int64_t hole = m_image->nextData(m_rest.offset, m_rest.end()).offset - m_rest.offset;
        const std::int64_t length = hole < m_rest.length ? roundDown(std::min(hole, m_holeSize), m_size) : m_holeSize;
        return takeFirst(m_rest, std::max(m_size, length));
    }

    std::mutex m_mutex;
    const Image* m_image = nullptr;
    std::int64_t m_holeSize = 0;
    Range m_rest;
    std::int64_t m_size;
    std::int64_t m_left; // slices, of which so many are still to be taken:
    std::int64_t m_toTake;
    std::mt19937_64 m_random;
};

} // namespace kelvane::tool

// Deals out the pieces of a range to the threads that work on it, each piece to one of them.
#pragma once

#include <mutex>
#include <optional>
#include <random>

#include "base/Range.h"
#include "image/Image.h"

namespace kelvane::tool {

class RangeSource {
public:
    // Everything, in pieces of `unit` bytes, whole blocks. Holes of an image may come in pieces up to `holeUnit`.
    RangeSource(const Image& image, Range range, std::int64_t unit, std::int64_t holeUnit)
        : RangeSource(range, unit)
    {
        m_image = &image;
        m_holeUnit = holeUnit;
    }

    // A random share of the pieces, at least one.
    RangeSource(Range range, std::int64_t unit, double share, std::uint64_t seed)
        : RangeSource(range, unit)
    {
        const auto wanted = static_cast<std::int64_t>(share * static_cast<double>(m_unitsLeft) + 0.5);
        m_toTake = std::min(m_unitsLeft, std::max<std::int64_t>(1, wanted));
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
            const Range piece = between(m_range.offset, std::min(m_range.end(), m_range.offset + m_unit));
            m_range = between(piece.end(), m_range.end());
            // Every choice of so many pieces is equally likely.
            const bool taken = std::uniform_int_distribution<std::int64_t>(1, m_unitsLeft)(m_random) <= m_toTake;
            --m_unitsLeft;
            if (taken) {
                --m_toTake;
                return piece;
            }
        }
        return std::nullopt;
    }

private:
    RangeSource(Range range, std::int64_t unit)
        : m_range(range)
        , m_unit(unit)
        , m_unitsLeft(roundUp(range.length, unit) / unit)
        , m_toTake(m_unitsLeft)
    {
    }

    std::optional<Range> nextOfAll()
    {
        if (m_range.length == 0) {
            return std::nullopt;
        }
        const std::int64_t hole = m_image->nextData(m_range.offset, m_range.end()).offset - m_range.offset;
        const std::int64_t length = hole < m_range.length ? roundDown(std::min(hole, m_holeUnit), m_unit) : m_holeUnit;
        const Range piece = between(m_range.offset, std::min(m_range.end(), m_range.offset + std::max(m_unit, length)));
        m_range = between(piece.end(), m_range.end());
        return piece;
    }

    std::mutex m_mutex;
    const Image* m_image = nullptr;
    std::int64_t m_holeUnit = 0;
    Range m_range;
    std::int64_t m_unit;
    std::int64_t m_unitsLeft;
    std::int64_t m_toTake;
    std::mt19937_64 m_random;
};

} // namespace kelvane::tool

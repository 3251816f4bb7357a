// Deals out the pieces of a range to the threads that work on it, each piece to one of them.
#pragma once

#include <mutex>
#include <optional>
#include <random>

#include "base/Range.h"

namespace kelvane::tool {

class RangeSource {
public:
    // Everything, in pieces of `unit` bytes.
    RangeSource(Range range, std::int64_t unit)
        : m_range(range)
        , m_unit(unit)
        , m_unitsLeft(roundUp(range.length, unit) / unit)
        , m_toTake(m_unitsLeft)
    {
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
    std::mutex m_mutex;
    Range m_range;
    std::int64_t m_unit;
    std::int64_t m_unitsLeft;
    std::int64_t m_toTake;
    std::mt19937_64 m_random;
};

} // namespace kelvane::tool

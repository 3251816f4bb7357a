#include "work/Compare.h"

#include <algorithm>
#include <array>
#include <utility>

namespace kelvane::tool {

namespace {

int levelFor(std::int64_t blocks)
{
    int level = 0;
    while (level < Nodes::HIGHEST && std::int64_t {1} << level < blocks) {
        ++level;
    }
    return level;
}

class TreeComparison {
public:
    TreeComparison(Side& first, Side& second, const Start& start)
        : m_sides {&first, &second}
        , m_start(start)
        , m_blocks(start.compared / start.blockSize)
    {
        if (second.isFar()) {
            std::swap(m_sides[0], m_sides[1]);
        }
    }

    Comparison run()
    {
        const Range tail = between(m_blocks * m_start.blockSize, m_start.compared);
        const Nodes root {levelFor(m_blocks), {0}};
        for (Side* const side : m_sides) {
            side->openHashes(m_start);
        }
        for (Side* const side : m_sides) { // in one go, for the far one
            side->start(m_start);
            if (tail.length
                > 0) { // the hash of a part of a block would be that of a whole one, which can be far larger
                side->askBytes(tail, tail.length);
            }
            if (m_blocks > 0) {
                side->ask(root);
            }
        }
        Comparison result;
        for (Side* const side : m_sides) {
            result.bytesRead += side->started().bytesRead + tail.length;
        }
        const bool tailDiffers = tail.length > 0 && !differing(Nodes {0, {0}}).indexes.empty();
        if (m_blocks > 0) {
            descend(differing(root));
        }
        append(m_differing, tailDiffers ? tail : Range {});
        result.differing = std::move(m_differing);
        result.comparisons = m_comparisons;
        return result;
    }

private:
    // Of nodes that were asked for.
    Nodes differing(const Nodes& nodes)
    {
        const std::vector<Digest> digests = m_sides[0]->digests();
        const std::vector<Digest> others = m_sides[1]->digests();
        m_comparisons += std::ssize(nodes.indexes);
        Nodes found {nodes.level, {}};
        for (std::size_t i = 0; i < nodes.indexes.size(); ++i) {
            if (digests[i] != others[i]) {
                found.indexes.push_back(nodes.indexes[i]);
            }
        }
        return found;
    }

    // Many nodes at a time, for every answer may come from far away; not too many, for each can have children.
    void descend(const Nodes& parents)
    {
        if (parents.level == 0) {
            for (const std::int64_t block : parents.indexes) {
                append(m_differing, {block * m_start.blockSize, m_start.blockSize});
            }
            return;
        }
        const Nodes nodes = children(parents);
        for (std::size_t done = 0; done < nodes.indexes.size(); done += Side::MOST_NODES) {
            const auto from = nodes.indexes.begin() + static_cast<std::ptrdiff_t>(done);
            const auto count = std::min(Side::MOST_NODES, nodes.indexes.size() - done);
            const Nodes some {nodes.level, {from, from + static_cast<std::ptrdiff_t>(count)}};
            for (Side* const side : m_sides) {
                side->ask(some);
            }
            descend(differing(some));
        }
    }

    Nodes children(const Nodes& parents) const
    {
        const int down = std::min(Nodes::FAN_OUT, parents.level);
        Nodes nodes {parents.level - down, {}};
        for (const std::int64_t parent : parents.indexes) {
            const std::int64_t first = parent << down;
            for (std::int64_t i = first; i < first + (std::int64_t {1} << down) && i << nodes.level < m_blocks; ++i) {
                nodes.indexes.push_back(i);
            }
        }
        return nodes;
    }

    std::array<Side*, 2> m_sides; // the far one first
    Start m_start;
    std::int64_t m_blocks;
    std::int64_t m_comparisons = 0;
    std::vector<Range> m_differing;
};

} // namespace

Comparison compare(Side& first, Side& second, const Start& start)
{
    return TreeComparison(first, second, start).run();
}

std::optional<std::int64_t> firstDifference(Side& first, Side& second, Range range,
                                            const std::function<void(std::int64_t)>& advance)
{
    constexpr std::array<std::int64_t, 4> UNITS = {1 << 20, 1 << 12, 1 << 6, 1};
    constexpr std::int64_t AT_ONCE = 64;
    for (std::size_t depth = 0; range.length > 0;) {
        const Range piece = {range.offset, std::min(range.length, UNITS[depth] * AT_ONCE)};
        second.askBytes(piece, UNITS[depth]);
        first.askBytes(piece, UNITS[depth]);
        const std::vector<Digest> digests = first.digests();
        const std::vector<Digest> others = second.digests();
        const auto found = std::mismatch(digests.begin(), digests.end(), others.begin(), others.end()).first;
        if (found == digests.end()) {
            advance(depth == 0 ? piece.length : 0);
            range = between(piece.end(), range.end());
            continue;
        }
        const std::int64_t offset = piece.offset + (found - digests.begin()) * UNITS[depth];
        if (++depth == UNITS.size()) {
            return offset;
        }
        range = between(offset, std::min(range.end(), offset + UNITS[depth - 1]));
    }
    return std::nullopt;
}

} // namespace kelvane::tool

#include "work/Compare.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <map>
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
    struct Guessed { // indexes of nodes, ascending
        std::vector<std::int64_t> asked;
        std::vector<std::int64_t> differing;
    };

public:
    TreeComparison(Side& first, Side& second, const Start& start, const Agreement& agreement)
        : m_sides {&first, &second}
        , m_start(start)
        , m_agreement(agreement)
        , m_blocks(start.compared / start.blockSize)
        , m_tail(between(m_blocks * start.blockSize, start.compared))
        , m_root {levelFor(m_blocks), {0}}
    {
        if (second.isFar()) {
            std::swap(m_sides[0], m_sides[1]);
        }
    }

    Comparison run()
    {
        for (std::size_t i = 0; i < m_sides.size(); ++i) {
            m_hashed[i] = &m_sides[i]->openHashes(m_start);
        }
        startBoth();
        guess(m_started[1]->started().newBlocks);
        m_agreement.refuse();
        Comparison result;
        bool isNew = m_isFirst;
        for (StartedSide* const side : m_started) {
            result.bytesRead += side->started().bytesRead;
            isNew = isNew || side->started().isNew;
        }
        compareTops(result);
        if (isNew) {
            m_differing.clear();
            append(m_differing, {0, m_start.compared});
        }
        result.differing = std::move(m_differing);
        result.comparisons = isNew ? 0 : m_comparisons;
        return result;
    }

    StartedSide& started(const Side& side) const { return *m_started[&side == m_sides[0] ? 0 : 1]; }

private:
    // The far side in one go with what it is asked, and while that is on its way, the near one. Whatever can be wrong with
    // one side comes before the other one is changed, or read in vain.
    void startBoth()
    {
        const HashedSide::Effects near = m_hashed[1]->effects();
        const bool isNearFirst = near.mayFailToStore && !near.changesImage;
        m_isFirst = m_agreement.destination != nullptr && !m_agreement.destination->isFar() && isFirst();
        if (!isNearFirst) {
            start(0);
        }
        if (near.takesLong || near.changesImage) {
            m_agreement.refuse();
            m_isFirst = m_isFirst || isFirst();
        }
        if (near.changesImage) {
            m_started[0]->started();
        }
        start(1);
        if (isNearFirst) {
            start(0);
        }
    }

    // Whether the destination, which may have to be waited for, is still to be made, or is empty.
    bool isFirst() const
    {
        return m_agreement.destination != nullptr && !m_agreement.destination->opening().isBlockDevice
            && m_agreement.destination->opening().size == 0;
    }

    // What was asked of one side is asked of the other one, too.
    void start(std::size_t i)
    {
        m_started[i] = &m_hashed[i]->start(m_isFirst);
        ...
    }

    // Over a line, what would be asked level by level if just these blocks differed is asked at once.
    void guess(const std::vector<std::int64_t>& blocks)
    {
        std::vector<Nodes> levels;
        std::size_t count = 0;
        for (int level = m_sides[0]->isFar() ? m_root.level : 0; level > 0; level = levels.back().level) {
            Nodes parents {level, {}};
            for (const std::int64_t block : blocks) {
                if (block < m_blocks && (parents.indexes.empty() || parents.indexes.back() != block >> level)) {
                    parents.indexes.push_back(block >> level);
                }
            }
            levels.push_back(children(parents));
            count += levels.back().indexes.size();
        }
        if (count > 0 && count <= Side::MOST_NODES) {
            m_guesses = std::move(levels);
            for (const Nodes& nodes : m_guesses) {
                ask(nodes);
            }
        }
    }

    void takeGuesses()
    {
        for (const Nodes& nodes : m_guesses) {
            m_guessed[nodes.level] = {nodes.indexes, answered(nodes).indexes};
        }
    }

    void ask(const Nodes& nodes)
    {
        for (Side* const side : m_sides) {
            side->ask(nodes);
        }
    }

    // Those that differ, of nodes that were asked for.
    Nodes answered(const Nodes& nodes)
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

    // Those that differ. What is known from a guess is not asked.
    Nodes differing(const Nodes& nodes)
    {
        const Guessed& guessed = m_guessed[nodes.level];
        Nodes found {nodes.level, {}};
        std::set_intersection(nodes.indexes.begin(), nodes.indexes.end(), guessed.differing.begin(),
                              guessed.differing.end(), std::back_inserter(found.indexes));
        Nodes rest {nodes.level, {}};
        std::set_difference(nodes.indexes.begin(), nodes.indexes.end(), guessed.asked.begin(), guessed.asked.end(),
                            std::back_inserter(rest.indexes));
        const std::vector<Nodes> questions = partsOf(rest, Side::MOST_NODES);
        for (const Nodes& question : questions) {
            ask(question);
        }
        for (const Nodes& question : questions) {
            const Nodes more = answered(question);
            found.indexes.insert(found.indexes.end(), more.indexes.begin(), more.indexes.end());
        }
        std::sort(found.indexes.begin(), found.indexes.end());
        return found;
    }

    // As many nodes at a time as questions may be on the way, for every answer may come from far away; not more, for
    // each can have children.
    void descend(const Nodes& parents)
    {
        constexpr std::size_t QUESTIONS = 8;
        if (parents.level == 0) {
            for (const std::int64_t block : parents.indexes) {
                append(m_differing, {block * m_start.blockSize, m_start.blockSize});
            }
            return;
        }
        for (const Nodes& some : partsOf(parents, QUESTIONS * Side::MOST_NODES >> Nodes::FAN_OUT)) {
            descend(differing(children(some)));
        }
    }

    static std::vector<Nodes> partsOf(const Nodes& nodes, std::size_t most)
    {
        std::vector<Nodes> parts;
        for (std::size_t done = 0; done < nodes.indexes.size(); done += most) {
            const auto from = nodes.indexes.begin() + static_cast<std::ptrdiff_t>(done);
            const auto count = std::min(most, nodes.indexes.size() - done);
            parts.push_back({nodes.level, {from, from + static_cast<std::ptrdiff_t>(count)}});
        }
        return parts;
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
    const std::function<void()>& m_refuse;
    std::int64_t m_blocks;
    Nodes m_root;
    std::vector<Nodes> m_guesses;     // which were asked, and not yet answered
    std::map<int, Guessed> m_guessed; // by their level
    std::int64_t m_comparisons = 0;
    std::vector<Range> m_differing;
};

} // namespace

Comparison compare(Side& first, Side& second, const Start& start, const std::function<void()>& refuse)
{
    return TreeComparison(first, second, start, refuse).run();
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

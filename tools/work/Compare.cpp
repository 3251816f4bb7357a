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
        , m_destination(agreement.isCopied ? &second : nullptr)
        , m_start(start)
        , m_refuse(agreement.refuse)
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
        startBoth();
        guess(m_started[1]->started().newBlocks);
        m_refuse();
        const bool isFarNew = m_started[0]->started().isNew;
        const bool isNew = m_isFirst || isFarNew || m_started[1]->started().isNew;
        if (isNew) {
            takeAllAsDiffering();
        } else {
            compareAll();
        }
        Comparison result {std::move(m_differing), isNew ? 0 : m_start.compared, m_comparisons, 0};
        for (StartedSide* const side : m_started) {
            result.bytesRead += side->started().bytesRead + (isNew ? 0 : m_tail.length);
        }
        return result;
    }

    StartedSide& started(const Side& side) const { return *m_started[&side == m_sides[0] ? 0 : 1]; }

private:
    // The far side in one go with what it is asked, and while that is on its way, the near one. Whatever can be wrong
    // with one side comes before the other one is changed, or read in vain.
    void startBoth()
    {
        std::array<HashedSide*, 2> hashed = {&m_sides[0]->openHashes(m_start), &m_sides[1]->openHashes(m_start)};
        const HashedSide::Effects near = hashed[1]->effects();
        const bool isNearFirst = near.mayFailToStore && !near.changesImage;
        m_isFirst = m_destination != nullptr && !m_destination->isFar() && m_destination->opening().isBlank;
        if (!isNearFirst) {
            start(*hashed[0], 0);
        }
        if (near.takesLong || near.changesImage) {
            m_refuse();
            m_isFirst = m_isFirst || (m_destination != nullptr && m_destination->opening().isBlank);
        }
        if (near.changesImage) {
            m_started[0]->started();
        }
        start(*hashed[1], 1);
        if (isNearFirst) {
            start(*hashed[0], 0);
        }
    }

    void start(HashedSide& side, std::size_t i)
    {
        m_started[i] = &side.start(m_isFirst);
        m_isAsked[i] = !m_isFirst;
        if (m_isAsked[i] && m_tail.length > 0) { // the hash of a part of a block would be that of a whole one
            m_started[i]->askBytes(m_tail, m_tail.length);
        }
        if (m_isAsked[i] && m_blocks > 0) {
            m_started[i]->ask(m_root);
        }
    }

    // What was asked all the same is answered.
    void takeAllAsDiffering()
    {
        const std::size_t questions = (m_tail.length > 0 ? 1 : 0) + (m_blocks > 0 ? 1 : 0) + m_guesses.size();
        for (std::size_t i = 0; i < m_started.size(); ++i) {
            for (std::size_t asked = m_isAsked[i] ? questions : 0; asked > 0; --asked) {
                m_started[i]->digests();
            }
        }
        append(m_differing, {0, m_start.compared});
    }

    void compareAll()
    {
        const bool tailDiffers = m_tail.length > 0 && !answered(Nodes {0, {0}}).indexes.empty();
        const Nodes top = m_blocks > 0 ? answered(m_root) : Nodes();
        if (m_guesses.empty() && !top.indexes.empty()) {
            guess(m_started[0]->started().newBlocks);
        }
        takeGuesses();
        descend(top);
        append(m_differing, tailDiffers ? m_tail : Range {});
    }

    // Over a line, what would be asked level by level if just these blocks differed is asked at once.
    void guess(const std::vector<std::int64_t>& blocks)
    {
        std::vector<Nodes> levels;
        std::size_t count = 0;
        for (int level = m_sides[0]->isFar() && !m_isFirst ? m_root.level : 0; level > 0; level = levels.back().level) {
            Nodes parents {level, {}};
            for (const std::int64_t block : blocks) {
                if (block < m_blocks && (parents.indexes.empty() || parents.indexes.back() != block >> level)) {
                    parents.indexes.push_back(block >> level);
                }
            }
            levels.push_back(children(parents));
            count += levels.back().indexes.size();
        }
        if (count > 0 && count <= StartedSide::MOST_NODES) {
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
        for (StartedSide* const side : m_started) {
            side->ask(nodes);
        }
    }

    // Those that differ, of nodes that were asked for.
    Nodes answered(const Nodes& nodes)
    {
        const std::vector<Digest> digests = m_started[0]->digests();
        const std::vector<Digest> others = m_started[1]->digests();
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
        const std::vector<Nodes> questions = partsOf(rest, StartedSide::MOST_NODES);
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
        for (const Nodes& some : partsOf(parents, QUESTIONS * StartedSide::MOST_NODES >> Nodes::FAN_OUT)) {
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
    std::array<StartedSide*, 2> m_started = {};
    std::array<bool, 2> m_isAsked = {}; // the first questions
    Side* m_destination;
    Start m_start;
    const std::function<void()>& m_refuse;
    std::int64_t m_blocks;
    Range m_tail; // a part of a block
    Nodes m_root;
    bool m_isFirst = false;           // known to be, before both were started
    std::vector<Nodes> m_guesses;     // which were asked, and not yet answered
    std::map<int, Guessed> m_guessed; // by their level
    std::int64_t m_comparisons = 0;
    std::vector<Range> m_differing;
};

} // namespace

Compared compare(Side& first, Side& second, const Start& start, const Agreement& agreement)
{
    TreeComparison tree(first, second, start, agreement);
    Comparison comparison = tree.run();
    return {tree.started(first), tree.started(second), std::move(comparison)};
}

std::optional<std::int64_t> firstDifference(StartedSide& first, StartedSide& second, Range range,
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

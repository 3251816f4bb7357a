#include "work/Copier.h"

#include <algorithm>
#include <cstring>

#include "base/Failure.h"
#include "base/Interrupt.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t BATCH = 32 << 20; // bytes that are written between two flushes, and kept in memory
constexpr std::size_t MOST_PIECES = 1 << 12;

} // namespace

Copier::Copier(Image& destination, HashedImage& hashed, bool isSparse)
    : m_destination(destination)
    , m_hashed(hashed)
    , m_isSparse(isSparse)
    , m_blockSize(hashed.store().blockSize())
    , m_room(std::min(std::max(BATCH, m_blockSize), destination.size()))
    , m_buffer(std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(m_room)))
{
}

// The rest of a block that was begun; else whole blocks, the image's last one among them; else the beginning of one.
Range Copier::firstOf(Range range) const
{
    const std::int64_t inBlock = range.offset % m_blockSize;
    if (inBlock > 0) {
        return {range.offset, std::min(range.length, m_blockSize - inBlock)};
    }
    const bool isToEnd = range.end() == m_destination.size();
    const std::int64_t whole = isToEnd ? range.length : roundDown(range.length, m_blockSize);
    return {range.offset, whole > 0 ? whole : range.length};
}

bool Copier::isOfWholeBlocks(Range range) const
{
    return range.offset % m_blockSize == 0 && (range.end() % m_blockSize == 0 || range.end() == m_destination.size());
}

// At the start of a block, for all of it.
void Copier::makeRoom(Range range)
{
    const std::int64_t needed = std::max(range.length, std::min(m_blockSize, m_destination.size() - range.offset));
    if (range.offset % m_blockSize == 0 && (m_batch.size() >= MOST_PIECES || m_taken + needed > m_room)) {
        flush();
    }
    if (range.length > m_room - m_taken) {
        throw Failure(m_destination.path(), range.offset, "more data than there is room for");
    }
}

void Copier::write(Range range, const char* data)
{
    while (range.length > 0) {
        throwWhenInterrupted();
        const Range first = firstOf(range);
        if (data == nullptr && isOfWholeBlocks(first)) {
            addZeros(first);
        } else {
            addBytes(first, data);
        }
        data = data == nullptr ? nullptr : data + first.length;
        range = between(first.end(), range.end());
    }
}

void Copier::addZeros(Range range)
{
    if (m_batch.size() >= MOST_PIECES) {
        flush();
    }
    m_batch.push_back({range, nullptr});
}

void Copier::addBytes(Range range, const char* data)
{
    makeRoom(range);
    char* const place = m_buffer.get() + m_taken;
    const auto length = static_cast<std::size_t>(range.length);
    data == nullptr ? std::memset(place, 0, length) : std::memcpy(place, data, length);
    m_taken += range.length;
    if (!m_batch.empty() && m_batch.back().data != nullptr && m_batch.back().range.end() == range.offset) {
        m_batch.back().range.length += range.length;
    } else {
        m_batch.push_back({range, place});
    }
}

void Copier::dropPartOfBlock()
{
    if (!m_batch.empty() && m_batch.back().range.end() != m_destination.size()) {
        Range& last = m_batch.back().range;
        last = between(last.offset, std::max(last.offset, roundDown(last.end(), m_blockSize)));
        if (last.length == 0) {
            m_batch.pop_back();
        }
    }
}

void Copier::flush()
{
    if (m_batch.empty()) {
        return;
    }
    m_hashed.belief().mark();
    for (const Piece& piece : m_batch) {
        m_hashed.store().invalidate(piece.range);
    }
    m_hashed.belief().flushHashes();
    const OwnChange change = m_hashed.belief().changeImage([&] {
        for (const Piece& piece : m_batch) {
            put(piece);
        }
    });
    const bool isWritten
        = std::all_of(m_batch.begin(), m_batch.end(), [this](const Piece& piece) { return isThere(piece); });
    addChange({change.wasUnchanged && isWritten, change.wasAlone});
    for (const Piece& piece : m_batch) {
        m_hashed.store().update(piece.range, piece.data);
    }
    m_batch.clear();
    m_taken = 0;
}

void Copier::addChange(const OwnChange& change)
{
    m_ownChange.wasUnchanged = m_ownChange.wasUnchanged && change.wasUnchanged;
    m_ownChange.wasAlone = m_ownChange.wasAlone && change.wasAlone;
}

// No hash is forgotten: the bytes are the same before and after.
void Copier::fillHoles(Phase& phase)
{
    for (Range rest = {0, m_destination.size()}; rest.length > 0;) {
        throwWhenInterrupted();
        if (const std::vector<Range> holes = takeHoles(rest); !holes.empty()) {
            m_hashed.belief().mark();
            addChange(m_hashed.belief().changeImage([&] {
                for (const Range& hole : holes) {
                    putZeros(hole);
                }
            }));
        }
        phase.reach(rest.offset);
    }
}

// The first holes of a range, as many as make a batch; the range is then what lies behind them.
std::vector<Range> Copier::takeHoles(Range& rest) const
{
    std::vector<Range> holes;
    std::int64_t room = BATCH;
    while (rest.length > 0 && room > 0 && holes.size() < MOST_PIECES) {
        const Range data = m_destination.nextData(rest.offset, rest.end());
        const Range hole = between(rest.offset, std::min(data.offset, rest.offset + room));
        append(holes, hole);
        room -= hole.length;
        rest = between(hole.end() < data.offset ? hole.end() : data.end(), rest.end());
    }
    return holes;
}

void Copier::put(const Piece& piece)
{
    piece.data == nullptr ? putZeros(piece.range) : m_destination.write(piece.data, piece.range);
}

// What others write to the same pages of a device is not counted twice.
bool Copier::isThere(const Piece& piece) const
{
    if (!m_destination.isBlockDevice() || piece.data == nullptr) {
        return true;
    }
    std::vector<char> found(static_cast<std::size_t>(std::min(piece.range.length, LONGEST_PIECE)));
    for (Range rest = piece.range; rest.length > 0;) {
        const Range next = takeFirst(rest, std::ssize(found));
        m_destination.read(found.data(), next);
        const char* const written = piece.data + (next.offset - piece.range.offset);
        if (std::memcmp(found.data(), written, static_cast<std::size_t>(next.length)) != 0) {
            return false;
        }
    }
    return true;
}

void Copier::putZeros(Range range)
{
    if (m_isSparse && m_destination.punch(range)) {
        return;
    }
    const std::vector<char> zeros(static_cast<std::size_t>(std::min(range.length, LONGEST_PIECE)));
    while (range.length > 0) {
        m_destination.write(zeros.data(), takeFirst(range, std::ssize(zeros)));
    }
}

} // namespace kelvane::tool

#include "work/Copier.h"

#include <algorithm>
#include <cstring>

#include "base/Interrupt.h"
#include "work/Side.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t BATCH = 32 << 20; // bytes that are written between two flushes, and kept in memory
constexpr std::size_t MOST_PARTS = 1 << 12;

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

bool Copier::isOfWholeBlocks(Range range) const
{
    return range.offset % m_blockSize == 0 && (range.end() % m_blockSize == 0 || range.end() == m_destination.size());
}

// At the start of a block, for all of it.
void Copier::makeRoom(Range range)
{
    const std::int64_t needed = std::max(range.length, std::min(m_blockSize, m_destination.size() - range.offset));
    if (range.offset % m_blockSize == 0 && (m_batch.size() >= MOST_PARTS || m_taken + needed > m_room)) {
        flush();
    }
}

void Copier::write(Range range, const char* data)
{
    throwWhenInterrupted();
    if (data == nullptr && isOfWholeBlocks(range)) {
        if (m_batch.size() >= MOST_PARTS) {
            flush();
        }
        m_batch.push_back({range, nullptr});
        return;
    }
    if (data == nullptr && range.length > LONGEST_PIECE) {
        for (Range rest = range; rest.length > 0;) {
            const Range piece = {rest.offset, std::min(LONGEST_PIECE, rest.length)};
            write(piece, nullptr);
            rest = between(piece.end(), range.end());
        }
        return;
    }
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
    m_hashed.markChanging();
    for (const Part& part : m_batch) {
        m_hashed.store().invalidate(part.range);
    }
    m_hashed.store().sync();
    const OwnChange change = m_hashed.changeImage([&] {
        for (const Part& part : m_batch) {
            put(part);
        }
    });
    const bool isWritten = std::all_of(m_batch.begin(), m_batch.end(), [this](const Part& p) { return isThere(p); });
    m_ownChange.wasUnchanged = m_ownChange.wasUnchanged && change.wasUnchanged && isWritten;
    m_ownChange.wasAlone = m_ownChange.wasAlone && change.wasAlone;
    for (const Part& part : m_batch) {
        part.data == nullptr ? m_hashed.store().zero(part.range) : m_hashed.store().update(part.range, part.data);
    }
    m_batch.clear();
    m_taken = 0;
}

void Copier::put(const Part& part)
{
    part.data == nullptr ? putZeros(part.range) : m_destination.write(part.data, part.range);
}

// What others write to the same pages of a device is not counted twice.
bool Copier::isThere(const Part& part) const
{
    if (!m_destination.isBlockDevice() || part.data == nullptr) {
        return true;
    }
    std::vector<char> found(static_cast<std::size_t>(std::min(part.range.length, LONGEST_PIECE)));
    for (Range rest = part.range; rest.length > 0;) {
        const Range piece = {rest.offset, std::min(rest.length, std::ssize(found))};
        m_destination.read(found.data(), piece);
        const char* const written = part.data + (piece.offset - part.range.offset);
        if (std::memcmp(found.data(), written, static_cast<std::size_t>(piece.length)) != 0) {
            return false;
        }
        rest = between(piece.end(), rest.end());
    }
    return true;
}

void Copier::putZeros(Range range)
{
    if (m_isSparse && m_destination.punch(range)) {
        return;
    }
    const std::vector<char> zeros(LONGEST_PIECE);
    while (range.length > 0) {
        const Range piece = between(range.offset, std::min(range.end(), range.offset + std::ssize(zeros)));
        m_destination.write(zeros.data(), piece);
        range = between(piece.end(), range.end());
    }
}

} // namespace kelvane::tool

#include "work/Copier.h"

#include <algorithm>
#include <cstring>

#include "base/Interrupt.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t BATCH = 32 << 20; // bytes that are copied between two flushes, and kept in memory
constexpr std::size_t MOST_PARTS = 4096;

bool isAllZeros(const char* data, std::int64_t length)
{
    return data[0] == 0 && std::memcmp(data, data + 1, static_cast<std::size_t>(length) - 1) == 0;
}

} // namespace

Copier::Copier(const Image& source, Image& destination, HashedImage& hashed, bool isSparse, Progress& progress)
    : m_source(source)
    , m_destination(destination)
    , m_hashed(hashed)
    , m_isSparse(isSparse)
    , m_progress(progress)
    , m_blockSize(hashed.store().blockSize())
    , m_room(std::min(std::max(BATCH, m_blockSize), source.size()))
    , m_buffer(std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(m_room)))
{
}

void Copier::copy(const std::vector<Range>& ranges)
{
    for (Range rest : ranges) {
        while (rest.length > 0) {
            const std::int64_t data = roundDown(m_source.nextData(rest.offset, rest.end()).offset, m_blockSize);
            const bool isHole = data > rest.offset;
            const std::int64_t longest
                = isHole ? holeSliceSize(m_blockSize) : std::max(m_blockSize, roundDown(m_room, m_blockSize));
            const Range next
                = between(rest.offset, std::min({isHole ? data : rest.end(), rest.end(), rest.offset + longest}));
            add(next, isHole);
            rest = between(next.end(), rest.end());
        }
    }
    flush();
}

void Copier::add(Range range, bool isHole)
{
    if (m_batch.size() == MOST_PARTS || (!isHole && m_taken + range.length > m_room)) {
        flush();
    }
    m_batch.push_back({range, isHole, isHole ? nullptr : m_buffer.get() + m_taken});
    m_taken += isHole ? 0 : range.length;
}

void Copier::flush()
{
    throwWhenInterrupted();
    m_hashed.markChanging();
    Store& store = m_hashed.store();
    for (const Part& part : m_batch) {
        store.invalidate(part.range);
    }
    store.sync();
    const std::vector<Part> parts = readBatch();
    m_foundForeignChange = !m_hashed.changeImage([&] {
        for (const Part& part : parts) {
            write(part);
        }
    }) || m_foundForeignChange;
    for (const Part& part : parts) {
        part.isZeros ? store.zero(part.range) : store.update(part.range, part.data);
        m_progress.advance(part.range.length);
    }
    m_batch.clear();
    m_taken = 0;
}

// Reads the data of the batch, and cuts it into stretches of blocks with and without content.
std::vector<Copier::Part> Copier::readBatch()
{
    std::vector<Part> parts;
    for (const Part& part : m_batch) {
        if (part.isZeros) {
            parts.push_back(part);
            continue;
        }
        m_source.read(part.data, part.range);
        for (std::int64_t at = 0; at < part.range.length; at += m_blockSize) {
            const std::int64_t length = std::min(m_blockSize, part.range.length - at);
            const bool isZeros = m_isSparse && isAllZeros(part.data + at, length);
            if (at > 0 && parts.back().isZeros == isZeros) {
                parts.back().range.length += length;
            } else {
                parts.push_back({{part.range.offset + at, length}, isZeros, part.data + at});
            }
        }
    }
    return parts;
}

void Copier::write(const Part& part)
{
    if (part.isZeros && m_isSparse && m_destination.punch(part.range)) {
        return;
    }
    part.data == nullptr ? writeZeros(part.range) : m_destination.write(part.data, part.range);
}

void Copier::writeZeros(Range range)
{
    const std::vector<char> zeros(1 << 20);
    while (range.length > 0) {
        const Range piece = between(range.offset, std::min(range.end(), range.offset + std::ssize(zeros)));
        m_destination.write(zeros.data(), piece);
        range = between(piece.end(), range.end());
    }
}

} // namespace kelvane::tool

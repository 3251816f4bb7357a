#include "work/Writer.h"

#include <algorithm>
#include <utility>

#include "base/Interrupt.h"

namespace kelvane::tool {

namespace {

// How much is written between two flushes, and in how long: what a crash leaves to be read once more.
constexpr std::int64_t MOST_BYTES = std::int64_t {4} << 30;
constexpr std::chrono::seconds LONGEST(15);
constexpr std::size_t MOST_DIGEST_BYTES = 32 << 20; // that are kept in memory meanwhile
constexpr std::size_t MOST_RANGES = 1 << 15;        // the same

constexpr std::int64_t MOST_DIRTY = 128 << 20; // that may wait for the disk
constexpr std::int64_t WINDOW = 1 << 20;       // in which the disk begins with all that was written at once

// The first page may have been written as the last one of the window before.
Range ownPages(Range window)
{
    constexpr std::int64_t PAGE = 4096;
    return between(std::min(roundUp(window.offset, PAGE), window.end()), window.end());
}

} // namespace

Writer::Writer(Image& destination, HashedImage& hashed, bool isSparse, const Common& common)
    : m_destination(destination)
    , m_hashed(hashed)
    , m_isSparse(isSparse)
    , m_common(common)
    , m_change(hashed.belief())
    , m_digests(hashed.store().blockSize(),
                [this](Range blocks, const DigestBytes& digests) { remember(blocks, digests); })
{
}

// True when there was something to forget.
bool Writer::forget(Range range)
{
    const std::int64_t blockSize = m_hashed.store().blockSize();
    const Range blocks = between(roundDown(range.offset, blockSize),
                                 std::min(roundUp(range.end(), blockSize), roundDown(m_destination.size(), blockSize)));
    if (totalLength(m_hashed.store().unknown(blocks)) == blocks.length) {
        return false;
    }
    m_hashed.belief().mark();
    m_hashed.store().invalidate(blocks);
    return true;
}

void Writer::announce(const std::vector<Range>& ranges)
{
    for (const Range& range : ranges) {
        throwWhenInterrupted();
        m_hasForgotten = forget(range) || m_hasForgotten;
    }
}

void Writer::write(const Piece& piece)
{
    throwWhenInterrupted();
    m_hashed.belief().mark(); // also where no hash is known: what a run that is cut short leaves in memory may be lost
    m_hasForgotten = forget(piece.range) || m_hasForgotten; // nobody need have announced it
    if (std::exchange(m_hasForgotten, false)) {
        m_hashed.belief().flushHashes();
    }
    put(piece);
    m_digests.add(piece);
    flushWhenDue();
}

void Writer::put(const Piece& piece)
{
    piece.data == nullptr ? putZeros(piece.range) : putData(piece.range, piece.data, piece.memory);
}

void Writer::putZeros(Range range)
{
    const bool isHole = m_destination.nextData(range.offset, range.end()).length == 0;
    if ((m_isSparse && isHole) || m_destination.zero(range, !m_isSparse)) {
        return;
    }
    const std::shared_ptr<char[]> zeros = pagesFor(LONGEST_PIECE);
    std::fill_n(zeros.get(), LONGEST_PIECE, '\0');
    while (range.length > 0) {
        throwWhenInterrupted();
        putData(takeFirst(range, LONGEST_PIECE), zeros.get(), zeros);
    }
}

void Writer::putData(Range range, const char* data, const std::shared_ptr<const void>& memory)
{
    if (range.offset < m_window.offset || range.end() > m_window.end()) {
        beginWindow(range);
    }
    const bool leavesAsFound = m_common.cache == Cache::LeaveAsFound;
    if (leavesAsFound && (m_isWindowUncached || !m_destination.isAnyInMemory(range))) {
        append(m_batch.uncached, range);
    }
    m_destination.write(data, range, memory);
    m_batch.bytes += range.length;
    m_windowBytes += range.length;
}

// The disk begins with the last one at once, and is waited for when too much is on its way to it. What is asked of the
// system is asked for many small pieces together.
void Writer::beginWindow(Range range)
{
    if (m_windowBytes > 0) {
        m_destination.beginWriteBack(m_window);
        m_dirty.push_back({m_window, m_windowBytes});
    }
    for (m_dirtyBytes += m_windowBytes; m_dirtyBytes > MOST_DIRTY; m_dirty.pop_front()) {
        m_destination.awaitWriteBack(m_dirty.front().window);
        m_dirtyBytes -= m_dirty.front().bytes;
    }
    m_windowBytes = 0;
    m_window = between(range.offset, std::max(range.end(), roundUp(range.end(), WINDOW)));
    m_isWindowUncached = !m_destination.isAnyInMemory(ownPages(m_window));
}

void Writer::remember(Range blocks, const DigestBytes& digests)
{
    std::vector<Written>& written = m_batch.written;
    m_batch.digestBytes += digests.size();
    if (!written.empty() && written.back().blocks.end() == blocks.offset
        && written.back().digests.empty() == digests.empty()) {
        written.back().blocks.length += blocks.length;
        written.back().digests.insert(written.back().digests.end(), digests.begin(), digests.end());
    } else {
        written.push_back({blocks, digests});
    }
}

// What is written meanwhile is flushed next. How a flush has ended is looked at soon: until then nothing but this
// program knows that it has failed.
void Writer::flushWhenDue()
{
    const auto isAbove = [&](std::size_t factor) {
        return m_batch.digestBytes > MOST_DIGEST_BYTES * factor
            || m_batch.written.size() + m_batch.uncached.size() > MOST_RANGES * factor;
    };
    const bool isDue
        = m_batch.bytes > MOST_BYTES || isAbove(1) || std::chrono::steady_clock::now() - m_batch.begin > LONGEST;
    const bool isFree = !m_flush.valid() || m_flush.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    if (isFree || isAbove(2)) {
        endFlush();
        if (isDue) {
            beginFlush();
        }
    }
}

void Writer::beginFlush()
{
    m_flushed = std::exchange(m_batch, {});
    m_flush = std::async(std::launch::async, [this] { m_destination.flush(); });
}

void Writer::endFlush()
{
    if (!m_flush.valid()) {
        return;
    }
    awaitFlush();
    for (const auto& [blocks, digests] : m_flushed.written) {
        m_hashed.belief().mark();
        m_hashed.store().store(blocks, digests);
    }
    for (const Range& range : m_flushed.uncached) {
        m_destination.drop(range);
    }
    m_flushed = {};
}

void Writer::awaitFlush()
{
    try {
        m_flush.get();
    } catch (const FlushFailed&) {
        m_hashed.belief().hasLostWrites(); // which records it
        throw;
    }
}

// No hash is forgotten: the bytes are the same before and after.
void Writer::fillHoles()
{
    const auto phase = m_common.reporter.begin("fill", m_destination.size());
    for (Range rest = {0, m_destination.size()}; rest.length > 0;) {
        throwWhenInterrupted();
        const Range data = m_destination.nextData(rest.offset, rest.end());
        putZeros(between(rest.offset, data.offset));
        flushWhenDue();
        rest = between(data.end(), rest.end());
        phase->reach(rest.offset);
    }
}

OwnChange Writer::finish()
{
    if (!m_isSparse) {
        fillHoles();
    }
    return stop();
}

OwnChange Writer::stop()
{
    {
        const auto phase = m_common.reporter.begin("flush", std::nullopt);
        endFlush();
        beginFlush();
        endFlush();
    }
    m_hashed.belief().flushHashes();
    return m_change.end();
}

} // namespace kelvane::tool

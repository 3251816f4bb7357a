#include <unistd.h>

#include "BlockHashStore/BlockHasher.h"
#include "BlockHashStore/Internals.h"

namespace kelvane {

// `transfer` moves so many bytes at the position, and returns how many it moved.
template <class Transfer>
void BlockHashStore::transferEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count,
                                     const TransferFailures& failures, Transfer transfer)
{
    const kelvane_ssize_t whereTo = entryOffsetInFile(firstBlock);
    const kelvane_ssize_t bytes = count * entrySize();
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        failWithErrno(failures.ofSeek, whereTo);
    }
    if (!validReadWrite(bytes, transfer(bytes))) {
        failWithErrno(failures.ofTransfer, failures.offset.value_or(whereTo));
    }
}

void BlockHashStore::readEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count, char* entries,
                                 const TransferFailures& failures)
{
    transferEntries(firstBlock, count, failures, [&](kelvane_ssize_t bytes) { return m_file.read(entries, bytes); });
}

void BlockHashStore::writeEntries(kelvane_ssize_t firstBlock, kelvane_ssize_t count, const char* entries,
                                  const TransferFailures& failures)
{
    transferEntries(firstBlock, count, failures,
                    [&](kelvane_ssize_t bytes) { return m_file.write(entries, static_cast<std::size_t>(bytes)); });
}

// Reads the entries of the span positions from `from` up to `end`, a window of them at a time, those of partial blocks
// left out. False when the progress function stopped it.
bool BlockHashStore::throughWindows(const Span& span, kelvane_ssize_t from, kelvane_ssize_t end,
                                    const ProgressFunc& progress, const std::function<void(const Window&)>& take)
{
    constexpr kelvane_ssize_t ENTRIES_AT_ONCE = 4096; // bounds the memory
    std::vector<char> entries(static_cast<std::size_t>(std::min(ENTRIES_AT_ONCE, end - from) * entrySize()));
    while (from < end) {
        const Window window = {entries.data(), entrySize(), from, std::min(end, from + ENTRIES_AT_ONCE)};
        const Window full = window.full(span);
        if (full.count() > 0) {
            readEntries(span.firstBlock + full.from, full.count(), full.entries, TransferFailures::ofLooking());
        }
        take(window);
        from = window.to;
        const bool isLast = from == end;
        const kelvane_ssize_t done = isLast ? span.length : from * blockSize() - span.partialStart;
        if (progress && !progress(done) && !isLast) {
            return false;
        }
    }
    return true;
}

kelvane_ssize_t BlockHashStore::entryOffsetInFile(kelvane_ssize_t block) const
{
    return static_cast<kelvane_ssize_t>(m_header.dataRegionOffsetInBytes) + block * entrySize();
}

BlockHashStore::BlockHasher BlockHashStore::blockHasher(const char* failure)
{
    return {*m_hashFunction, blockSize(), m_blockBuffer.get(), failure};
}

} // namespace kelvane

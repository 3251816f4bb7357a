#include <unistd.h>

#include <algorithm>

#include "BlockHashStore/Internals.h"

namespace kelvane {

namespace {

constexpr kelvane_ssize_t SECTOR = 512;           // what a disk writes wholly or not at all
constexpr kelvane_ssize_t ENTRIES_AT_ONCE = 4096; // bounds the memory

} // namespace

void BlockHashStore::for_each_unknown_range(kelvane_off_t offset, kelvane_buf_len_t length,
                                            const UnknownRangeFunc& onRange)
{
    throwWithinDataCallback();
    const Span span = spanOf("for_each_unknown_range", offset, length);
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const auto entrySize = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    const kelvane_ssize_t end = span.firstFullPosition + span.numberOfFullBlocks;
    std::vector<char> entries(static_cast<std::size_t>(std::min(ENTRIES_AT_ONCE, span.numberOfFullBlocks) * entrySize));
    kelvane_ssize_t start = span.firstFullPosition; // of the unknown blocks in front of the position
    for (kelvane_ssize_t position = start; position < end;) {
        const kelvane_ssize_t count = std::min(ENTRIES_AT_ONCE, end - position);
        const kelvane_ssize_t whereTo = entryOffsetInFile(span.firstBlock + position);
        if (m_file.seek(whereTo, SEEK_SET) != whereTo
            || !validReadWrite(count * entrySize, m_file.read(entries.data(), count * entrySize))) {
            failWithErrno("failed to read hash entry: ", whereTo);
            return;
        }
        for (kelvane_ssize_t i = 0; i < count; ++i, ++position) {
            if ((entries[static_cast<std::size_t>(i * entrySize)] & InUse) == 0) {
                continue;
            }
            if (start < position) {
                onRange(span.start + start * blockSize, (position - start) * blockSize);
            }
            start = position + 1;
        }
    }
    if (start < end) {
        onRange(span.start + start * blockSize, (end - start) * blockSize);
    }
}

uint64_t BlockHashStore::discard_torn_entries()
{
    throwWithinDataCallback();
    const auto entrySize = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    const auto dataStart = static_cast<kelvane_ssize_t>(m_header.dataRegionOffsetInBytes);
    const auto dataSize
        = static_cast<kelvane_ssize_t>(computeDataSize(m_header.targetSizeInBytes, getBlockSize(), hashSize()));
    const std::vector<char> zeros(static_cast<std::size_t>(entrySize), 0);
    std::vector<char> entry(zeros);
    uint64_t discarded = 0;
    for (kelvane_ssize_t boundary = SECTOR; boundary < dataSize; boundary += SECTOR) {
        const kelvane_ssize_t start = boundary / entrySize * entrySize;
        const kelvane_ssize_t whereTo = dataStart + start;
        if (start == boundary) {
            continue;
        }
        if (m_file.seek(whereTo, SEEK_SET) != whereTo
            || !validReadWrite(entrySize, m_file.read(entry.data(), entrySize))) {
            failWithErrno("failed to read hash entry: ", whereTo);
            return 0;
        }
        const auto secondHalf = entry.begin() + (boundary - start);
        if ((entry.front() & InUse) == 0 || !std::equal(secondHalf, entry.end(), zeros.begin())) {
            continue;
        }
        if (m_file.seek(whereTo, SEEK_SET) != whereTo
            || !validReadWrite(entrySize, m_file.write(zeros.data(), zeros.size()))) {
            failWithErrno("failed to clear hash entry: ", whereTo);
            return 0;
        }
        ++discarded;
    }
    return discarded;
}

} // namespace kelvane

#include <unistd.h>

#include <algorithm>

#include "BlockHashStore/Internals.h"

namespace kelvane {

namespace {

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
                onRange(blockOffset(span, start), (position - start) * blockSize);
            }
            start = position + 1;
        }
    }
    if (start < end) {
        onRange(blockOffset(span, start), (end - start) * blockSize);
    }
}

} // namespace kelvane

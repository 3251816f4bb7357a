#include <algorithm>

#include "BlockHashStore/Internals.h"

namespace kelvane {

namespace {

constexpr kelvane_ssize_t ENTRIES_AT_ONCE = 4096; // bounds the memory

} // namespace

void BlockHashStore::for_each_unknown_range(kelvane_off_t offset, kelvane_buf_len_t length,
                                            const UnknownRangeFunc& onRange)
{
    emptyWhenGivenUp([&] { forEachUnknownRange(offset, length, onRange); });
}

void BlockHashStore::forEachUnknownRange(kelvane_off_t offset, kelvane_buf_len_t length,
                                         const UnknownRangeFunc& onRange)
{
    throwWithinDataCallback();
    const Span span = spanOf("for_each_unknown_range", offset, length);
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const kelvane_ssize_t end = span.endFullPosition();
    const kelvane_ssize_t atOnce = std::min(ENTRIES_AT_ONCE, span.numberOfFullBlocks);
    std::vector<char> entries(static_cast<std::size_t>(atOnce * entrySize()));
    kelvane_ssize_t start = span.firstFullPosition; // of the unknown blocks in front of the position
    for (kelvane_ssize_t position = start; position < end;) {
        const kelvane_ssize_t count = std::min(atOnce, end - position);
        readEntries(span.firstBlock + position, count, entries.data(), TransferFailures::ofLooking());
        const char* flags = entries.data();
        for (kelvane_ssize_t i = 0; i < count; ++i, ++position, flags += entrySize()) {
            if ((*flags & InUse) == 0) {
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

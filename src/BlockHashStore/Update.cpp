#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "BlockHashStore/BlockHasher.h"
#include "BlockHashStore/Internals.h"

namespace kelvane {

namespace {

constexpr kelvane_ssize_t MAXIMUM_WRITE = std::numeric_limits<int>::max(); // what a writer can report
constexpr kelvane_ssize_t BYTES_AT_ONCE = 1 << 20;                         // of entries
constexpr kelvane_ssize_t SECTOR = 512;                                    // what a disk writes wholly or not at all
constexpr const char* HASHING_FAILED = "failed to compute hash from data";

} // namespace

BlockHashStore::HashValue BlockHashStore::get_hash(kelvane_buf_t buffer, kelvane_size_t blockSize) const
{
    return m_hashFunction->get_hash(buffer, static_cast<kelvane_buf_len_t>(blockSize));
}

void BlockHashStore::update_hashes(kelvane_off_t offset, kelvane_buf_t buffer, kelvane_buf_len_t length)
{
    emptyWhenGivenUp([&] { update_hashes_internal(offset, buffer, length, false); });
}

void BlockHashStore::invalidate_hashes(kelvane_off_t offset, kelvane_buf_len_t length)
{
    emptyWhenGivenUp([&] { update_hashes_internal(offset, nullptr, length, true); });
}

void BlockHashStore::update_hashes_internal(kelvane_off_t offset, kelvane_buf_t buffer, kelvane_buf_len_t length,
                                            bool invalidate_only)
{
    throwWithinDataCallback();
    const Span span = spanOf("update_hashes", offset, length);
    if (span.numberOfBlocks == 0) {
        return;
    }
    if (!invalidate_only && buffer == nullptr) {
        throw std::runtime_error("encountered a null buffer while updating hashes");
    }
    if (span.numberOfBlocks > MAXIMUM_WRITE / entrySize()) { // no use to hash what cannot be written
        errno = EFBIG;
        failWithErrno(TransferFailures::ofStoring(offset).ofTransfer, offset);
    }
    growHashBufferWhenNeeded(entrySize() * span.numberOfBlocks);
    const Window window = {m_hashBuffer.get(), entrySize(), 0, span.numberOfBlocks};
    storeWindow(span, window, [&](const Window& full) {
        if (!invalidate_only) {
            BlockHasher hasher = blockHasher(HASHING_FAILED);
            hasher.begin(full.entries, 0);
            hasher.add(static_cast<const char*>(buffer) + (full.from * blockSize() - span.partialStart),
                       full.count() * blockSize());
            hasher.flush();
        }
    });
}

// The entries of whole blocks are what `fill` makes of unknown ones; partial blocks are unknown.
template <class Fill>
void BlockHashStore::storeWindow(const Span& span, const Window& window, const Fill& fill)
{
    std::memset(window.entries, 0, window.size());
    const Window full = window.full(span);
    if (full.count() > 0) {
        fill(full);
    }
    writeEntries(span.firstBlock + window.from, window.count(), window.entries,
                 TransferFailures::ofStoring(span.offset));
}

// The same for a whole span, in pieces.
template <class Fill>
void BlockHashStore::storeEntries(const Span& span, const Fill& fill)
{
    const kelvane_ssize_t atOnce = std::min(span.numberOfBlocks, BYTES_AT_ONCE / entrySize());
    std::vector<char> entries(static_cast<std::size_t>(atOnce * entrySize()));
    for (kelvane_ssize_t from = 0; from < span.numberOfBlocks; from += atOnce) {
        storeWindow(span, {entries.data(), entrySize(), from, std::min(from + atOnce, span.numberOfBlocks)}, fill);
    }
}

void BlockHashStore::store_hashes_of_zeros(kelvane_off_t offset, kelvane_buf_len_t length)
{
    emptyWhenGivenUp([&] { storeHashesOfZeros(offset, length); });
}

void BlockHashStore::storeHashesOfZeros(kelvane_off_t offset, kelvane_buf_len_t length)
{
    throwWithinDataCallback();
    const Span span = spanOf("store_hashes_of_zeros", offset, length);
    BlockHasher hasher = blockHasher(HASHING_FAILED);
    storeEntries(span, [&](const Window& full) {
        hasher.begin(full.entries, 0);
        hasher.addZeros(full.count() * blockSize());
    });
}

void BlockHashStore::store_hashes(kelvane_off_t offset, kelvane_buf_len_t length, const unsigned char* hashes)
{
    emptyWhenGivenUp([&] { storeHashes(offset, length, hashes); });
}

void BlockHashStore::storeHashes(kelvane_off_t offset, kelvane_buf_len_t length, const unsigned char* hashes)
{
    throwWithinDataCallback();
    const Span span = spanOf("store_hashes", offset, length);
    const auto size = static_cast<std::size_t>(hashSize());
    storeEntries(span, [&](const Window& full) {
        for (char* entry = full.entries; entry != full.end(); entry += full.entrySize, hashes += size) {
            *entry = InUse;
            std::memcpy(entry + 1, hashes, size);
        }
    });
}

uint64_t BlockHashStore::discard_torn_entries()
{
    return emptyWhenGivenUp([&] { return discardTornEntries(); });
}

uint64_t BlockHashStore::discardTornEntries()
{
    throwWithinDataCallback();
    const auto dataSize
        = static_cast<kelvane_ssize_t>(computeDataSize(m_header.targetSizeInBytes, getBlockSize(), hashSize()));
    const std::vector<char> zeros(static_cast<std::size_t>(entrySize()), 0);
    std::vector<char> entry(zeros);
    uint64_t discarded = 0;
    for (kelvane_ssize_t boundary = SECTOR; boundary < dataSize; boundary += SECTOR) {
        const kelvane_ssize_t block = boundary / entrySize();
        const kelvane_ssize_t firstHalf = boundary % entrySize();
        if (firstHalf == 0) {
            continue;
        }
        readEntries(block, 1, entry.data(), TransferFailures::ofLooking());
        if ((entry.front() & InUse) != 0 && std::equal(entry.begin() + firstHalf, entry.end(), zeros.begin())) {
            writeEntries(block, 1, zeros.data(), {"failed to clear hash entry: ", "failed to clear hash entry: "});
            ++discarded;
        }
    }
    return discarded;
}

} // namespace kelvane

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
    const TransferFailures failures = TransferFailures::ofStoring(offset);
    if (span.numberOfBlocks > MAXIMUM_WRITE / entrySize()) { // no use to hash what cannot be written
        errno = EFBIG;
        failWithErrno(failures.ofTransfer, offset);
    }
    const kelvane_ssize_t bytesToWrite = entrySize() * span.numberOfBlocks;
    growHashBufferWhenNeeded(bytesToWrite);
    std::memset(m_hashBuffer.get(), 0, static_cast<std::size_t>(bytesToWrite)); // every block unknown
    if (!invalidate_only && span.numberOfFullBlocks > 0) {
        const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
        BlockHasher hasher = blockHasher(HASHING_FAILED);
        hasher.begin(m_hashBuffer.get() + span.firstFullPosition * entrySize(), 0);
        hasher.add(static_cast<const char*>(buffer) + (span.firstFullPosition * blockSize - span.partialStart),
                   span.numberOfFullBlocks * blockSize);
        hasher.flush();
    }
    writeEntries(span.firstBlock, span.numberOfBlocks, m_hashBuffer.get(), failures);
}

void BlockHashStore::store_hashes_of_zeros(kelvane_off_t offset, kelvane_buf_len_t length)
{
    emptyWhenGivenUp([&] { storeHashesOfZeros(offset, length); });
}

// In pieces of as many entries as there is room for; `prepare` is told which of the full blocks come next.
template <class Prepare>
void BlockHashStore::storeEntries(const Span& span, std::vector<char>& entries, Prepare prepare)
{
    const TransferFailures failures = TransferFailures::ofStoring(span.offset);
    const std::vector<char> unknown(static_cast<std::size_t>(entrySize()), 0);
    const kelvane_ssize_t atOnce = static_cast<kelvane_ssize_t>(entries.size()) / entrySize();
    if (span.startsPartial()) {
        writeEntries(span.firstBlock, 1, unknown.data(), failures);
    }
    for (kelvane_ssize_t done = 0; done < span.numberOfFullBlocks; done += atOnce) {
        const kelvane_ssize_t count = std::min(atOnce, span.numberOfFullBlocks - done);
        prepare(done, count);
        writeEntries(span.firstBlock + span.firstFullPosition + done, count, entries.data(), failures);
    }
    if (span.endsPartial()) {
        writeEntries(span.firstBlock + span.endFullPosition(), 1, unknown.data(), failures);
    }
}

void BlockHashStore::storeHashesOfZeros(kelvane_off_t offset, kelvane_buf_len_t length)
{
    throwWithinDataCallback();
    const Span span = spanOf("store_hashes_of_zeros", offset, length);
    const kelvane_ssize_t atOnce = std::min(span.numberOfFullBlocks, BYTES_AT_ONCE / entrySize());
    std::vector<char> entries(static_cast<std::size_t>(atOnce * entrySize()));
    BlockHasher hasher = blockHasher(HASHING_FAILED);
    hasher.begin(entries.data(), 0);
    hasher.addZeros(atOnce * static_cast<kelvane_ssize_t>(getBlockSize()));
    storeEntries(span, entries, [](kelvane_ssize_t, kelvane_ssize_t) {});
}

void BlockHashStore::store_hashes(kelvane_off_t offset, kelvane_buf_len_t length, const unsigned char* hashes)
{
    emptyWhenGivenUp([&] { storeHashes(offset, length, hashes); });
}

void BlockHashStore::storeHashes(kelvane_off_t offset, kelvane_buf_len_t length, const unsigned char* hashes)
{
    throwWithinDataCallback();
    const Span span = spanOf("store_hashes", offset, length);
    const auto size = static_cast<kelvane_ssize_t>(hashSize());
    const kelvane_ssize_t atOnce = std::min(span.numberOfFullBlocks, BYTES_AT_ONCE / entrySize());
    std::vector<char> entries(static_cast<std::size_t>(atOnce * entrySize()), static_cast<char>(InUse));
    storeEntries(span, entries, [&](kelvane_ssize_t first, kelvane_ssize_t count) {
        for (kelvane_ssize_t i = 0; i < count; ++i) {
            std::memcpy(entries.data() + i * entrySize() + 1, hashes + (first + i) * size,
                        static_cast<std::size_t>(size));
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

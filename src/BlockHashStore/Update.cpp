#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "BlockHashStore/Internals.h"

namespace kelvane {

namespace {

constexpr kelvane_ssize_t MAXIMUM_WRITE = std::numeric_limits<int>::max(); // what a writer can report
constexpr kelvane_ssize_t SECTOR = 512;                                    // what a disk writes wholly or not at all

} // namespace

BlockHashStore::HashValue BlockHashStore::get_hash(kelvane_buf_t buffer, kelvane_size_t blockSize) const
{
    return m_hashFunction->get_hash(buffer, static_cast<kelvane_buf_len_t>(blockSize));
}

void BlockHashStore::update_hashes(kelvane_off_t offset, kelvane_buf_t buffer, kelvane_buf_len_t length)
{
    update_hashes_internal(offset, buffer, length, false);
}

void BlockHashStore::invalidate_hashes(kelvane_off_t offset, kelvane_buf_len_t length)
{
    update_hashes_internal(offset, nullptr, length, true);
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
    const auto entrySize = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    if (span.numberOfBlocks > MAXIMUM_WRITE / entrySize) { // no use to hash what cannot be written
        errno = EFBIG;
        failWithErrno("failed to write hash: ", offset);
        return;
    }
    const kelvane_ssize_t bytesToWrite = entrySize * span.numberOfBlocks;
    growHashBufferWhenNeeded(bytesToWrite);
    std::memset(m_hashBuffer.get(), 0, static_cast<std::size_t>(bytesToWrite)); // every block unknown
    if (!invalidate_only) {
        hashFullBlocks(span, static_cast<char*>(buffer));
    }
    writeEntries(span, 0, span.numberOfBlocks, m_hashBuffer.get());
}

void BlockHashStore::zero_hashes(kelvane_off_t offset, kelvane_buf_len_t length)
{
    constexpr kelvane_ssize_t BYTES_AT_ONCE = 1 << 20;
    throwWithinDataCallback();
    const Span span = spanOf("zero_hashes", offset, length);
    const auto entrySize = static_cast<std::size_t>(getHashEntrySize(hashSize()));
    const std::vector<char> entry = zeroBlockEntry(span.numberOfFullBlocks > 0);
    const std::vector<char> unknown(entrySize, 0);
    if (span.startsPartial() && !writeEntries(span, 0, 1, unknown.data())) {
        return;
    }
    const kelvane_ssize_t atOnce = std::min(span.numberOfFullBlocks, BYTES_AT_ONCE / static_cast<int>(entrySize));
    std::vector<char> entries;
    for (kelvane_ssize_t i = 0; i < atOnce; ++i) {
        entries.insert(entries.end(), entry.begin(), entry.end());
    }
    const kelvane_ssize_t end = span.firstFullPosition + span.numberOfFullBlocks;
    for (kelvane_ssize_t position = span.firstFullPosition; position < end; position += atOnce) {
        if (!writeEntries(span, position, std::min(atOnce, end - position), entries.data())) {
            return;
        }
    }
    if (span.endsPartial()) {
        writeEntries(span, end, 1, unknown.data());
    }
}

// The entry of a known block of zeros.
std::vector<char> BlockHashStore::zeroBlockEntry(bool isNeeded)
{
    std::vector<char> entry(static_cast<std::size_t>(getHashEntrySize(hashSize())), InUse);
    kelvane_buf_t block = m_blockBuffer.get();
    auto* digest = reinterpret_cast<unsigned char*>(entry.data()) + 1;
    if (isNeeded
        && m_hashFunction->get_hashes(&block, 1, static_cast<kelvane_buf_len_t>(getBlockSize()), &digest) != 1) {
        throw std::runtime_error("failed to compute hash from data");
    }
    return entry;
}

// False when a failure was only logged.
bool BlockHashStore::writeEntries(const Span& span, kelvane_ssize_t position, kelvane_ssize_t count,
                                  const char* entries)
{
    const kelvane_ssize_t bytesToWrite = count * static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    const kelvane_ssize_t whereTo = entryOffsetInFile(span.firstBlock + position);
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        failWithErrno("failed to seek in hash file: ", whereTo);
        return false;
    }
    if (!validReadWrite(bytesToWrite, m_file.write(entries, static_cast<std::size_t>(bytesToWrite)))) {
        failWithErrno("failed to write hash: ", span.offset);
        return false;
    }
    return true;
}

// Fills the entries of the blocks that the range covers wholly; `buffer` holds the range's bytes.
void BlockHashStore::hashFullBlocks(const Span& span, char* buffer)
{
    if (span.numberOfFullBlocks == 0) {
        return;
    }
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const auto entrySize = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    char* block = buffer + (span.firstFullPosition * blockSize - span.partialStart);
    char* entry = entryAt(span.firstFullPosition);
    BlockHasher hasher(*m_hashFunction, blockSize);
    bool hashed = true;
    for (kelvane_ssize_t i = 0; hashed && i < span.numberOfFullBlocks; ++i) {
        *entry = InUse;
        hashed = hasher.add(block, entry + 1);
        block += blockSize;
        entry += entrySize;
    }
    if (!hashed || !hasher.flush()) {
        throw std::runtime_error("failed to compute hash from data");
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

#include <algorithm>
#include <bit>
#include <cstddef>
#include <stdexcept>

#include "BlockHashStore/Internals.h"
#include "file/PosixFile.h"

namespace kelvane {

namespace {

constexpr kelvane_ssize_t divideRoundingUp(kelvane_ssize_t dividend, kelvane_ssize_t divisor)
{
    return dividend / divisor + (dividend % divisor != 0 ? 1 : 0);
}

constexpr uint64_t roundUp(uint64_t size, uint64_t unit)
{
    return (size + unit - 1) / unit * unit;
}

} // namespace

kelvane_size_t BlockHashStore::hashSize() const
{
    return m_hashFunction->hash_size_in_bytes();
}

kelvane_off_t BlockHashStore::getPartitionOffset() const
{
    return static_cast<kelvane_off_t>(m_header.partitionOffset);
}

// The translations wrap around rather than overflow; whether an offset lies in the target is decided
// without them.
kelvane_off_t BlockHashStore::toInternalOffset(kelvane_off_t offset) const
{
    return static_cast<kelvane_off_t>(static_cast<uint64_t>(offset) - m_header.partitionOffset);
}

kelvane_off_t BlockHashStore::fromInternalOffset(kelvane_off_t offset) const
{
    return static_cast<kelvane_off_t>(static_cast<uint64_t>(offset) + m_header.partitionOffset);
}

uint64_t BlockHashStore::computeMaximumInternalOffset() const
{
    return static_cast<uint64_t>(toInternalOffset(static_cast<kelvane_off_t>(m_header.targetSizeInBytes)));
}

kelvane_size_t BlockHashStore::getSystemPageSize()
{
    return 4096; // part of the file format, whatever the machine's page size
}

off_t BlockHashStore::seek(int fd, off_t offset, int whence)
{
    return posix::seek(fd, offset, whence);
}

uint64_t BlockHashStore::bytesToBlocks(kelvane_size_t bytes, uint32_t blockSize)
{
    return bytes / blockSize + (bytes % blockSize != 0 ? 1 : 0);
}

kelvane_size_t BlockHashStore::getHashEntrySize(kelvane_size_t hashSize)
{
    return hashSize + 1;
}

uint64_t BlockHashStore::computeDataSize(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize)
{
    const uint64_t rawDataSize = getHashEntrySize(hashSize) * bytesToBlocks(targetSizeInBytes, blockSize);
    return roundUp(rawDataSize, getSystemPageSize());
}

uint64_t BlockHashStore::computeHeaderSize()
{
    static_assert(sizeof(off_t) == 8 && sizeof(std::size_t) == 8, "sizes and positions take 64 bits");
    static_assert(std::endian::native == std::endian::little, "the header is stored as it stands in memory");
    static_assert(sizeof(Header) == 56 && offsetof(Header, magicNumber) == 0 && offsetof(Header, version) == 8
                  && offsetof(Header, dataRegionOffsetInBytes) == 16 && offsetof(Header, blockSizeInBytes) == 24
                  && offsetof(Header, targetSizeInBytes) == 32 && offsetof(Header, partitionOffset) == 40
                  && offsetof(Header, hashId) == 48);
    return roundUp(sizeof(Header), getSystemPageSize());
}

uint64_t BlockHashStore::computeFileSize(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize)
{
    return computeHeaderSize() + computeDataSize(targetSizeInBytes, blockSize, hashSize);
}

bool BlockHashStore::validReadWrite(kelvane_ssize_t expectedValue, kelvane_ssize_t actualValue)
{
    return actualValue == expectedValue && actualValue >= 0;
}

// The end is a signed number: a target of 2^63 bytes or more ends before it starts. Where no offset is internal to the
// target, the difference is not looked at, for it may have wrapped around.
void BlockHashStore::throwOnAccessViolation(const std::string& log_tag, kelvane_off_t offset,
                                            kelvane_buf_len_t length) const
{
    const auto end = static_cast<kelvane_ssize_t>(computeMaximumInternalOffset());
    const kelvane_off_t start = toInternalOffset(offset);
    const bool isNegative = offset < 0 || static_cast<uint64_t>(offset) < m_header.partitionOffset;
    if (isNegative || start >= end || length > end - start) {
        throw std::runtime_error(log_tag + ": offset is out of bounds: " + std::to_string(offset) + ", "
                                 + std::to_string(end));
    }
}

bool BlockHashStore::fileCanHaveSize(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize)
{
    const uint64_t room = (MAXIMUM_SIGNED - computeHeaderSize()) / getSystemPageSize() * getSystemPageSize();
    return bytesToBlocks(targetSizeInBytes, blockSize) <= room / getHashEntrySize(hashSize);
}

void BlockHashStore::throwOnUnusableSizes(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize)
{
    if (blockSize == 0) {
        throw std::runtime_error(BLOCK_SIZE_OF_ZERO);
    }
    if (!fileCanHaveSize(targetSizeInBytes, blockSize, hashSize)) {
        throw std::runtime_error("target is too large for its block size: " + std::to_string(targetSizeInBytes) + ", "
                                 + std::to_string(blockSize));
    }
}

// Checks the range and computes its geometry; `operation` names it in failures.
BlockHashStore::Span BlockHashStore::spanOf(const char* operation, kelvane_off_t offset, kelvane_buf_len_t length) const
{
    throwOnAccessViolation(operation, offset, length);
    if (length < 0) {
        throw std::runtime_error(std::string(operation) + ": length is negative: " + std::to_string(length));
    }
    const kelvane_ssize_t size = blockSize();
    const kelvane_off_t start = toInternalOffset(offset);
    const kelvane_off_t end = start + length;
    const kelvane_ssize_t firstBlock = start / size;
    const kelvane_ssize_t endBlock = divideRoundingUp(end, size);
    const kelvane_ssize_t firstFullBlock = divideRoundingUp(start, size);
    const kelvane_ssize_t endFullBlock = end / size;
    Span span;
    span.firstBlock = firstBlock;
    span.numberOfBlocks = endBlock - firstBlock;
    span.partialStart = start % size;
    span.partialEnd = end % size != 0 ? size - end % size : 0;
    span.numberOfFullBlocks = std::max<kelvane_ssize_t>(0, endFullBlock - firstFullBlock);
    span.bufferedEntries = endFullBlock - firstFullBlock + 2;
    span.firstFullPosition = firstFullBlock - firstBlock;
    span.offset = offset;
    span.length = length;
    return span;
}

// The external offset of a block of the span. Behind a target's 2^63rd byte it wraps around.
kelvane_off_t BlockHashStore::blockOffset(const Span& span, kelvane_ssize_t position) const
{
    return fromInternalOffset((span.firstBlock + position) * blockSize());
}

kelvane_ssize_t BlockHashStore::blockSize() const
{
    return static_cast<kelvane_ssize_t>(getBlockSize());
}

kelvane_ssize_t BlockHashStore::entrySize() const
{
    return static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
}

} // namespace kelvane

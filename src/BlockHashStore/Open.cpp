#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "BlockHashStore/Internals.h"
#include "HashFunctionFactory.h"
#include "file/PosixFile.h"
#include "log/LogLine.h"

namespace kelvane {

std::unique_ptr<BlockHashStore> BlockHashStore::open(std::string path, kelvane_size_t targetSizeInBytes)
{
    return emptyWhenGivenUp([&] {
        std::unique_ptr<BlockHashStore> store(new BlockHashStore());
        store->openAndAdapt(path, targetSizeInBytes);
        return store;
    });
}

void BlockHashStore::open_internal(const std::string& path, kelvane_size_t targetSizeInBytes)
{
    emptyWhenGivenUp([&] { openAndAdapt(path, targetSizeInBytes); });
}

void BlockHashStore::openAndAdapt(const std::string& path, kelvane_size_t targetSizeInBytes)
{
    uint64_t fileSize = 0;
    bool resized = true;
    while (resized) {
        fileSize = openAndValidate(path, O_RDWR);
        resized = resizeIfTargetChangeDetected(path, targetSizeInBytes, fileSize);
    }
    validateHeader(targetSizeInBytes, fileSize);
    m_blockBuffer = makeZeroedBlock(getBlockSize());
}

// Opens the file, which must fit its own header, and reads that. Returns the file's size.
uint64_t BlockHashStore::openAndValidate(const std::string& path, int flags)
{
    struct stat status;
    if (posix::stat(path, status) < 0) {
        failWithErrno("failed to stat hash file");
    }
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error("path does not represent a hash file");
    }
    const auto fileSize = static_cast<uint64_t>(status.st_size);
    if (fileSize < sizeof(Header)) {
        throw std::runtime_error("file is too small to be valid: " + std::to_string(status.st_size));
    }
    m_file = SimpleCachedReader(SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES);
    if (m_file.open(path, flags) < 0) {
        failWithErrno("failed to open file: ", path);
    }
    if (!validReadWrite(sizeof(Header), m_file.read(&m_header, sizeof(Header)))) {
        failWithErrno("failed to read header");
    }
    validateHeader(m_header.targetSizeInBytes, fileSize);
    return fileSize;
}

void BlockHashStore::validateHeader(kelvane_size_t targetSizeInBytes, kelvane_size_t fileSize)
{
    if (m_header.magicNumber != BLOCK_HASH_STORE_MAGIC_NUMBER) {
        throw std::runtime_error("header magic number does not match expected");
    }
    if (m_header.version != BLOCK_HASH_STORE_CURRENT_VERSION) {
        throw std::runtime_error("header version does not match the expected value");
    }
    if (m_header.targetSizeInBytes != targetSizeInBytes) {
        throw std::runtime_error("the target size managed by the hash store has changed");
    }
    const uint64_t expectedDataOffset = computeHeaderSize();
    if (m_header.dataRegionOffsetInBytes != expectedDataOffset) {
        throw std::runtime_error("hash data offset is invalid: " + std::to_string(m_header.dataRegionOffsetInBytes)
                                 + " " + std::to_string(expectedDataOffset));
    }
    const auto hashId = static_cast<HashFunctionType>(m_header.hashId);
    m_hashFunction = HashFunctionFactory::createHashFunction(hashId);
    if (!m_hashFunction) {
        throw std::runtime_error("unknown hashing function: " + std::to_string(m_header.hashId));
    }
    throwOnBlockSizeOfZero(getBlockSize());
    if (!fileCanHaveSize(m_header.targetSizeInBytes, getBlockSize(), hashSize())
        || computeFileSize(m_header.targetSizeInBytes, getBlockSize(), hashSize()) != fileSize) {
        throw std::runtime_error("the hash file size is incorrect for given target size");
    }
}

bool BlockHashStore::resizeIfTargetChangeDetected(const std::string& path, kelvane_size_t targetSizeInBytes,
                                                  kelvane_size_t fileSize)
{
    throwOnUnusableSizes(targetSizeInBytes, getBlockSize(), hashSize());
    const uint64_t expectedSize = computeFileSize(targetSizeInBytes, getBlockSize(), hashSize());
    if (expectedSize != fileSize) {
        logLine(KELVANE_INFO, __func__) << "hash storage resizing because target changed, expected: " << expectedSize
                                        << ", actual: " << fileSize;
        if (expectedSize > fileSize) {
            addZeros(fileSize, expectedSize - fileSize);
        } else {
            m_file.truncate(expectedSize);
        }
    }
    const bool targetSizeIsDifferent = m_header.targetSizeInBytes != targetSizeInBytes;
    if (targetSizeIsDifferent) {
        writeHeader(path, targetSizeInBytes, getPartitionOffset(), getBlockSize(), m_header.hashId);
    }
    return targetSizeIsDifferent;
}

void BlockHashStore::initFileRegion(uint64_t offset, uint64_t length)
{
    emptyWhenGivenUp([&] { addZeros(offset, length); });
}

void BlockHashStore::addZeros(uint64_t offset, uint64_t length)
{
    const auto bufferSize = std::min<uint64_t>(length, MAXIMUM_CREATE_FILE_BUFFER_SIZE);
    const auto zeros = std::make_unique<char[]>(bufferSize);
    const auto whereTo = static_cast<kelvane_ssize_t>(offset);
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        const int error = errno;
        throw std::runtime_error("error in seek while initting file region: " + std::to_string(offset) + ", "
                                 + std::to_string(length) + ", errno = " + std::to_string(error));
    }
    for (uint64_t written = 0; written < length; written += bufferSize) {
        const auto bytesToWrite = std::min(bufferSize, length - written);
        const int bytesWritten = m_file.write(zeros.get(), bytesToWrite);
        if (!validReadWrite(static_cast<kelvane_ssize_t>(bytesToWrite), bytesWritten)) {
            const int error = errno;
            throw std::runtime_error("error in write while initting file region: " + std::to_string(error));
        }
    }
    if (m_file.sync_file_range(whereTo, static_cast<kelvane_buf_len_t>(length)) != 0) {
        failWithErrno("initFileRegion failed to sync hash file");
    }
}

} // namespace kelvane

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "BlockHashStore/Internals.h"
#include "HashFunctionFactory.h"
#include "file/PosixFile.h"
#include "log/LogLine.h"

namespace kelvane {

namespace {

// A failure that says what is wrong with the file.
template <class Failure>
struct Refusal : Failure, HashFileFinding {
    Refusal(const Failure& failure, const HashFileFinding& finding)
        : Failure(failure)
        , HashFileFinding(finding)
    {
    }
};

} // namespace

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
    const HashFileFinding finding = openAndExamine(path, flags);
    throwOnFault(finding, path);
    return finding.fileSize;
}

HashFileFinding BlockHashStore::openAndExamine(const std::string& path, int flags)
{
    struct stat status;
    if (posix::stat(path, status) < 0) {
        return {HashFileFault::Status, 0, errno};
    }
    if (!S_ISREG(status.st_mode)) {
        return {HashFileFault::FileType};
    }
    const auto fileSize = static_cast<uint64_t>(status.st_size);
    if (fileSize < sizeof(Header)) {
        return {HashFileFault::Length, 0, 0, fileSize};
    }
    m_file = SimpleCachedReader(SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES);
    if (m_file.open(path, flags) < 0) {
        return {HashFileFault::Opening, 0, errno, fileSize};
    }
    const kelvane_ssize_t bytesRead = m_file.read(&m_header, sizeof(Header));
    if (!validReadWrite(sizeof(Header), bytesRead)) {
        return {HashFileFault::Reading, 0, bytesRead < 0 ? errno : 0, fileSize};
    }
    return examineHeader(m_header.targetSizeInBytes, fileSize);
}

HashFileFinding BlockHashStore::examineHeader(kelvane_size_t targetSizeInBytes, kelvane_size_t fileSize)
{
    const HashFileFault fault = headerFault(targetSizeInBytes, fileSize);
    return {fault, fieldWith(fault), 0, fileSize};
}

// Makes the hash function on the way.
HashFileFault BlockHashStore::headerFault(kelvane_size_t targetSizeInBytes, kelvane_size_t fileSize)
{
    if (m_header.magicNumber != BLOCK_HASH_STORE_MAGIC_NUMBER) {
        return HashFileFault::MagicNumber;
    }
    if (m_header.version != BLOCK_HASH_STORE_CURRENT_VERSION) {
        return HashFileFault::Version;
    }
    if (m_header.targetSizeInBytes != targetSizeInBytes) {
        return HashFileFault::TargetSize;
    }
    if (m_header.dataRegionOffsetInBytes != computeHeaderSize()) {
        return HashFileFault::DataRegionOffset;
    }
    m_hashFunction = HashFunctionFactory::createHashFunction(static_cast<HashFunctionType>(m_header.hashId));
    if (!m_hashFunction) {
        return HashFileFault::HashFunction;
    }
    if (getBlockSize() == 0) {
        return HashFileFault::BlockSize;
    }
    const bool isFitting = fileCanHaveSize(m_header.targetSizeInBytes, getBlockSize(), hashSize())
        && computeFileSize(m_header.targetSizeInBytes, getBlockSize(), hashSize()) == fileSize;
    return isFitting ? HashFileFault::None : HashFileFault::FileSize;
}

void BlockHashStore::throwOnFault(const HashFileFinding& finding, const std::string& path) const
{
    if (finding.fault == HashFileFault::None) {
        return;
    }
    const std::string text = textOf(finding, path);
    if (finding.fault != HashFileFault::Status && finding.fault != HashFileFault::Opening
        && finding.fault != HashFileFault::Reading) {
        throw Refusal(std::runtime_error(text), finding);
    }
    try {
        errno = finding.error;
        failWithErrno(text);
    } catch (const std::system_error& failure) {
        throw Refusal(failure, finding);
    }
}

std::string BlockHashStore::textOf(const HashFileFinding& finding, const std::string& path) const
{
    switch (finding.fault) {
    case HashFileFault::None:
        break;
    case HashFileFault::Status:
        return "failed to stat hash file";
    case HashFileFault::FileType:
        return "path does not represent a hash file";
    case HashFileFault::Length:
        return "file is too small to be valid: " + std::to_string(finding.fileSize);
    case HashFileFault::Opening:
        return "failed to open file: " + path;
    case HashFileFault::Reading:
        return "failed to read header";
    case HashFileFault::MagicNumber:
        return "header magic number does not match expected";
    case HashFileFault::Version:
        return "header version does not match the expected value";
    case HashFileFault::TargetSize:
        return "the target size managed by the hash store has changed";
    case HashFileFault::DataRegionOffset:
        return "hash data offset is invalid: " + std::to_string(m_header.dataRegionOffsetInBytes) + " "
            + std::to_string(computeHeaderSize());
    case HashFileFault::HashFunction:
        return "unknown hashing function: " + std::to_string(m_header.hashId);
    case HashFileFault::BlockSize:
        return BLOCK_SIZE_OF_ZERO;
    case HashFileFault::FileSize:
        return "the hash file size is incorrect for given target size";
    }
    return {};
}

// Where the header has what a check looks at.
uint64_t BlockHashStore::fieldWith(HashFileFault fault)
{
    switch (fault) {
    case HashFileFault::Version:
        return offsetof(Header, version);
    case HashFileFault::DataRegionOffset:
        return offsetof(Header, dataRegionOffsetInBytes);
    case HashFileFault::BlockSize:
        return offsetof(Header, blockSizeInBytes);
    case HashFileFault::TargetSize:
    case HashFileFault::FileSize:
        return offsetof(Header, targetSizeInBytes);
    case HashFileFault::HashFunction:
        return offsetof(Header, hashId);
    default:
        return 0;
    }
}

void BlockHashStore::validateHeader(kelvane_size_t targetSizeInBytes, kelvane_size_t fileSize)
{
    throwOnFault(examineHeader(targetSizeInBytes, fileSize));
}

bool BlockHashStore::resizeIfTargetChangeDetected(const std::string& path, kelvane_size_t targetSizeInBytes,
                                                  kelvane_size_t fileSize)
{
    throwOnUnusableSizes(targetSizeInBytes, getBlockSize(), hashSize());
    const uint64_t expectedSize = computeFileSize(targetSizeInBytes, getBlockSize(), hashSize());
    if (expectedSize != fileSize) {
        logLine(KELVANE_INFO) << "hash storage resizing because target changed, expected: " << expectedSize
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
    const auto whereTo = static_cast<kelvane_ssize_t>(offset);
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        const int error = errno;
        throw std::runtime_error("error in seek while initting file region: " + std::to_string(offset) + ", "
                                 + std::to_string(length) + ", errno = " + std::to_string(error));
    }
    if (!writesZeros(length, [&](const char* zeros, uint64_t count) { return m_file.write(zeros, count); })) {
        throw posix::failure(errno, "error in write while initting file region");
    }
    if (m_file.sync_file_range(whereTo, static_cast<kelvane_buf_len_t>(length)) != 0) {
        failWithErrno("initFileRegion failed to sync hash file");
    }
}

} // namespace kelvane

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "BlockHashStore/Internals.h"
#include "Constants.h"
#include "HashFunctionFactory.h"
#include "file/PosixFile.h"
#include "log/LogLine.h"

namespace kelvane {

// Holds a descriptor, and closes it when a failure leaves the operation before `close` was called.
class BlockHashStore::DescriptorGuard {
public:
    explicit DescriptorGuard(int fd)
        : m_fd(fd)
    {
    }

    DescriptorGuard(const DescriptorGuard&) = delete;
    DescriptorGuard& operator=(const DescriptorGuard&) = delete;

    ~DescriptorGuard()
    {
        if (m_fd != INVALID_FD && posix::close(m_fd) != 0) {
            try {
                throwWithErrno(CLOSE_FAILED, ""); // only logs: an exception is propagating
            } catch (...) {
                // The failure that is on its way must not be replaced.
            }
        }
    }

    void close()
    {
        if (posix::close(std::exchange(m_fd, INVALID_FD)) != 0) {
            throwWithErrno(CLOSE_FAILED, ""); // where it only logs, the file is complete all the same
        }
    }

private:
    static constexpr const char* CLOSE_FAILED = "failed to close fd while creating the block hash store";

    int m_fd;
};

void BlockHashStore::create(const std::string& path, HashFunctionType hashType, kelvane_size_t targetSizeInBytes,
                            kelvane_size_t partitionOffset, uint32_t blockSize, bool deleteFileOnError)
{
    const uint64_t fileSize = fileSizeOfNew(hashType, targetSizeInBytes, blockSize);
    try {
        makeFile(path, fileSize);
        writeHeader(path, targetSizeInBytes, static_cast<kelvane_off_t>(partitionOffset), blockSize,
                    static_cast<uint32_t>(hashType));
    } catch (...) {
        if (deleteFileOnError && posix::unlink(path) == 0) {
            logLine(KELVANE_INFO) << "deleted hash file due to error: " << errno;
        }
        emptyWhenGivenUp([] { throw; });
    }
}

uint64_t BlockHashStore::fileSizeOfNew(HashFunctionType hashType, kelvane_size_t targetSizeInBytes, uint32_t blockSize)
{
    const std::unique_ptr<IHashFunction> hashFunction = HashFunctionFactory::createHashFunction(hashType);
    if (!hashFunction) {
        throw std::runtime_error("unknown hash id: " + std::to_string(static_cast<uint32_t>(hashType)));
    }
    throwOnUnusableSizes(targetSizeInBytes, blockSize, hashFunction->hash_size_in_bytes());
    return computeFileSize(targetSizeInBytes, blockSize, hashFunction->hash_size_in_bytes());
}

void BlockHashStore::createFile(const std::string& path, kelvane_size_t fileLength)
{
    emptyWhenGivenUp([&] { makeFile(path, fileLength); });
}

void BlockHashStore::makeFile(const std::string& path, kelvane_size_t fileLength)
{
    const int fd = posix::open(path, O_RDWR | O_CREAT | O_TRUNC | O_SYNC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        failWithErrno("error opening file for writing");
    }
    DescriptorGuard closeFile(fd);
    if (seek(fd, 0, SEEK_SET) != 0) {
        const int error = errno;
        throw std::runtime_error("error in seek while trying to grow the file to " + std::to_string(fileLength)
                                 + ", errno = " + std::to_string(error));
    }
    if (!writesZeros(fileLength,
                     [&](const char* zeros, uint64_t count) { return posix::writeOnce(fd, zeros, count); })) {
        throw std::runtime_error("failed to write to block hash file");
    }
    closeFile.close();
}

void BlockHashStore::initHeader(const std::string& path, kelvane_size_t targetSizeInBytes,
                                kelvane_off_t partitionOffset, uint32_t blockSize, uint32_t hashId)
{
    emptyWhenGivenUp([&] { writeHeader(path, targetSizeInBytes, partitionOffset, blockSize, hashId); });
}

void BlockHashStore::writeHeader(const std::string& path, kelvane_size_t targetSizeInBytes,
                                 kelvane_off_t partitionOffset, uint32_t blockSize, uint32_t hashId)
{
    const int fd = posix::open(path, O_RDWR | O_SYNC);
    if (fd < 0) {
        throw std::runtime_error("error opening file for writing");
    }
    DescriptorGuard closeFile(fd);
    if (seek(fd, 0, SEEK_SET) != 0) {
        failWithErrno("failed to seek to beginning of file to write header.");
    }
    Header header;
    std::memset(&header, 0, sizeof(header)); // the gaps between the fields too
    header.magicNumber = BLOCK_HASH_STORE_MAGIC_NUMBER;
    header.version = BLOCK_HASH_STORE_CURRENT_VERSION;
    header.dataRegionOffsetInBytes = computeHeaderSize();
    header.blockSizeInBytes = blockSize;
    header.targetSizeInBytes = targetSizeInBytes;
    header.partitionOffset = static_cast<uint64_t>(partitionOffset);
    header.hashId = hashId;
    if (!validReadWrite(sizeof(header), posix::writeOnce(fd, &header, sizeof(header)))) {
        failWithErrno("failed to initialize header data");
    }
    closeFile.close();
}

} // namespace kelvane

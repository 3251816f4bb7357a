#include "BlockHashStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <limits>
#include <stdexcept>
#include <utility>

#include "Constants.h"
#include "HashFunctionFactory.h"
#include "Logger.h"
#include "PosixFile.h"

namespace kelvane {

namespace {

constexpr const char* SOURCE_FILE = "BlockHashStore.cpp";
constexpr auto MAXIMUM_SIGNED = static_cast<uint64_t>(std::numeric_limits<kelvane_ssize_t>::max());
constexpr kelvane_ssize_t SECTOR = 512; // what a disk writes wholly or not at all
constexpr kelvane_ssize_t MAXIMUM_BLOCKS_PER_REQUEST = std::numeric_limits<int32_t>::max();

// Ends a public operation whose failure was logged because another exception is propagating.
struct FailureAlreadyLogged { };

template <class Operation>
auto untilFailureIsLogged(Operation operation) -> decltype(operation())
{
    try {
        return operation();
    } catch (const FailureAlreadyLogged&) {
        return decltype(operation())();
    }
}

constexpr kelvane_ssize_t divideRoundingUp(kelvane_ssize_t dividend, kelvane_ssize_t divisor)
{
    return dividend / divisor + (dividend % divisor != 0 ? 1 : 0);
}

// Moves a digest to a place that may overlap it.
void moveDigest(char* to, const char* from, std::size_t size)
{
    constexpr std::size_t USUAL_SIZE = 32;
    if (size == USUAL_SIZE) {
        std::array<char, USUAL_SIZE> digest; // a size known when compiling saves the call, which shows
        std::memcpy(digest.data(), from, USUAL_SIZE);
        std::memcpy(to, digest.data(), USUAL_SIZE);
    } else {
        std::memmove(to, from, size);
    }
}

// Hashes whole blocks side by side, many at a time, into hash buffer entries.
class BlockHasher {
public:
    BlockHasher(IHashFunction& hashFunction, kelvane_buf_len_t blockSize)
        : m_hashFunction(hashFunction)
        , m_blockSize(blockSize)
    {
    }

    // The block is hashed now or by the next flush. False when a block could not be hashed.
    bool add(char* block, char* digest)
    {
        m_blocks[m_count] = block;
        m_digests[m_count] = reinterpret_cast<unsigned char*>(digest);
        return ++m_count < m_blocks.size() || flush();
    }

    bool flush()
    {
        const std::size_t count = std::exchange(m_count, 0);
        return count == 0 || m_hashFunction.get_hashes(m_blocks.data(), count, m_blockSize, m_digests.data()) == count;
    }

private:
    IHashFunction& m_hashFunction;
    kelvane_buf_len_t m_blockSize;
    std::size_t m_count = 0;
    std::array<kelvane_buf_t, 128> m_blocks;
    std::array<unsigned char*, 128> m_digests;
};

} // namespace

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
                throwWithErrno(CLOSE_FAILED); // only logs: an exception is propagating
            } catch (...) {
                // The failure that is on its way must not be replaced.
            }
        }
    }

    void close()
    {
        if (posix::close(std::exchange(m_fd, INVALID_FD)) != 0) {
            failWithErrno(CLOSE_FAILED);
        }
    }

private:
    static constexpr const char* CLOSE_FAILED = "failed to close fd while creating the block hash store";

    int m_fd;
};

// The geometry of a request in blocks. Span position k is the block firstBlock + k.
struct BlockHashStore::Span {
    kelvane_ssize_t firstBlock;         // the first block that the range touches
    kelvane_ssize_t numberOfBlocks;     // touched wholly or in part
    kelvane_ssize_t partialStart;       // bytes of the first block before the range
    kelvane_ssize_t partialEnd;         // bytes of the last block after the range
    kelvane_ssize_t firstFullPosition;  // span position of the first block that lies wholly in the range
    kelvane_ssize_t numberOfFullBlocks; // at least 0
    kelvane_ssize_t bufferedEntries;    // room in the hash buffer: the full blocks and two partial ones
    kelvane_off_t offset;               // external, as given
    kelvane_buf_len_t length;
    kelvane_off_t start; // external offset of the first block

    bool startsPartial() const { return firstFullPosition > 0; }
    bool endsPartial() const { return firstFullPosition + numberOfFullBlocks < numberOfBlocks; }
};

// The stretches of target data that a request needs.
struct BlockHashStore::Runs {
    std::vector<kelvane_off_t> offsets; // external
    std::vector<kelvane_off_t> lengths;
    std::vector<int32_t> indexes; // span position of each run's first block

    void append(kelvane_off_t offset, kelvane_ssize_t length, kelvane_ssize_t index)
    {
        if (offsets.empty() || offsets.back() + lengths.back() != offset) {
            offsets.push_back(offset);
            lengths.push_back(0);
            indexes.push_back(static_cast<int32_t>(index));
        }
        lengths.back() += length;
    }
};

// ---------------------------------------------------------------------------------------------------
// Layout and geometry

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

namespace {

constexpr uint64_t roundUp(uint64_t size, uint64_t unit)
{
    return (size + unit - 1) / unit * unit;
}

} // namespace

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

void BlockHashStore::throwOnAccessViolation(const std::string& log_tag, kelvane_off_t offset,
                                            kelvane_buf_len_t length) const
{
    const uint64_t end = std::min(m_header.targetSizeInBytes, MAXIMUM_SIGNED);
    const auto start = static_cast<uint64_t>(offset);
    const bool offsetIsInside = offset >= 0 && start >= m_header.partitionOffset && start < end;
    const bool lengthIsInside = offsetIsInside && (length < 0 || static_cast<uint64_t>(length) <= end - start);
    if (!lengthIsInside) {
        const auto maximumInternalOffset = static_cast<kelvane_ssize_t>(computeMaximumInternalOffset());
        throw std::runtime_error(log_tag + ": offset is out of bounds: " + std::to_string(offset) + ", "
                                 + std::to_string(maximumInternalOffset));
    }
}

void BlockHashStore::throwOnUnusableSizes(kelvane_size_t targetSizeInBytes, uint32_t blockSize, kelvane_size_t hashSize)
{
    if (blockSize == 0) {
        throw std::runtime_error("block size is invalid: 0");
    }
    const uint64_t room = MAXIMUM_SIGNED - computeHeaderSize() - getSystemPageSize();
    if (bytesToBlocks(targetSizeInBytes, blockSize) > room / getHashEntrySize(hashSize)) {
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
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const kelvane_off_t start = toInternalOffset(offset);
    const kelvane_off_t end = start + length;
    const kelvane_ssize_t firstBlock = start / blockSize;
    const kelvane_ssize_t endBlock = divideRoundingUp(end, blockSize);
    const kelvane_ssize_t firstFullBlock = divideRoundingUp(start, blockSize);
    const kelvane_ssize_t endFullBlock = end / blockSize;
    Span span;
    span.firstBlock = firstBlock;
    span.numberOfBlocks = endBlock - firstBlock;
    span.partialStart = start % blockSize;
    span.partialEnd = end % blockSize != 0 ? blockSize - end % blockSize : 0;
    span.numberOfFullBlocks = std::max<kelvane_ssize_t>(0, endFullBlock - firstFullBlock);
    span.bufferedEntries = endFullBlock - firstFullBlock + 2;
    span.firstFullPosition = firstFullBlock - firstBlock;
    span.offset = offset;
    span.length = length;
    span.start = fromInternalOffset(firstBlock * blockSize);
    if (span.numberOfBlocks > MAXIMUM_BLOCKS_PER_REQUEST) {
        throw std::runtime_error(std::string(operation)
                                 + ": too many blocks in one request: " + std::to_string(span.numberOfBlocks));
    }
    return span;
}

char* BlockHashStore::entryAt(kelvane_ssize_t position) const
{
    return m_hashBuffer.get() + position * static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
}

kelvane_ssize_t BlockHashStore::entryOffsetInFile(kelvane_ssize_t block) const
{
    return static_cast<kelvane_ssize_t>(m_header.dataRegionOffsetInBytes
                                        + static_cast<uint64_t>(block) * getHashEntrySize(hashSize()));
}

// ---------------------------------------------------------------------------------------------------
// Failure reporting

void BlockHashStore::throwWithErrno(const std::string& message)
{
    const int error = errno;
    const std::string text = message + ": " + std::to_string(error);
    if (std::uncaught_exceptions() == 0) {
        throw std::runtime_error(text);
    }
    Logger(KELVANE_ERROR, SOURCE_FILE, __LINE__, __func__) << text;
}

// As throwWithErrno, for failures after which the operation has nothing to go on with. `errno` must not
// change while the message is put together.
void BlockHashStore::failWithErrno(const char* message, const std::string& value)
{
    const int error = errno;
    const std::string text = message + value;
    errno = error;
    throwWithErrno(text);
    throw FailureAlreadyLogged();
}

void BlockHashStore::failWithErrno(const char* message, kelvane_ssize_t value)
{
    const int error = errno;
    const std::string text = std::to_string(value);
    errno = error;
    failWithErrno(message, text);
}

// ---------------------------------------------------------------------------------------------------
// Creating

void BlockHashStore::create(const std::string& path, HashFunctionType hashType, kelvane_size_t targetSizeInBytes,
                            kelvane_size_t partitionOffset, uint32_t blockSize, bool deleteFileOnError)
{
    const std::unique_ptr<IHashFunction> hashFunction = HashFunctionFactory::createHashFunction(hashType);
    if (!hashFunction) {
        throw std::runtime_error("unknown hash id: " + std::to_string(static_cast<uint32_t>(hashType)));
    }
    throwOnUnusableSizes(targetSizeInBytes, blockSize, hashFunction->hash_size_in_bytes());
    const char* const function = __func__; // the lambda's own name would appear in the log
    untilFailureIsLogged([&] {
        try {
            createFile(path, computeFileSize(targetSizeInBytes, blockSize, hashFunction->hash_size_in_bytes()));
            initHeader(path, targetSizeInBytes, static_cast<kelvane_off_t>(partitionOffset), blockSize,
                       hashFunction->hash_id());
        } catch (...) {
            if (deleteFileOnError && posix::unlink(path) == 0) {
                Logger(KELVANE_INFO, SOURCE_FILE, __LINE__, function) << "deleted hash file due to error: " << errno;
            }
            throw;
        }
    });
}

void BlockHashStore::createFile(const std::string& path, kelvane_size_t fileLength)
{
    const int fd = posix::open(path, O_RDWR | O_CREAT | O_TRUNC | O_SYNC, S_IRUSR | S_IWUSR);
    if (fd < 0) {
        failWithErrno("error opening file for writing");
    }
    DescriptorGuard closeFile(fd);
    const auto bufferSize = std::min<kelvane_size_t>(fileLength, MAXIMUM_CREATE_FILE_BUFFER_SIZE);
    const auto zeros = std::make_unique<char[]>(bufferSize);
    if (seek(fd, 0, SEEK_SET) != 0) {
        const int error = errno;
        throw std::runtime_error("error in seek while trying to grow the file to " + std::to_string(fileLength)
                                 + ", errno = " + std::to_string(error));
    }
    for (kelvane_size_t i = 0; i < fileLength; i += bufferSize) {
        const auto bytesToWrite = std::min(bufferSize, fileLength - i);
        const ssize_t bytesWritten = posix::writeOnce(fd, zeros.get(), bytesToWrite);
        if (!validReadWrite(static_cast<kelvane_ssize_t>(bytesToWrite), bytesWritten)) {
            throw std::runtime_error("failed to write to block hash file");
        }
    }
    closeFile.close();
}

void BlockHashStore::initHeader(const std::string& path, kelvane_size_t targetSizeInBytes,
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

// ---------------------------------------------------------------------------------------------------
// The store object

BlockHashStore::BlockHashStore()
    : m_header()
    , m_file(SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES)
    , m_hashBufferSize(0)
{
    init();
}

BlockHashStore::~BlockHashStore() = default;

BlockHashStore::BlockHashStore(BlockHashStore&& other) noexcept
    : m_header(other.m_header)
    , m_file(std::move(other.m_file))
    , m_hashBuffer(std::move(other.m_hashBuffer))
    , m_hashBufferSize(std::exchange(other.m_hashBufferSize, 0))
    , m_hashFunction(std::move(other.m_hashFunction))
    , m_blockBuffer(std::move(other.m_blockBuffer))
{
}

BlockHashStore& BlockHashStore::operator=(BlockHashStore&& other) noexcept
{
    if (this != &other) {
        m_header = other.m_header;
        m_file = std::move(other.m_file);
        m_hashBuffer = std::move(other.m_hashBuffer);
        m_hashBufferSize = std::exchange(other.m_hashBufferSize, 0);
        m_hashFunction = std::move(other.m_hashFunction);
        m_blockBuffer = std::move(other.m_blockBuffer);
    }
    return *this;
}

void BlockHashStore::init()
{
    m_hashBuffer.reset();
    m_hashBufferSize = 0;
    m_header = Header();
}

uint32_t BlockHashStore::getBlockSize() const
{
    return m_header.blockSizeInBytes;
}

HashFunctionType BlockHashStore::getHashFunctionType() const
{
    return m_hashFunction->hash_id();
}

void BlockHashStore::setOnWriteCallback(DataTransferMetricFunc on_write)
{
    m_file.setOnWriteCallback(std::move(on_write));
}

void BlockHashStore::setOnReadCallback(DataTransferMetricFunc on_read)
{
    m_file.setOnReadCallback(std::move(on_read));
}

bool BlockHashStore::sync_to_disk()
{
    return m_file.fsync() == 0;
}

void BlockHashStore::growHashBufferWhenNeeded(kelvane_buf_len_t sizeRequested)
{
    if (m_hashBufferSize < sizeRequested) {
        m_hashBuffer = std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(sizeRequested));
        m_hashBufferSize = sizeRequested;
    }
}

// ---------------------------------------------------------------------------------------------------
// Opening

std::unique_ptr<BlockHashStore> BlockHashStore::open(std::string path, kelvane_size_t targetSizeInBytes)
{
    return untilFailureIsLogged([&] {
        std::unique_ptr<BlockHashStore> store(new BlockHashStore());
        store->open_internal(path, targetSizeInBytes);
        return store;
    });
}

void BlockHashStore::open_internal(const std::string& path, kelvane_size_t targetSizeInBytes)
{
    uint64_t fileSize = 0;
    bool resized = true;
    while (resized) {
        struct stat status;
        if (posix::stat(path, status) < 0) {
            failWithErrno("failed to stat hash file");
        }
        if (!S_ISREG(status.st_mode)) {
            throw std::runtime_error("path does not represent a hash file");
        }
        fileSize = static_cast<uint64_t>(status.st_size);
        if (fileSize < sizeof(Header)) {
            throw std::runtime_error("file is too small to be valid: " + std::to_string(status.st_size));
        }
        m_file = SimpleCachedReader(SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES);
        if (m_file.open(path, O_RDWR) < 0) {
            failWithErrno("failed to open file: ", path);
        }
        if (!validReadWrite(sizeof(Header), m_file.read(&m_header, sizeof(Header)))) {
            failWithErrno("failed to read header");
        }
        validateHeader(m_header.targetSizeInBytes, fileSize);
        resized = resizeIfTargetChangeDetected(path, targetSizeInBytes, fileSize);
    }
    validateHeader(targetSizeInBytes, fileSize);
    m_blockBuffer = std::make_unique_for_overwrite<char[]>(getBlockSize());
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
    throwOnUnusableSizes(m_header.targetSizeInBytes, getBlockSize(), hashSize());
    if (computeFileSize(m_header.targetSizeInBytes, getBlockSize(), hashSize()) != fileSize) {
        throw std::runtime_error("the hash file size is incorrect for given target size");
    }
}

bool BlockHashStore::resizeIfTargetChangeDetected(const std::string& path, kelvane_size_t targetSizeInBytes,
                                                  kelvane_size_t fileSize)
{
    throwOnUnusableSizes(targetSizeInBytes, getBlockSize(), hashSize());
    const uint64_t expectedSize = computeFileSize(targetSizeInBytes, getBlockSize(), hashSize());
    if (expectedSize != fileSize) {
        Logger(KELVANE_INFO, SOURCE_FILE, __LINE__, __func__)
            << "hash storage resizing because target changed, expected: " << expectedSize << ", actual: " << fileSize;
        if (expectedSize > fileSize) {
            initFileRegion(fileSize, expectedSize - fileSize);
        } else {
            m_file.truncate(expectedSize);
        }
    }
    const bool targetSizeIsDifferent = m_header.targetSizeInBytes != targetSizeInBytes;
    if (targetSizeIsDifferent) {
        initHeader(path, targetSizeInBytes, getPartitionOffset(), getBlockSize(), m_header.hashId);
    }
    return targetSizeIsDifferent;
}

void BlockHashStore::initFileRegion(uint64_t offset, uint64_t length)
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

// ---------------------------------------------------------------------------------------------------
// Updating and invalidating

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
    untilFailureIsLogged([&] {
        const Span span = spanOf("update_hashes", offset, length);
        if (span.numberOfBlocks == 0) {
            return;
        }
        const auto bytesToWrite = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize())) * span.numberOfBlocks;
        growHashBufferWhenNeeded(bytesToWrite);
        std::memset(m_hashBuffer.get(), 0, static_cast<std::size_t>(bytesToWrite)); // every block unknown
        if (!invalidate_only) {
            hashFullBlocks(span, static_cast<char*>(buffer));
        }
        const kelvane_ssize_t whereTo = entryOffsetInFile(span.firstBlock);
        if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
            failWithErrno("failed to seek in hash file: ", whereTo);
        }
        if (!validReadWrite(bytesToWrite, m_file.write(m_hashBuffer.get(), static_cast<std::size_t>(bytesToWrite)))) {
            failWithErrno("failed to write hash: ", offset);
        }
    });
}

// Fills the entries of the blocks that the range covers wholly; `buffer` holds the range's bytes.
void BlockHashStore::hashFullBlocks(const Span& span, char* buffer)
{
    if (buffer == nullptr) {
        throw std::runtime_error("encountered a null buffer while updating hashes");
    }
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
    return untilFailureIsLogged([&] {
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
            }
            const auto secondHalf = entry.begin() + (boundary - start);
            if ((entry.front() & InUse) == 0 || !std::equal(secondHalf, entry.end(), zeros.begin())) {
                continue;
            }
            if (m_file.seek(whereTo, SEEK_SET) != whereTo
                || !validReadWrite(entrySize, m_file.write(zeros.data(), zeros.size()))) {
                failWithErrno("failed to clear hash entry: ", whereTo);
            }
            ++discarded;
        }
        return discarded;
    });
}

// ---------------------------------------------------------------------------------------------------
// The hash of a range

BlockHashStore::HashValue BlockHashStore::get_hash(kelvane_off_t offset, kelvane_buf_len_t length,
                                                   DataRequiredFunc dataRequiredFunc)
{
    return untilFailureIsLogged([&] {
        const Span span = spanOf("get_hash", offset, length);
        growHashBufferWhenNeeded(span.bufferedEntries * static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize())));
        if (length == 0) {
            return aggregate(0);
        }
        loadFullEntries(span);
        const Runs runs = planRuns(span);
        if (!runs.offsets.empty()) {
            const auto data = dataRequiredFunc(runs.offsets, runs.lengths);
            if (data.size() != runs.offsets.size() || std::find(data.begin(), data.end(), nullptr) != data.end()) {
                failWithErrno("expected more image data than was returned while hashing");
            }
            hashRuns(runs, data);
            storeFullEntries(span);
        }
        return aggregate(span.numberOfBlocks);
    });
}

void BlockHashStore::loadFullEntries(const Span& span)
{
    if (span.numberOfFullBlocks == 0) {
        return;
    }
    const kelvane_ssize_t whereTo = entryOffsetInFile(span.firstBlock + span.firstFullPosition);
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        failWithErrno("failed to seek in hash file: ", whereTo);
    }
    char* const first = entryAt(span.firstFullPosition);
    const kelvane_ssize_t bytesToRead = entryAt(span.firstFullPosition + span.numberOfFullBlocks) - first;
    if (!validReadWrite(bytesToRead, m_file.read(first, bytesToRead))) {
        failWithErrno("failed to read hash value: ", span.offset);
    }
}

BlockHashStore::Runs BlockHashStore::planRuns(const Span& span) const
{
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const auto entrySize = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    Runs runs;
    if (span.startsPartial()) {
        runs.append(span.offset, std::min(span.length, blockSize - span.partialStart), 0);
    }
    const kelvane_ssize_t endFullPosition = span.firstFullPosition + span.numberOfFullBlocks;
    const char* flags = entryAt(span.firstFullPosition);
    for (kelvane_ssize_t position = span.firstFullPosition; position < endFullPosition; ++position) {
        if ((*flags & InUse) == 0) {
            runs.append(span.start + position * blockSize, blockSize, position);
        }
        flags += entrySize;
    }
    if (span.endsPartial()) {
        runs.append(span.start + endFullPosition * blockSize, blockSize - span.partialEnd, endFullPosition);
    }
    return runs;
}

void BlockHashStore::hashRuns(const Runs& runs, const std::vector<std::unique_ptr<char[]>>& data)
{
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const auto entrySize = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    BlockHasher hasher(*m_hashFunction, blockSize);
    bool hashed = true;
    for (std::size_t run = 0; run < data.size(); ++run) {
        char* block = data[run].get();
        char* const end = block + runs.lengths[run];
        char* entry = entryAt(runs.indexes[run]);
        kelvane_ssize_t partial = toInternalOffset(runs.offsets[run]) % blockSize;
        while (hashed && block < end) {
            *entry = InUse;
            const kelvane_ssize_t bytes = std::min(blockSize - partial, end - block);
            if (bytes == blockSize) {
                hashed = hasher.add(block, entry + 1);
            } else {
                std::memset(m_blockBuffer.get(), 0, static_cast<std::size_t>(blockSize));
                std::memcpy(m_blockBuffer.get() + partial, block, static_cast<std::size_t>(bytes));
                hashed = hasher.add(m_blockBuffer.get(), entry + 1) && hasher.flush(); // the buffer is needed again
            }
            block += bytes;
            entry += entrySize;
            partial = 0;
        }
    }
    if (!hashed || !hasher.flush()) {
        throw std::runtime_error("failed to generate block hash");
    }
}

void BlockHashStore::storeFullEntries(const Span& span)
{
    if (span.numberOfFullBlocks == 0) {
        return;
    }
    const kelvane_ssize_t whereTo = entryOffsetInFile(span.firstBlock + span.firstFullPosition);
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        failWithErrno("failed to seek in hash file during update: ", whereTo);
    }
    const char* const first = entryAt(span.firstFullPosition);
    const kelvane_ssize_t bytesToWrite = entryAt(span.firstFullPosition + span.numberOfFullBlocks) - first;
    if (!validReadWrite(bytesToWrite, m_file.write(first, static_cast<std::size_t>(bytesToWrite)))) {
        failWithErrno("failed to write hash: ", span.offset);
    }
}

// The hash of the first `numberOfHashes` entries' hashes. They are concatenated where they lie: the request
// is done with the entries, and a second buffer would cost more than the copying.
BlockHashStore::HashValue BlockHashStore::aggregate(kelvane_ssize_t numberOfHashes)
{
    const auto digestSize = static_cast<std::size_t>(hashSize());
    const char* from = m_hashBuffer.get() + 1;
    char* to = m_hashBuffer.get();
    for (kelvane_ssize_t i = 0; i < numberOfHashes; ++i) {
        moveDigest(to, from, digestSize);
        from += getHashEntrySize(digestSize);
        to += digestSize;
    }
    HashValue aggregated_hash = get_hash(m_hashBuffer.get(), digestSize * static_cast<std::size_t>(numberOfHashes));
    if (aggregated_hash.empty()) {
        throw std::runtime_error("failed to hash aggregate hashes");
    }
    return aggregated_hash;
}

} // namespace kelvane

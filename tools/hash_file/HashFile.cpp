#include "hash_file/HashFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <kelvane/HashFunctionType.h>
#include <limits>
#include <utility>

#include "base/Failure.h"

namespace kelvane::tool {

namespace {

constexpr std::size_t HEADER_SIZE = 56;
constexpr std::uint64_t PAGE = 4096; // the entries start at one, and the file ends at one
constexpr std::uint64_t ENTRY_SIZE = 33;

class Descriptor {
public:
    Descriptor(const std::string& path, int flags)
        : m_fd(::open(path.c_str(), flags | O_CLOEXEC))
    {
        if (m_fd < 0) {
            throw Failure(path, "cannot open the hash file: " + errorText(errno));
        }
    }
    ~Descriptor() { ::close(m_fd); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    operator int() const { return m_fd; }

private:
    int m_fd;
};

template <class Field>
void take(const std::array<char, HEADER_SIZE>& record, std::size_t offset, Field& field)
{
    std::memcpy(&field, record.data() + offset, sizeof(field));
}

Header readHeader(int fd, const std::string& path)
{
    std::array<char, HEADER_SIZE> record;
    const ssize_t count = ::pread(fd, record.data(), record.size(), 0);
    if (count < 0) {
        throw Failure(path, 0, "cannot read: " + errorText(errno));
    }
    Header header = {};
    if (static_cast<std::size_t>(count) == record.size()) {
        take(record, 0, header.magicNumber);
        take(record, 8, header.version);
        take(record, 16, header.dataRegionOffset);
        take(record, 24, header.blockSize);
        take(record, 32, header.targetEnd);
        take(record, 40, header.partitionOffset);
        take(record, 48, header.hashId);
    }
    if (header.magicNumber != 0x20001312) {
        throw Failure(path, 0, "not a hash file, or its creation was interrupted; remove it to start anew");
    }
    if (header.version != 0 || header.dataRegionOffset != PAGE || header.blockSize == 0 || header.hashId != 1) {
        throw Failure(path, 8, "a hash file of a form that is not known here; remove it to start anew");
    }
    if (header.partitionOffset > header.targetEnd
        || header.targetEnd > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw Failure(path, 32,
                      "impossible sizes: a target from " + std::to_string(header.partitionOffset) + " to "
                          + std::to_string(header.targetEnd));
    }
    struct stat status = {};
    ::fstat(fd, &status);
    const auto size = static_cast<std::uint64_t>(status.st_size);
    const std::uint64_t entries = (header.targetEnd + header.blockSize - 1) / header.blockSize;
    if (entries > size / ENTRY_SIZE || PAGE + (entries * ENTRY_SIZE + PAGE - 1) / PAGE * PAGE != size) {
        throw Failure(path,
                      "its size of " + std::to_string(size)
                          + " does not fit its header: a change of it was cut short, unless one is under way; "
                            "remove it to start anew");
    }
    return header;
}

// Of all whole blocks, those whose hash is unknown.
std::vector<Range> readUnknown(int fd, const std::string& path, const Header& header)
{
    constexpr std::int64_t ENTRIES_AT_ONCE = 4096;
    std::vector<char> entries(ENTRIES_AT_ONCE * ENTRY_SIZE);
    std::vector<Range> unknown;
    const std::int64_t blockSize = header.blockSize;
    const std::int64_t blocks = header.targetSize() / blockSize;
    for (std::int64_t block = 0; block < blocks;) {
        const auto wanted = static_cast<std::size_t>(std::min(ENTRIES_AT_ONCE, blocks - block)) * ENTRY_SIZE;
        const auto offset = static_cast<std::int64_t>(PAGE + static_cast<std::uint64_t>(block) * ENTRY_SIZE);
        const ssize_t count = ::pread(fd, entries.data(), wanted, offset);
        if (count < static_cast<ssize_t>(ENTRY_SIZE)) {
            throw Failure(path, offset, "cannot read: " + (count < 0 ? errorText(errno) : "it ends here"));
        }
        for (std::size_t at = 0; at + ENTRY_SIZE <= static_cast<std::size_t>(count); at += ENTRY_SIZE, ++block) {
            if ((entries[at] & 1) == 0) {
                append(unknown, {block * blockSize, blockSize});
            }
        }
    }
    return unknown;
}

// The store's failures end in the number of the system's error; people want its name.
std::string explained(const std::string& text)
{
    const std::size_t digits = text.find_last_not_of("0123456789") + 1;
    const bool isSystemError = text.starts_with("failed to ") || text.starts_with("error in ")
        || text.starts_with("error opening ") || text.starts_with("initFileRegion ");
    if (!isSystemError || digits == text.size() || digits < 2 || text[digits - 1] != ' ') {
        return text;
    }
    return text.substr(0, digits) + errorText(std::atoi(text.c_str() + digits));
}

// Leaves a request for data with what was asked for.
struct AskedFor {
    std::vector<kelvane_off_t> offsets;
    std::vector<kelvane_off_t> lengths;
};

} // namespace

// ---------------------------------------------------------------------------------------------------

Store::Store(const std::string& path, const Header& header)
    : m_path(path)
    , m_partitionOffset(static_cast<std::int64_t>(header.partitionOffset))
    , m_blockSize(header.blockSize)
    , m_store(naming([&] { return BlockHashStore::open(path, header.targetEnd); }))
{
}

template <class Operation>
auto Store::naming(Operation operation) const -> decltype(operation())
{
    try {
        return operation();
    } catch (const Failure&) {
        throw;
    } catch (const std::runtime_error& error) {
        throw Failure(m_path, explained(error.what()));
    }
}

std::vector<Range> Store::unknown(Range range)
{
    std::vector<Range> ranges;
    const Range blocks = wholeBlocks(range, m_blockSize);
    if (blocks.length == 0) {
        return ranges;
    }
    const auto leave = [](const std::vector<kelvane_off_t>& offsets,
                          const std::vector<kelvane_off_t>& lengths) -> std::vector<std::unique_ptr<char[]>> {
        throw AskedFor {offsets, lengths};
    };
    try {
        naming([&] { return m_store->get_hash(m_partitionOffset + blocks.offset, blocks.length, leave); });
    } catch (const AskedFor& asked) {
        for (std::size_t i = 0; i < asked.offsets.size(); ++i) {
            ranges.push_back({asked.offsets[i] - m_partitionOffset, asked.lengths[i]});
        }
    }
    return ranges;
}

Store::Hash Store::hash(Range range, const Image& image, std::atomic<std::int64_t>& bytesRead)
{
    const auto supply = [&](const std::vector<kelvane_off_t>& offsets, const std::vector<kelvane_off_t>& lengths) {
        std::vector<std::unique_ptr<char[]>> data;
        for (std::size_t i = 0; i < offsets.size(); ++i) {
            data.push_back(std::make_unique_for_overwrite<char[]>(static_cast<std::size_t>(lengths[i])));
            image.read(data.back().get(), {offsets[i] - m_partitionOffset, lengths[i]});
            bytesRead += lengths[i];
        }
        return data;
    };
    return naming([&] { return m_store->get_hash(m_partitionOffset + range.offset, range.length, supply); });
}

Store::Hash Store::hash(const void* buffer, std::size_t length) const
{
    return m_store->get_hash(const_cast<void*>(buffer), length);
}

void Store::update(Range range, char* data)
{
    try {
        naming([&] { m_store->update_hashes(m_partitionOffset + range.offset, data, range.length); });
    } catch (const Failure&) {
        forget(range); // a write that was cut short can leave a hash by half
        throw;
    }
}

void Store::forget(Range range)
{
    try {
        m_store->invalidate_hashes(m_partitionOffset + range.offset, range.length);
    } catch (const std::runtime_error&) {
        // The failure that came first is reported.
    }
    m_store->sync_to_disk();
}

void Store::invalidate(Range range)
{
    if (range.length > 0) {
        naming([&] { m_store->invalidate_hashes(m_partitionOffset + range.offset, range.length); });
    }
}

void Store::sync()
{
    if (!m_store->sync_to_disk()) {
        throw Failure(m_path, "cannot flush: " + errorText(errno));
    }
}

std::uint64_t Store::discardTornEntries()
{
    return naming([&] { return m_store->discard_torn_entries(); });
}

// ---------------------------------------------------------------------------------------------------

class HashFile::Lock {
public:
    explicit Lock(const std::string& path)
        : m_fd(path, O_RDWR)
    {
        if (::flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
            throw Failure(path,
                          errno == EWOULDBLOCK ? "the hash file is in use, or was given twice"
                                               : "cannot lock: " + errorText(errno));
        }
    }

    int fd() const { return m_fd; }

private:
    Descriptor m_fd;
};

HashFile::HashFile(std::string path)
    : m_path(std::move(path))
    , m_lock(std::make_shared<Lock>(m_path))
    , m_header(readHeader(m_lock->fd(), m_path))
    , m_store(std::make_unique<Store>(m_path, m_header))
{
}

HashFile HashFile::openExisting(const Image& image, const HashFileOptions& options)
{
    const std::string path = options.pathFor(image);
    HashFile file(path);
    const Header& header = file.header();
    if (options.blockSize && *options.blockSize != header.blockSize) {
        throw Failure(path, 24,
                      "made for a block size of " + std::to_string(header.blockSize) + ", not "
                          + std::to_string(*options.blockSize));
    }
    if (options.partitionOffset && *options.partitionOffset != header.partitionOffset) {
        throw Failure(path, 40,
                      "made for a partition offset of " + std::to_string(header.partitionOffset) + ", not "
                          + std::to_string(*options.partitionOffset));
    }
    return file;
}

HashFile HashFile::openOrCreate(const Image& image, const HashFileOptions& options)
{
    const std::string path = options.pathFor(image);
    if (::access(path.c_str(), F_OK) == 0) {
        HashFile file = openExisting(image, options);
        if (isNewer(image, path)) {
            std::fprintf(stderr,
                         "kelvane-hash: note: %s is newer than its hash file; if it was changed without the store, "
                         "its hashes are out of date: see verify --mark\n",
                         image.path().c_str());
        }
        if (file.header().targetSize() != image.size()) {
            file.m_formerTargetSize = file.header().targetSize();
            file.resize(image.size(), [] {});
        }
        return file;
    }
    const std::uint64_t partitionOffset = options.partitionOffset.value_or(0);
    const std::uint64_t end = partitionOffset + static_cast<std::uint64_t>(image.size());
    if (end < partitionOffset || end > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        throw Failure(image.path(), "the partition offset is too large: " + std::to_string(partitionOffset));
    }
    try {
        BlockHashStore::create(path, Blake2dHashFunctionType, end, partitionOffset,
                               options.blockSize.value_or(DEFAULT_BLOCK_SIZE), true);
    } catch (const std::runtime_error& error) {
        throw Failure(path, "cannot make the hash file: " + explained(error.what()));
    }
    HashFile file(path);
    file.m_created = true;
    return file;
}

void HashFile::forgetBehind(std::int64_t targetSize)
{
    const std::int64_t known = m_header.targetSize();
    if (targetSize < known) {
        m_store->invalidate(between(targetSize, known));
        m_store->sync();
    }
}

void HashFile::adapt(std::int64_t targetSize)
{
    const std::int64_t known = m_header.targetSize();
    m_header.targetEnd = m_header.partitionOffset + static_cast<std::uint64_t>(targetSize);
    m_store = std::make_unique<Store>(m_path, m_header);
    if (targetSize > known) {
        m_store->invalidate(between(known, targetSize));
        m_store->sync();
    }
}

bool HashFile::isNewer(const Image& image, const std::string& hashFilePath)
{
    struct stat imageStatus;
    struct stat hashFileStatus;
    if (image.isBlockDevice() || ::stat(image.path().c_str(), &imageStatus) != 0
        || ::stat(hashFilePath.c_str(), &hashFileStatus) != 0) {
        return false;
    }
    // Not the times of modification, which a copy that keeps its original's time would bring along.
    const timespec& changed = imageStatus.st_ctim;
    const timespec& stored = hashFileStatus.st_ctim;
    return changed.tv_sec > stored.tv_sec || (changed.tv_sec == stored.tv_sec && changed.tv_nsec > stored.tv_nsec);
}

void HashFile::setTimeToNow() const
{
    ::futimens(m_lock->fd(), nullptr);
}

// ---------------------------------------------------------------------------------------------------

HashFileContents::HashFileContents(const std::string& path)
{
    const Descriptor fd(path, O_RDONLY | O_NONBLOCK); // a pipe must not make it wait
    header = readHeader(fd, path);
    unknown = readUnknown(fd, path, header);
    ::fstat(fd, &status);
}

} // namespace kelvane::tool

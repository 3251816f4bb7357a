#include "hash_file/HashFile.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
#include <utility>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "terminal/Note.h"
#include "terminal/Text.h"

namespace kelvane::tool {

namespace {

// Whether a file is the one at a path, and not one that stood there before.
bool standsAt(int fd, const std::string& path)
{
    struct stat own;
    struct stat there;
    return ::fstat(fd, &own) == 0 && ::stat(path.c_str(), &there) == 0 && own.st_dev == there.st_dev
        && own.st_ino == there.st_ino;
}

constexpr std::int64_t MADE_AT_ONCE = 1 << 20; // bytes

std::int64_t fileSizeFor(const Geometry& geometry)
{
    return static_cast<std::int64_t>(HashFileInspector::file_size_for(Blake2dHashFunctionType, geometry.targetEnd(),
                                                                      static_cast<std::uint32_t>(geometry.blockSize)));
}

// Whether a file is what a run left that was ended while it made a hash file: nothing but zeros, no more than are made
// at once; or a hash file. One with a record is somebody's.
bool isLeftOver(int fd, const std::string& path)
{
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        return false;
    }
    if (isHashFile(path)) {
        return !Evidence::read(path);
    }
    std::vector<char> bytes(static_cast<std::size_t>(std::min<std::int64_t>(status.st_size, MADE_AT_ONCE)));
    const bool isWhole = ::pread(fd, bytes.data(), bytes.size(), 0) == status.st_size;
    return isWhole && std::count(bytes.begin(), bytes.end(), 0) == std::ssize(bytes);
}

void checkRoom(const std::string& path, std::int64_t needed)
{
    struct statvfs room;
    std::string directory = std::filesystem::path(path).parent_path().string();
    directory = directory.empty() ? "." : directory;
    if (::statvfs(directory.c_str(), &room) == 0
        && room.f_bavail < static_cast<std::uint64_t>(needed) / room.f_frsize) {
        throw Failure(path,
                      "cannot make the hash file: " + errorText(ENOSPC) + "; it takes " + counted(needed, "byte"));
    }
}

Geometry geometryFor(const Image& image, const HashFileOptions& options, std::int64_t targetSize)
{
    constexpr auto GREATEST = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const std::uint64_t start = options.partitionOffset.value_or(0);
    if (start > GREATEST - static_cast<std::uint64_t>(targetSize)) {
        throw Failure(image.path(),
                      "the partition offset is too large: " + std::to_string(start) + ", for an image of "
                          + counted(targetSize, "byte"));
    }
    return {options.blockSize.value_or(HashFile::DEFAULT_BLOCK_SIZE), static_cast<std::int64_t>(start), targetSize};
}

// Makes a hash file little by little, so that it can be interrupted. Its end grows last. A large one begins with no
// entries: what is made at once is written synchronously, and would be zeros without a header when that is cut short.
void createInSteps(const std::string& path, const Geometry& geometry, ProgressMode mode)
{
    constexpr std::int64_t BLOCKS_AT_ONCE = 1 << 21;
    const auto step = static_cast<kelvane_size_t>(geometry.blockSize * BLOCKS_AT_ONCE);
    std::optional<Progress> progress;
    if (step < geometry.targetEnd()) {
        progress.emplace("make", static_cast<std::int64_t>(geometry.targetEnd()), mode);
    }
    kelvane_size_t end = fileSizeFor(geometry) <= MADE_AT_ONCE ? geometry.targetEnd() : 0;
    BlockHashStore::create(path, Blake2dHashFunctionType, end, static_cast<kelvane_size_t>(geometry.partitionOffset),
                           static_cast<std::uint32_t>(geometry.blockSize), false);
    while (end < geometry.targetEnd()) {
        throwWhenInterrupted();
        const kelvane_size_t added = std::min(step, geometry.targetEnd() - end);
        end += added;
        BlockHashStore::open(path, end);
        if (progress) {
            progress->advance(static_cast<std::int64_t>(added));
        }
    }
}

} // namespace

std::string HashFileOptions::pathFor(const Image& image) const
{
    if (path.empty() && image.isBlockDevice()) {
        throw Failure(image.path(),
                      "a block device: say where its hash file is, with --hash-file or its like; beside the device "
                      "it would be in memory, and lost when the machine is started again");
    }
    const std::string found = path.empty() ? image.path() + ".hashes" : path;
    keepApart(image.path(), found);
    return found;
}

// ---------------------------------------------------------------------------------------------------

class HashFile::Lock {
public:
    // Nothing when there is no such file.
    static std::shared_ptr<Lock> take(const std::string& path, bool isReadOnly)
    {
        for (;;) {
            auto lock = std::make_shared<Lock>();
            if (!isReadOnly) {
                lock->m_fd = openFile(path, O_RDWR | O_NONBLOCK);
            }
            if (!lock->m_fd && (isReadOnly || errno == EACCES || errno == EPERM || errno == EROFS)) {
                lock->m_isWritable = false;
                lock->m_fd = openFile(path, O_RDONLY | O_NONBLOCK);
            }
            if (!lock->m_fd && errno == ENOENT) {
                return nullptr;
            }
            if (!lock->m_fd) {
                throw Failure(path, "cannot open the hash file: " + errorText(errno));
            }
            lock->acquire(path, lock->m_isWritable ? LOCK_EX : LOCK_SH);
            if (standsAt(lock->fd(), path)) {
                return lock;
            }
        }
    }

    // Of a file that is made when it is not there yet.
    static std::shared_ptr<Lock> takeNew(const std::string& path, const std::string& temporary)
    {
        auto lock = std::make_shared<Lock>();
        lock->m_fd = openFile(temporary, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0600);
        if (!lock->m_fd) {
            throw Failure(path, "cannot make the hash file, as " + temporary + ": " + errorText(errno));
        }
        lock->acquire(path, LOCK_EX);
        return lock;
    }

    int fd() const { return m_fd.get(); }
    bool isWritable() const { return m_isWritable; }

private:
    void acquire(const std::string& path, int kind) const
    {
        if (::flock(m_fd.get(), kind | LOCK_NB) != 0) {
            throw Failure(path,
                          errno == EWOULDBLOCK ? "the hash file is in use, or was given twice"
                                               : "cannot lock: " + errorText(errno));
        }
    }

    Descriptor m_fd;
    bool m_isWritable = true;
};

HashFile::HashFile(std::string path, std::shared_ptr<Lock> lock)
    : m_path(std::move(path))
    , m_lock(std::move(lock))
    , m_geometry(geometryOf(explaining(m_path, [&] { return HashFileInspector(place()); }), m_path))
    , m_evidence(Evidence::read(m_path))
    , m_state(hashFileState(m_lock->fd(), true))
{
    reopenStore();
}

// The file that is locked, whatever has its name meanwhile.
std::string HashFile::place() const
{
    const std::string open = "/proc/self/fd/" + std::to_string(m_lock->fd());
    return standsAt(m_lock->fd(), open) ? open : m_path;
}

std::optional<HashFile> HashFile::open(const std::string& path, const HashFileOptions& options)
{
    std::shared_ptr<Lock> lock = Lock::take(path, options.isReadOnly);
    return lock ? std::optional(HashFile(path, std::move(lock))) : std::nullopt;
}

// Under another name, which it keeps until it is whole. Nothing when another run was faster.
std::optional<HashFile> HashFile::make(const std::string& path, const Geometry& geometry, ProgressMode mode)
{
    const std::string temporary = inTheMaking(path);
    std::shared_ptr<Lock> lock = Lock::takeNew(path, temporary);
    if (!standsAt(lock->fd(), temporary)) {
        return std::nullopt;
    }
    if (!isLeftOver(lock->fd(), temporary)) {
        throw Failure(temporary, "the hash file " + path + " would be made under this name; move the file away");
    }
    if (std::filesystem::exists(path)) {
        ::unlink(temporary.c_str());
        return std::nullopt;
    }
    try {
        if (::ftruncate(lock->fd(), 0) != 0) { // what an earlier run left takes room
            throw Failure(temporary, "cannot make the hash file: " + errorText(errno));
        }
        explaining(path, [&] {
            checkRoom(path, fileSizeFor(geometry));
            createInSteps(temporary, geometry, mode);
        });
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
    Evidence::remove(path);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        throw Failure(path, "cannot make the hash file: " + errorText(errno));
    }
    HashFile file(path, std::move(lock));
    file.m_created = true;
    return file;
}

HashFile HashFile::openExisting(const Image& image, const HashFileOptions& options)
{
    const std::string path = options.pathFor(image);
    std::optional<HashFile> file = open(path, options);
    if (!file) {
        throw Failure(path, "cannot open the hash file: " + errorText(ENOENT));
    }
    file->checkOptions(options);
    return std::move(*file);
}

HashFile HashFile::openOrCreate(const Image& image, const HashFileOptions& options, std::int64_t targetSize,
                                ProgressMode mode)
{
    const std::string path = options.pathFor(image);
    for (;;) {
        if (std::optional<HashFile> file = open(path, options)) {
            file->checkOptions(options);
            file->checkOwner(image, options);
            return std::move(*file);
        }
        if (options.isReadOnly) {
            throw Failure(path, "there is no hash file, and none may be made");
        }
        if (std::optional<HashFile> file = make(path, geometryFor(image, options, targetSize), mode)) {
            return std::move(*file);
        }
    }
}

void HashFile::checkOptions(const HashFileOptions& options) const
{
    const auto check = [&](std::int64_t offset, const char* what, std::int64_t found, std::int64_t wanted) {
        if (found != wanted) {
            throw Failure(m_path, offset,
                          std::string("made for a ") + what + " of " + std::to_string(found) + ", not "
                              + std::to_string(wanted));
        }
    };
    check(24, "block size", m_geometry.blockSize,
          options.blockSize.value_or(static_cast<std::uint32_t>(m_geometry.blockSize)));
    check(40, "partition offset", m_geometry.partitionOffset,
          static_cast<std::int64_t>(
              options.partitionOffset.value_or(static_cast<std::uint64_t>(m_geometry.partitionOffset))));
}

// A hash file of another image, or of another size for no reason that is known, would be cut or filled up to fit.
void HashFile::checkOwner(const Image& image, const HashFileOptions& options)
{
    const bool fits = m_geometry.targetSize == image.size();
    std::string owner = "an image of " + counted(m_geometry.targetSize, "byte");
    if (m_evidence && !image.isMissing()) {
        const Owner relation = ownerOf(*m_evidence, stateAtOnce(image));
        if (relation == Owner::Same || (fits && relation == Owner::Successor)) {
            return;
        }
        owner = m_evidence->image.image["path"].get<std::string>() + ", " + owner;
    } else if (fits) {
        return;
    }
    const Range blocks = wholeBlocks({0, m_geometry.targetSize}, m_geometry.blockSize);
    if (options.adopts || totalLength(m_store->unknown(blocks)) == blocks.length) {
        m_evidence.reset();
        return;
    }
    throw Failure(m_path,
                  "made for " + owner + ", not for " + image.path() + " of " + counted(image.size(), "byte")
                      + "; with --adopt it is taken over, and what it knows is checked");
}

bool HashFile::isWritable() const
{
    return m_lock->isWritable();
}

Store HashFile::anotherStore(Store::Access access) const
{
    return {m_path, place(), m_geometry, access};
}

void HashFile::reopenStore()
{
    m_store = std::make_unique<Store>(anotherStore());
}

void HashFile::checkAdaptable(std::int64_t targetSize) const
{
    if (!isWritable()) {
        throw Failure(m_path,
                      "records a size of " + counted(m_geometry.targetSize, "byte") + ", not "
                          + counted(targetSize, "byte") + ", and cannot be written");
    }
}

void HashFile::forgetBehind(std::int64_t targetSize)
{
    if (targetSize < m_geometry.targetSize) {
        m_store->invalidate(between(targetSize, m_geometry.targetSize));
        m_store->sync();
    }
}

void HashFile::adapt(std::int64_t targetSize)
{
    const std::int64_t known = std::exchange(m_geometry.targetSize, targetSize);
    reopenStore();
    if (targetSize > known) {
        m_store->invalidate(between(known, targetSize));
        m_store->sync();
    }
}

std::string HashFile::doubtAbout(const ImageState& image) const
{
    return tool::doubtAbout(m_evidence, hashFileState(m_lock->fd(), false), image);
}

// Where its times tell nothing, no record will vouch for it.
bool HashFile::isUntouched() const
{
    return isInPlace() && (m_state.is_null() || m_state == hashFileState(m_lock->fd(), false));
}

bool HashFile::isInPlace() const
{
    return standsAt(m_lock->fd(), m_path);
}

bool HashFile::isOf(const ImageState& image) const
{
    return !m_evidence || ownerOf(*m_evidence, image) == Owner::Same;
}

void HashFile::record(const ImageState& image, bool isClean)
{
    m_state = isClean ? hashFileState(m_lock->fd(), true) : nullptr;
    m_evidence = {isClean, image, m_state};
    if (!m_evidence->write(m_path)) {
        note(Evidence::pathFor(m_path) + ": cannot write: " + errorText(errno)
             + "; the next run will check all hashes");
    }
}

} // namespace kelvane::tool

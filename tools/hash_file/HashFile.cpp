#include "hash_file/HashFile.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <limits>
#include <thread>
#include <utility>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Text.h"
#include "hash_file/SideFiles.h"
#include "image/FileSystem.h"
#include "image/Memory.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t MADE_AT_ONCE = 1 << 20; // bytes

std::int64_t fileSizeFor(const Geometry& geometry)
{
    return static_cast<std::int64_t>(HashFileInspector::file_size_for(Blake2dHashFunctionType, geometry.targetEnd(),
                                                                      static_cast<std::uint32_t>(geometry.blockSize)));
}

std::string directoryOf(const std::string& path)
{
    const std::string directory = std::filesystem::path(path).parent_path().string();
    return directory.empty() ? "." : directory;
}

void checkRoom(const std::string& path, std::int64_t needed)
{
    struct statvfs room;
    if (::statvfs(directoryOf(path).c_str(), &room) == 0
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
void createInSteps(const std::string& path, const Geometry& geometry, Reporter& reporter)
{
    constexpr std::int64_t BLOCKS_AT_ONCE = 1 << 21;
    const auto step = static_cast<kelvane_size_t>(geometry.blockSize * BLOCKS_AT_ONCE);
    const auto phase = step < geometry.targetEnd()
        ? reporter.begin("make", static_cast<std::int64_t>(geometry.targetEnd()))
        : nullptr;
    kelvane_size_t end = fileSizeFor(geometry) <= MADE_AT_ONCE ? geometry.targetEnd() : 0;
    BlockHashStore::create(path, Blake2dHashFunctionType, end, static_cast<kelvane_size_t>(geometry.partitionOffset),
                           static_cast<std::uint32_t>(geometry.blockSize), false);
    while (end < geometry.targetEnd()) {
        throwWhenInterrupted();
        const kelvane_size_t added = std::min(step, geometry.targetEnd() - end);
        end += added;
        BlockHashStore::open(path, end);
        if (phase) {
            phase->advance(static_cast<std::int64_t>(added));
        }
    }
}

// Hashes tell what an image holds. The times stay as they are where there is nothing to do.
void makePrivate(const Descriptor& file)
{
    struct stat status;
    if (::fstat(file.get(), &status) == 0 && (status.st_mode & 0777) != 0600) {
        ::fchmod(file.get(), 0600);
    }
}

// Until no later change can have the same time. False when there is no such moment, for its times lie in the future, or
// its file system is not known to record every change.
bool waitForTheNextMoment(const Descriptor& file)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    timespec latest;
    while (isStampingFileSystem(file) && std::chrono::steady_clock::now() < end) {
        const timespec clock = stampingClock();
        stampsOf(file, latest);
        if (!isRecent(latest, clock)) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

// Without a name, where the file system can; else under its own, that nothing has. Nothing when something has it.
Descriptor newFile(const std::string& path)
{
    Descriptor file = openFile(directoryOf(path), O_TMPFILE | O_RDWR, AtLink::Follow, 0600);
    if (!file && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
        file = openFile(path, O_RDWR | O_CREAT | O_EXCL, AtLink::Refuse, 0600);
    }
    if (!file && errno != EEXIST) {
        throw Failure(path, "cannot make the hash file: " + errorText(errno));
    }
    return file;
}

// False when something has the name.
bool giveName(const Descriptor& file, const std::string& path)
{
    if (leadsTo(path, file)
        || ::linkat(AT_FDCWD, file.place().c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        return true;
    }
    if (errno != EEXIST) {
        throw Failure(path, "cannot make the hash file: " + errorText(errno));
    }
    return false;
}

} // namespace

std::string HashFileOptions::pathFor(const Image& image) const
{
    const std::string found = path.empty() ? image.hashFile() : path;
    keepApart(image.path(), found);
    return found;
}

// ---------------------------------------------------------------------------------------------------

class HashFile::Lock {
public:
    // Nothing when there is no such file.
    static std::shared_ptr<Lock> take(const std::string& path, const HashFileOptions& options)
    {
        for (;;) {
            Descriptor found = openFile(path, O_PATH, options.atLink);
            struct stat status;
            if (!found && errno == ENOENT) {
                return nullptr;
            }
            if (!found || ::fstat(found.get(), &status) != 0) {
                throw Failure(path, "cannot open the hash file: " + errorText(errno));
            }
            if (!S_ISREG(status.st_mode)) { // opening a pipe would wait
                throw Failure(path, 0, "not a hash file");
            }
            auto lock = std::make_shared<Lock>(path, found, options.isReadOnly);
            if (leadsTo(path, lock->m_file)) {
                return lock;
            }
        }
    }

    Lock(const std::string& path, const Descriptor& found, bool isReadOnly)
        : m_isServedReadOnly(isReadOnly)
    {
        m_file = isReadOnly ? Descriptor() : openAgain(found, O_RDWR);
        m_isWritable = static_cast<bool>(m_file);
        if (isReadOnly || (!m_file && (errno == EACCES || errno == EPERM || errno == EROFS))) {
            m_file = openAgain(found, O_RDONLY);
        }
        if (!m_file) {
            throw Failure(path, "cannot open the hash file: " + errorText(errno));
        }
        acquire(path, m_isWritable ? LOCK_EX : LOCK_SH);
    }

    // Of a file that is being made.
    Lock(const std::string& path, Descriptor file)
        : m_file(std::move(file))
        , m_isWritable(true)
    {
        acquire(path, LOCK_EX);
    }

    const Descriptor& file() const { return m_file; }
    bool isWritable() const { return m_isWritable; }
    bool isServedReadOnly() const { return m_isServedReadOnly; }

private:
    void acquire(const std::string& path, int kind) const
    {
        if (::flock(m_file.get(), kind | LOCK_NB) != 0) {
            throw Failure(path,
                          errno == EWOULDBLOCK ? "the hash file is in use, or was given twice"
                                               : "cannot lock: " + errorText(errno));
        }
    }

    Descriptor m_file;
    bool m_isWritable;
    bool m_isServedReadOnly = false;
};

HashFile::HashFile(std::string path, std::shared_ptr<Lock> lock, bool wasMade, Reporter& reporter)
    : m_path(std::move(path))
    , m_lock(std::move(lock))
    , m_reporter(&reporter)
    , m_wasMade(wasMade)
    , m_record(wasMade ? std::nullopt : readRecord(m_path))
    , m_geometry(geometryOf(explaining(m_path, [&] { return HashFileInspector(m_lock->file().place()); }), m_path))
{
    checkMemory();
    m_state = hashFileState(m_lock->file());
    reopenStore();
}

// A flush of the file that failed is told to whoever flushes it next. What was not flushed in order may be in memory
// alone. Who cannot write the file is told nothing, and records nothing.
void HashFile::checkMemory()
{
    if (m_wasMade || !isWritable()) {
        return;
    }
    makePrivate(m_lock->file());
    if (::fsync(m_lock->file().get()) != 0 && errno != EINVAL) {
        const int error = errno;
        dropFromMemory(m_lock->file());
        Record record = m_record.value_or(Record());
        record.standing = Record::Standing::FlushFailed;
        write(record);
        throw FlushFailed(m_path, "cannot flush: " + errorText(error));
    }
    const bool isLeftOpen = m_record
        && (m_record->standing == Record::Standing::Open || m_record->standing == Record::Standing::FlushFailed);
    if ((!m_record || isLeftOpen) && !dropFromMemory(m_lock->file()) && isLeftOpen) {
        throw Failure(m_path, "a part of it stays in memory, in use or never written, so that the disk cannot be read");
    }
}

std::optional<HashFile> HashFile::open(const std::string& path, const HashFileOptions& options, Reporter& reporter)
{
    std::shared_ptr<Lock> lock = Lock::take(path, options);
    return lock ? std::optional(HashFile(path, std::move(lock), false, reporter)) : std::nullopt;
}

// Nothing when another run was faster.
std::optional<HashFile> HashFile::make(const std::string& path, const Geometry& geometry, Reporter& reporter)
{
    struct stat status;
    if (::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
        throw Failure(path, "cannot make the hash file: its name is a link that leads nowhere");
    }
    checkRoom(path, fileSizeFor(geometry));
    Descriptor file = newFile(path);
    if (!file) {
        return std::nullopt;
    }
    const auto lock = std::make_shared<Lock>(path, std::move(file));
    try {
        explaining(path, [&] { createInSteps(lock->file().place(), geometry, reporter); });
        if (!giveName(lock->file(), path)) {
            return std::nullopt;
        }
    } catch (...) {
        if (leadsTo(path, lock->file())) {
            ::unlink(path.c_str());
        }
        throw;
    }
    removeRecord(path);
    return HashFile(path, lock, true, reporter);
}

std::optional<HashFile> HashFile::find(const Image& image, const HashFileOptions& options, Reporter& reporter)
{
    return open(options.pathFor(image), options, reporter);
}

HashFile HashFile::openExisting(const Image& image, const HashFileOptions& options, Reporter& reporter)
{
    std::optional<HashFile> file = find(image, options, reporter);
    if (!file) {
        throw Failure(options.pathFor(image), "cannot open the hash file: " + errorText(ENOENT));
    }
    file->checkOptions(options);
    return std::move(*file);
}

HashFile HashFile::foundOrMade(std::optional<HashFile> found, const Image& image, const HashFileOptions& options,
                               std::int64_t targetSize, Reporter& reporter)
{
    const std::string path = options.pathFor(image);
    for (;; found = open(path, options, reporter)) {
        if (found) {
            found->checkOptions(options);
            found->checkOwner(image, options);
            return std::move(*found);
        }
        if (options.isReadOnly) {
            throw Failure(path, "there is no hash file, and none may be made");
        }
        if (std::optional<HashFile> file = make(path, geometryFor(image, options, targetSize), reporter)) {
            return std::move(*file);
        }
    }
}

HashFile HashFile::openOrMake(const Image& image, const HashFileOptions& options, Reporter& reporter)
{
    return foundOrMade(find(image, options, reporter), image, options, image.size(), reporter);
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
    if (m_record && !image.isMissing()) {
        const Owner relation = ownerOf(*m_record, image.identity());
        if (relation == Owner::Same || (fits && relation == Owner::Successor)) {
            return;
        }
        owner = m_record->image.identity.path + ", " + owner;
    } else if (fits) {
        return;
    }
    const Range blocks = wholeBlocks({0, m_geometry.targetSize}, m_geometry.blockSize);
    if (options.adopts || totalLength(m_store->unknown(blocks)) == blocks.length) {
        m_record.reset();
        return;
    }
    throw Failure(m_path,
                  "made for " + owner + ", not for " + image.path()
                      + (image.isMissing() ? ", which is missing" : " of " + counted(image.size(), "byte"))
                      + "; with --adopt it is taken over, and what it knows is checked");
}

bool HashFile::isWritable() const
{
    return m_lock->isWritable();
}

bool HashFile::isServedReadOnly() const
{
    return m_lock->isServedReadOnly();
}

void HashFile::dropCache() const
{
    dropFromMemory(m_lock->file());
}

void HashFile::remove() const
{
    if (isInPlace()) {
        removeRecord(m_path);
        ::unlink(m_path.c_str());
    }
}

Store HashFile::anotherStore(Store::Access access) const
{
    return {m_path, m_lock->file().place(), m_geometry, access, m_hasLostWrites};
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

bool HashFile::isUntouched() const
{
    return isInPlace() && m_state == hashFileState(m_lock->file());
}

bool HashFile::isInPlace() const
{
    return leadsTo(m_path, m_lock->file());
}

void HashFile::write(Record record)
{
    const bool claimedTruth = m_record && m_record->standing == Record::Standing::True;
    if (record.standing == Record::Standing::True && !waitForTheNextMoment(m_lock->file())) {
        record.standing = Record::Standing::Unproven;
        record.reason = "the times of the hash file tell nothing";
    }
    m_state = hashFileState(m_lock->file());
    record.hashFile = m_state;
    m_record = std::move(record);
    const RecordWritten written = writeRecord(m_path, *m_record);
    const std::string cause = errorText(errno);
    if (written == RecordWritten::No && claimedTruth) {
        throw Failure(recordPath(m_path), "it says that all hashes are true, and cannot be changed: " + cause);
    }
    if (written != RecordWritten::Yes) {
        m_reporter->note(recordPath(m_path) + ": cannot write: " + cause + "; the next run will check all hashes");
    }
}

Traits hashFileState(const Descriptor& file)
{
    timespec latest;
    Traits state = stampsOf(file, latest);
    state.merge(fileTraits(file));
    state.merge(mountTraits(file));
    state["size"] = std::to_string(::lseek(file.get(), 0, SEEK_END));
    return state;
}

} // namespace kelvane::tool

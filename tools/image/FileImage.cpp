#include "image/FileImage.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>
#include <utility>

#include "base/Bytes.h"
#include "base/Interrupt.h"
#include "image/FileSystem.h"
#include "image/Memory.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t ALIGNMENT = 4096;  // of what goes past the system's memory, on the disk and in memory
constexpr std::int64_t AT_ONCE = 1 << 20; // bytes that are moved to where they are aligned

bool isAligned(const char* buffer, Range range)
{
    return range.offset % ALIGNMENT == 0 && range.length >= ALIGNMENT
        && reinterpret_cast<std::uintptr_t>(buffer) % ALIGNMENT == 0;
}

} // namespace

FileImage::FileImage(std::string path, Access access, AtLink atLink)
    : m_path(std::move(path))
{
    Descriptor found = openFile(m_path, O_PATH, atLink); // which waits for nothing, and changes nothing
    struct stat status;
    if (!found) {
        const int error = errno;
        if (error == ENOENT && access == Access::WriteOrMissing && ::lstat(m_path.c_str(), &status) != 0) {
            checkDirectory();
            return;
        }
        throw Failure(m_path, "cannot open: " + errorText(error));
    }
    openForReading(found);
    if (access != Access::Read) {
        refuseUse();
        if (::faccessat(AT_FDCWD, found.place().c_str(), W_OK, AT_EACCESS) != 0) {
            throw Failure(m_path, "cannot write: " + errorText(errno));
        }
    }
}

// In which it can be made.
void FileImage::checkDirectory() const
{
    const std::string directory = std::filesystem::path(m_path).parent_path().string();
    if (::faccessat(AT_FDCWD, directory.empty() ? "." : directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        throw Failure(m_path, "cannot make: " + errorText(errno));
    }
}

void FileImage::openForReading(const Descriptor& found)
{
    struct stat status;
    if (::fstat(found.get(), &status) != 0) {
        throw Failure(m_path, errorText(errno));
    }
    const bool isDevice = S_ISBLK(status.st_mode);
    if (!isDevice && !S_ISREG(status.st_mode)) {
        throw Failure(m_path,
                      S_ISLNK(status.st_mode) ? "a link, which is not followed here"
                                              : "neither a regular file nor a block device");
    }
    Descriptor file = openAgain(found, isDevice ? O_RDONLY | O_DIRECT | O_EXCL : O_RDONLY);
    m_isClaimed = isDevice && file;
    if (isDevice && !file && errno == EBUSY) {
        file = openAgain(found, O_RDONLY | O_DIRECT);
    }
    if (!file) {
        throw Failure(m_path, "cannot open: " + errorText(errno));
    }
    if (isDevice) {
        m_device.emplace(status.st_rdev);
    }
    take(std::move(file), status);
    if (isDevice) {
        m_shown = openShownFile(*m_device);
        m_isStamped = m_shown && isStampingFileSystem(m_shown);
    }
}

void FileImage::take(Descriptor file, const struct stat& status)
{
    m_file = std::move(file);
    m_permissions = status.st_mode & 0777;
    m_isStamped = isStampingFileSystem(m_file);
    m_size = currentSize();
    ::posix_fadvise(m_file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    openForDisk();
}

void FileImage::openForDisk()
{
    m_direct = m_isStamped && !m_device ? openAgain(m_file, O_RDONLY | O_DIRECT) : Descriptor();
}

// What is written by two ways at once comes out as neither says.
void FileImage::refuseUse() const
{
    if (m_device && !m_isClaimed) {
        throw Failure(m_path, "the system uses this device; is it mounted?");
    }
    const std::vector<std::string> devices = m_device ? std::vector<std::string>() : usedLoopDevicesOf(m_file);
    if (!devices.empty()) {
        throw Failure(m_path, "the system uses this file, as " + devices[0] + "; is that mounted?");
    }
}

std::string FileImage::hashFile() const
{
    if (m_device) {
        throw Failure(m_path,
                      "a block device: say where its hash file is, with --hash-file or its like; beside the device "
                      "it would be in memory, and lost when the machine is started again");
    }
    return m_path + ".hashes";
}

Identity FileImage::identity() const
{
    return identityOf(m_path, fileWithBytes(), device());
}

ImageState FileImage::state() const
{
    constexpr std::chrono::seconds LONGEST_WAIT(2);
    const auto end = std::chrono::steady_clock::now() + LONGEST_WAIT;
    for (;;) {
        const timespec clock = stampingClock();
        flush();
        ImageState state = {identity(), marksOf(fileWithBytes(), device(), m_isStamped), isAt(m_path)};
        state.marks.size = currentSize();
        if (!state.marks.isMoving && !isRecent(state.marks.latest, clock)) {
            return state;
        }
        if (std::chrono::steady_clock::now() > end) {
            state.marks.doubt = "it changes all the time, or its times of change lie in the future";
            return state;
        }
        throwWhenInterrupted();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

Writers FileImage::writers() const
{
    return writersOf(fileWithBytes(), device(), m_isClaimed);
}

// Of a file the system tells who opens it, of a device how much was written to it.
class FileImage::WritesCounted final : public Watch {
public:
    explicit WritesCounted(const FileImage& image)
        : m_image(image)
        , m_use(image.m_file)
        , m_written(image.m_bytesWritten)
    {
    }

    bool wasAlone(const ImageState& before, const ImageState& after) const override
    {
        return m_image.m_device ? after.doubt().empty()
                && sectorsWritten(before.marks, after.marks) * 512 == m_image.m_bytesWritten - m_written
                                : m_use.isGranted();
    }

private:
    const FileImage& m_image;
    ExclusiveUse m_use;
    std::int64_t m_written;
};

std::unique_ptr<Image::Watch> FileImage::watch() const
{
    return std::make_unique<WritesCounted>(*this);
}

std::int64_t FileImage::currentSize() const
{
    const off_t size = ::lseek(m_file.get(), 0, SEEK_END);
    if (size < 0) {
        throw Failure(m_path, errorText(errno));
    }
    return size;
}

std::int64_t FileImage::readAt(const Descriptor& file, char* buffer, Range range) const
{
    for (;;) {
        const ssize_t count = ::pread(file.get(), buffer, static_cast<std::size_t>(range.length), range.offset);
        if (count > 0) {
            return count;
        }
        if (count == 0 || errno != EINTR) {
            const std::string cause = count < 0 ? errorText(errno) : "the image ends here, it was longer before";
            throw Failure(m_path, range.offset, "cannot read: " + cause);
        }
    }
}

void FileImage::read(char* buffer, Range range) const
{
    if (m_device) {
        readFromDisk(buffer, range);
        return;
    }
    while (range.length > 0) {
        const std::int64_t count = readAt(m_file, buffer, range);
        buffer += count;
        range = between(range.offset + count, range.end());
    }
}

// What is aligned goes to its place, the rest to a place that is.
void FileImage::readFromDisk(char* buffer, Range range) const
{
    const Descriptor& file = fileForDisk();
    if (!file) {
        read(buffer, range);
        return;
    }
    Memory memory;
    while (range.length > 0) {
        std::int64_t count = 0;
        if (isAligned(buffer, range)) {
            count = readAt(file, buffer, {range.offset, roundDown(range.length, ALIGNMENT)});
        } else {
            memory = memory ? std::move(memory) : pagesFor(AT_ONCE);
            const std::int64_t start = roundDown(range.offset, ALIGNMENT);
            const std::int64_t length = std::min(AT_ONCE, roundUp(range.end(), ALIGNMENT) - start);
            const std::int64_t before = range.offset - start;
            count = std::min(range.length, readAt(file, memory.get(), {start, length}) - before);
            if (count <= 0) {
                throw Failure(m_path, range.offset, "cannot read: the image ends here, it was longer before");
            }
            std::memcpy(buffer, memory.get() + before, static_cast<std::size_t>(count));
        }
        buffer += count;
        range = between(range.offset + count, range.end());
    }
}

std::vector<FileImage::Run> FileImage::residency(Range range) const
{
    const Range pages = between(roundDown(range.offset, ALIGNMENT), std::min(roundUp(range.end(), ALIGNMENT), m_size));
    const auto count = m_direct ? pagesInMemory(m_file, pages) : std::nullopt;
    const bool areAll = !m_direct || count == roundUp(pages.length, ALIGNMENT) / ALIGNMENT;
    if (areAll || count == 0 || pages.length == 0) {
        return {{range, areAll}};
    }
    std::vector<Run> runs;
    Range rest = range;
    for (const bool isInMemory : residentPages(m_file, pages)) {
        const Range page = between(rest.offset, std::min(rest.end(), roundDown(rest.offset, ALIGNMENT) + ALIGNMENT));
        if (!runs.empty() && runs.back().isInMemory == isInMemory) {
            runs.back().range.length += page.length;
        } else {
            runs.push_back({page, isInMemory});
        }
        rest = between(page.end(), rest.end());
    }
    runs.back().range.length += rest.length; // behind the end
    return runs;
}

Range FileImage::nextData(std::int64_t offset, std::int64_t end) const
{
    const off_t start = ::lseek(m_file.get(), offset, SEEK_DATA);
    if (start < 0) {
        // ENXIO: nothing but a hole; else holes are not told here, as with block devices
        return errno == ENXIO ? between(end, end) : between(offset, end);
    }
    if (start >= end) {
        return between(end, end);
    }
    const off_t hole = ::lseek(m_file.get(), start, SEEK_HOLE);
    return between(start, hole <= start ? end : std::min<std::int64_t>(hole, end));
}

void FileImage::flush() const
{
    if (::fsync(m_file.get()) == 0 || errno == EINVAL) {
        return;
    }
    const int error = errno;
    const bool isDropped = dropFromMemory(m_file);
    // A file system that has stopped writing says that, too, whatever it has taken before. What it had not taken it may
    // have thrown away.
    if (error != EROFS || !isDropped || m_isWriting) {
        failFlush(error);
    }
}

void FileImage::failFlush(int error) const
{
    *m_hasLostWrites = true;
    dropFromMemory(m_file);
    throw FlushFailed(m_path, "cannot flush: " + errorText(error));
}

// What goes to a block device goes past the system's memory.
void FileImage::beginWriteBack(Range range) const
{
    if (!m_device) {
        ::sync_file_range(m_file.get(), range.offset, range.length, SYNC_FILE_RANGE_WRITE);
    }
}

void FileImage::awaitWriteBack(Range range) const
{
    constexpr unsigned ALL = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    if (m_device || ::sync_file_range(m_file.get(), range.offset, range.length, ALL) == 0) {
        return;
    }
    const int error = errno; // of the file system's own choice; no flush tells of it once more
    if (error != ENOSYS && error != EINVAL && error != ESPIPE) {
        failFlush(error);
    }
}

const Descriptor& FileImage::mappable() const
{
    static const Descriptor NONE;
    return m_isStamped && !m_device ? m_file : NONE;
}

bool FileImage::isAnyInMemory(Range range) const
{
    const auto count = m_isStamped && !m_device ? pagesInMemory(m_file, range) : std::nullopt;
    return count != 0;
}

bool FileImage::dropCache() const
{
    return dropFromMemory(m_file);
}

void FileImage::drop(Range range) const
{
    ::posix_fadvise(m_file.get(), range.offset, range.length, POSIX_FADV_DONTNEED);
}

void FileImage::checkSize(std::int64_t size) const
{
    if (m_device || size <= m_size) {
        return;
    }
    const std::string directory = std::filesystem::path(m_path).parent_path().string();
    const Descriptor unnamed = openFile(directory.empty() ? "." : directory, O_TMPFILE | O_RDWR, AtLink::Follow, 0600);
    const bool tells = unnamed || errno == ENOENT || errno == EACCES || errno == EROFS || errno == ENOSPC;
    if (isMissing() && !unnamed && tells) {
        throw Failure(m_path, "cannot make: " + errorText(errno));
    }
    if (unnamed && ::ftruncate(unnamed.get(), size) != 0) {
        throw Failure(m_path, size, "cannot change the size: " + errorText(errno));
    }
}

void FileImage::create(mode_t permissions)
{
    Descriptor file = openFile(m_path, O_RDWR | O_CREAT | O_EXCL, AtLink::Refuse, permissions);
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0) {
        throw Failure(m_path, "cannot make: " + errorText(errno));
    }
    take(std::move(file), status);
    m_direct = {}; // as in beginWriting
    m_isWriting = true;
}

void FileImage::beginWriting()
{
    if (m_isWriting) {
        return;
    }
    Descriptor file = openAgain(m_file, m_device ? O_RDWR | O_DIRECT : O_RDWR);
    if (!file) {
        throw Failure(m_path, "cannot open for writing: " + errorText(errno));
    }
    (m_device ? m_written : m_file) = std::move(file);
    m_direct = {}; // another opening would count as somebody else's
    m_isWriting = true;
}

void FileImage::endWriting()
{
    Descriptor file = m_device || !m_isWriting ? Descriptor() : openAgain(m_file, O_RDONLY);
    if (file) { // which one who may write need not be allowed to do
        m_file = std::move(file);
        openForDisk();
    }
    m_written = {};
    m_isWriting = false;
}

void FileImage::writeAt(const Descriptor& file, const char* buffer, Range range)
{
    while (range.length > 0) {
        const ssize_t count = ::pwrite(file.get(), buffer, static_cast<std::size_t>(range.length), range.offset);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            throw Failure(m_path, range.offset, "cannot write: " + errorText(count < 0 ? errno : ENOSPC));
        }
        m_bytesWritten += count;
        buffer += count;
        range = between(range.offset + count, range.end());
    }
}

void FileImage::write(const char* buffer, Range range, const std::shared_ptr<const void>& /*memory*/)
{
    m_device ? writeToDevice(buffer, range) : writeAt(m_file, buffer, range);
}

// Past what the system holds of it in memory, which may be older than the disk, and would go there beside the new
// bytes.
void FileImage::writeToDevice(const char* buffer, Range range)
{
    Memory memory;
    while (range.length > 0) {
        Range part = {range.offset, roundDown(range.length, ALIGNMENT)};
        if (isAligned(buffer, range)) {
            writeAt(m_written, buffer, part);
        } else {
            memory = memory ? std::move(memory) : pagesFor(AT_ONCE);
            const std::int64_t start = roundDown(range.offset, ALIGNMENT);
            const Range window = between(start, std::min({roundUp(range.end(), ALIGNMENT), start + AT_ONCE, m_size}));
            part = between(range.offset, std::min(range.end(), window.end()));
            if (part.offset != window.offset || part.length != window.length) {
                read(memory.get(), window);
            }
            std::memcpy(memory.get() + (part.offset - start), buffer, static_cast<std::size_t>(part.length));
            writeAt(m_written, memory.get(), window);
        }
        buffer += part.length;
        range = between(part.end(), range.end());
    }
}

void FileImage::resize(std::int64_t size)
{
    if (::ftruncate(m_file.get(), size) != 0) {
        throw Failure(m_path, size, "cannot change the size: " + errorText(errno));
    }
    m_size = size;
}

bool FileImage::zero(Range range, bool takesRoom)
{
    if (takesRoom) {
        return false;
    }
    std::uint64_t extent[] = {static_cast<std::uint64_t>(range.offset), static_cast<std::uint64_t>(range.length)};
    const bool isDone = m_device
        ? ::ioctl(m_written.get(), BLKZEROOUT, extent) == 0
        : ::fallocate(m_file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, range.offset, range.length) == 0;
    m_bytesWritten += isDone ? range.length : 0;
    return isDone;
}

} // namespace kelvane::tool

#include "image/Image.h"

#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "base/Bytes.h"
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

Image::Image(std::string path, Access access, AtLink atLink)
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
void Image::checkDirectory() const
{
    const std::string directory = std::filesystem::path(m_path).parent_path().string();
    if (::faccessat(AT_FDCWD, directory.empty() ? "." : directory.c_str(), W_OK | X_OK, AT_EACCESS) != 0) {
        throw Failure(m_path, "cannot make: " + errorText(errno));
    }
}

void Image::openForReading(const Descriptor& found)
{
    struct stat status;
    if (::fstat(found.get(), &status) != 0) {
        throw Failure(m_path, errorText(errno));
    }
    m_isBlockDevice = S_ISBLK(status.st_mode);
    if (!m_isBlockDevice && !S_ISREG(status.st_mode)) {
        throw Failure(m_path,
                      S_ISLNK(status.st_mode) ? "a link, which is not followed here"
                                              : "neither a regular file nor a block device");
    }
    Descriptor file = openAgain(found, m_isBlockDevice ? O_RDONLY | O_DIRECT | O_EXCL : O_RDONLY);
    m_isClaimed = m_isBlockDevice && file;
    if (m_isBlockDevice && !file && errno == EBUSY) {
        file = openAgain(found, O_RDONLY | O_DIRECT);
    }
    if (!file) {
        throw Failure(m_path, "cannot open: " + errorText(errno));
    }
    take(std::move(file), status);
    if (m_isBlockDevice) {
        m_device.emplace(status.st_rdev);
        m_shown = openShownFile(*m_device);
        m_isStamped = m_shown && isStampingFileSystem(m_shown);
    }
}

void Image::take(Descriptor file, const struct stat& status)
{
    m_file = std::move(file);
    m_permissions = status.st_mode & 0777;
    m_isStamped = isStampingFileSystem(m_file);
    m_size = currentSize();
    ::posix_fadvise(m_file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    openForDisk();
}

void Image::openForDisk()
{
    m_direct = m_isStamped && !m_isBlockDevice ? openAgain(m_file, O_RDONLY | O_DIRECT) : Descriptor();
}

// What is written by two ways at once comes out as neither says.
void Image::refuseUse() const
{
    if (m_isBlockDevice && !m_isClaimed) {
        throw Failure(m_path, "the system uses this device; is it mounted?");
    }
    const std::vector<std::string> devices = m_isBlockDevice ? std::vector<std::string>() : usedLoopDevicesOf(m_file);
    if (!devices.empty()) {
        throw Failure(m_path, "the system uses this file, as " + devices[0] + "; is that mounted?");
    }
}

std::int64_t Image::currentSize() const
{
    const off_t size = ::lseek(m_file.get(), 0, SEEK_END);
    if (size < 0) {
        throw Failure(m_path, errorText(errno));
    }
    return size;
}

std::int64_t Image::readAt(const Descriptor& file, char* buffer, Range range) const
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

void Image::read(char* buffer, Range range) const
{
    if (m_isBlockDevice) {
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
void Image::readFromDisk(char* buffer, Range range) const
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

bool Image::isInMemory(Range range) const
{
    const std::vector<Run> runs = residency(range);
    return runs.size() == 1 && runs[0].isInMemory;
}

std::vector<Image::Run> Image::residency(Range range) const
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

Range Image::nextData(std::int64_t offset, std::int64_t end) const
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

void Image::flush() const
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

void Image::failFlush(int error) const
{
    *m_hasLostWrites = true;
    dropFromMemory(m_file);
    throw FlushFailed(m_path, "cannot flush: " + errorText(error));
}

// What goes to a block device goes past the system's memory.
void Image::beginWriteBack(Range range) const
{
    if (!m_isBlockDevice) {
        ::sync_file_range(m_file.get(), range.offset, range.length, SYNC_FILE_RANGE_WRITE);
    }
}

void Image::awaitWriteBack(Range range) const
{
    constexpr unsigned ALL = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    if (m_isBlockDevice || ::sync_file_range(m_file.get(), range.offset, range.length, ALL) == 0) {
        return;
    }
    const int error = errno; // of the file system's own choice; no flush tells of it once more
    if (error != ENOSYS && error != EINVAL && error != ESPIPE) {
        failFlush(error);
    }
}

bool Image::isAnyInMemory(Range range) const
{
    const auto count = m_isStamped && !m_isBlockDevice ? pagesInMemory(m_file, range) : std::nullopt;
    return count != 0;
}

bool Image::dropCache() const
{
    return dropFromMemory(m_file);
}

void Image::mustDropCache() const
{
    if (!dropCache()) {
        throw Failure(m_path, "a part of it stays in memory, in use or never written, so that the disk cannot be read");
    }
}

void Image::drop(Range range) const
{
    ::posix_fadvise(m_file.get(), range.offset, range.length, POSIX_FADV_DONTNEED);
}

void Image::checkSize(std::int64_t size) const
{
    if (m_isBlockDevice || size <= m_size) {
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

void Image::create(mode_t permissions)
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

void Image::beginWriting()
{
    if (m_isWriting) {
        return;
    }
    Descriptor file = openAgain(m_file, m_isBlockDevice ? O_RDWR | O_DIRECT : O_RDWR);
    if (!file) {
        throw Failure(m_path, "cannot open for writing: " + errorText(errno));
    }
    (m_isBlockDevice ? m_written : m_file) = std::move(file);
    m_direct = {}; // another opening would count as somebody else's
    m_isWriting = true;
}

void Image::endWriting()
{
    Descriptor file = m_isBlockDevice || !m_isWriting ? Descriptor() : openAgain(m_file, O_RDONLY);
    if (file) { // which one who may write need not be allowed to do
        m_file = std::move(file);
        openForDisk();
    }
    m_written = {};
    m_isWriting = false;
}

void Image::writeAt(const Descriptor& file, const char* buffer, Range range)
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

void Image::write(const char* buffer, Range range)
{
    m_isBlockDevice ? writeToDevice(buffer, range) : writeAt(m_file, buffer, range);
}

// Past what the system holds of it in memory, which may be older than the disk, and would go there beside the new
// bytes.
void Image::writeToDevice(const char* buffer, Range range)
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

void Image::resize(std::int64_t size)
{
    if (::ftruncate(m_file.get(), size) != 0) {
        throw Failure(m_path, size, "cannot change the size: " + errorText(errno));
    }
    m_size = size;
}

bool Image::punch(Range range)
{
    std::uint64_t extent[] = {static_cast<std::uint64_t>(range.offset), static_cast<std::uint64_t>(range.length)};
    const bool isDone = m_isBlockDevice
        ? ::ioctl(m_written.get(), BLKZEROOUT, extent) == 0
        : ::fallocate(m_file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, range.offset, range.length) == 0;
    m_bytesWritten += isDone ? range.length : 0;
    return isDone;
}

} // namespace kelvane::tool

#include "image/Image.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

#include "image/Memory.h"

namespace kelvane::tool {

namespace {

constexpr long STAMPING[] = {0xef53,      // ext2 to ext4
                             0x58465342,  // XFS
                             0x9123683e,  // Btrfs
                             0xf2f52010,  // F2FS
                             0xca451a4e}; // bcachefs

constexpr std::int64_t ALIGNMENT = 4096; // of what is read from a block device, in it and in memory

struct Free {
    void operator()(char* memory) const { std::free(memory); }
};

std::unique_ptr<char, Free> alignedMemory(std::int64_t size)
{
    std::unique_ptr<char, Free> memory(
        static_cast<char*>(std::aligned_alloc(ALIGNMENT, static_cast<std::size_t>(roundUp(size, ALIGNMENT)))));
    return memory ? std::move(memory) : throw std::bad_alloc();
}

} // namespace

bool isStampingFileSystem(const Descriptor& file)
{
    struct statfs fileSystem;
    return ::fstatfs(file.get(), &fileSystem) == 0
        && std::find(std::begin(STAMPING), std::end(STAMPING), fileSystem.f_type) != std::end(STAMPING);
}

Image::Image(std::string path, Access access, AtLink atLink)
    : m_path(std::move(path))
{
    Descriptor found = openFile(m_path, O_PATH, atLink); // which waits for nothing, and changes nothing
    struct stat status;
    if (!found) {
        const int error = errno;
        if (error == ENOENT && access == Access::WriteOrMissing && ::lstat(m_path.c_str(), &status) != 0) {
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

void Image::read(char* buffer, Range range) const
{
    const auto isAligned = [&] {
        return range.offset % ALIGNMENT == 0 && (range.end() % ALIGNMENT == 0 || range.end() == m_size)
            && reinterpret_cast<std::uintptr_t>(buffer) % ALIGNMENT == 0;
    };
    if (m_isBlockDevice && !isAligned()) {
        readUnaligned(buffer, range);
        return;
    }
    while (range.length > 0) {
        const ssize_t count = ::pread(m_file.get(), buffer, static_cast<std::size_t>(range.length), range.offset);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            const std::string cause = count < 0 ? errorText(errno) : "the image ends here, it was longer before";
            throw Failure(m_path, range.offset, "cannot read: " + cause);
        }
        buffer += count;
        range = between(range.offset + count, range.end());
    }
}

void Image::readUnaligned(char* buffer, Range range) const
{
    constexpr std::int64_t AT_ONCE = 1 << 20;
    const auto memory = alignedMemory(std::min(AT_ONCE, range.length + 2 * ALIGNMENT));
    while (range.length > 0) {
        const std::int64_t start = roundDown(range.offset, ALIGNMENT);
        const std::int64_t end = std::min({roundUp(range.end(), ALIGNMENT), start + AT_ONCE, m_size});
        const Range piece = between(range.offset, std::min(range.end(), end));
        if (piece.length == 0) {
            throw Failure(m_path, range.offset, "cannot read: the image ends here, it was longer before");
        }
        read(memory.get(), between(start, end));
        std::memcpy(buffer, memory.get() + (piece.offset - start), static_cast<std::size_t>(piece.length));
        buffer += piece.length;
        range = between(piece.end(), range.end());
    }
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
    // What lies on a file system that cannot be written has nothing to be flushed.
    if (::fsync(m_file.get()) != 0 && errno != EINVAL && errno != EROFS) {
        const int error = errno;
        dropFromMemory(m_file);
        throw FlushFailed(m_path, "cannot flush: " + errorText(error));
    }
}

bool Image::dropCache() const
{
    return dropFromMemory(m_file);
}

void Image::readFromDisk() const
{
    if (!dropCache()) {
        throw Failure(m_path, "another program keeps a part of it in memory, so that the disk cannot be read");
    }
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
    m_isWriting = true;
}

// What is kept in memory of a device may be older than the disk, and would be written to it beside the new bytes.
void Image::beginWriting()
{
    if (m_isWriting) {
        return;
    }
    if (m_isBlockDevice) {
        flush();
        readFromDisk();
    }
    Descriptor file = openAgain(m_file, O_RDWR);
    if (!file) {
        throw Failure(m_path, "cannot open for writing: " + errorText(errno));
    }
    (m_isBlockDevice ? m_written : m_file) = std::move(file);
    m_isWriting = true;
}

void Image::endWriting()
{
    Descriptor file = m_isBlockDevice || !m_isWriting ? Descriptor() : openAgain(m_file, O_RDONLY);
    if (file) { // which one who may write need not be allowed to do
        m_file = std::move(file);
    }
    m_written = {};
    m_isWriting = false;
}

void Image::write(const char* buffer, Range range)
{
    const Descriptor& file = m_isBlockDevice ? m_written : m_file;
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

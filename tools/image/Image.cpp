#include "image/Image.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "base/Failure.h"

namespace kelvane::tool {

namespace {

constexpr long STAMPING[] = {0xef53,      // ext2 to ext4
                             0x58465342,  // XFS
                             0x9123683e,  // Btrfs
                             0xf2f52010,  // F2FS
                             0xca451a4e}; // bcachefs

bool isSameFile(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

} // namespace

bool isStampingFileSystem(int fd)
{
    struct statfs fileSystem;
    return ::fstatfs(fd, &fileSystem) == 0
        && std::find(std::begin(STAMPING), std::end(STAMPING), fileSystem.f_type) != std::end(STAMPING);
}

Image::Image(std::string path, Access access)
    : m_path(std::move(path))
{
    struct stat status;
    const bool isThere = ::stat(m_path.c_str(), &status) == 0;
    const bool isMissing = !isThere && errno == ENOENT && ::lstat(m_path.c_str(), &status) != 0; // not even a link
    if (isMissing && access == Access::WriteOrMissing) {
        return;
    }
    if (isThere && !S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) { // opening a pipe would wait
        throw Failure(m_path, "neither a regular file nor a block device");
    }
    const int alone = isThere && S_ISBLK(status.st_mode) ? O_EXCL : 0;
    take(openFile(m_path, access == Access::Read ? O_RDONLY : O_RDWR | alone));
}

void Image::take(Descriptor descriptor)
{
    if (!descriptor) {
        throw Failure(m_path,
                      errno == EBUSY ? "the system uses this device; is it mounted?"
                                     : "cannot open: " + errorText(errno));
    }
    struct stat status;
    if (::fstat(descriptor.get(), &status) != 0) {
        throw Failure(m_path, errorText(errno));
    }
    m_isBlockDevice = S_ISBLK(status.st_mode);
    m_isStamped = isStampingFileSystem(descriptor.get());
    m_fd = std::move(descriptor);
    m_size = currentSize();
    ::posix_fadvise(m_fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

std::int64_t Image::currentSize() const
{
    const off_t size = ::lseek(m_fd.get(), 0, SEEK_END);
    if (size < 0) {
        throw Failure(m_path, errorText(errno));
    }
    return size;
}

bool Image::isNamed() const
{
    struct stat own;
    struct stat there;
    return ::fstat(m_fd.get(), &own) == 0 && ::stat(m_path.c_str(), &there) == 0
        && (m_isBlockDevice ? S_ISBLK(there.st_mode) && own.st_rdev == there.st_rdev : isSameFile(own, there));
}

void Image::create()
{
    take(openFile(m_path, O_RDWR | O_CREAT | O_EXCL, 0666));
}

void Image::read(char* buffer, Range range) const
{
    while (range.length > 0) {
        const ssize_t count = ::pread(m_fd.get(), buffer, static_cast<std::size_t>(range.length), range.offset);
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

void Image::write(const char* buffer, Range range)
{
    while (range.length > 0) {
        const ssize_t count = ::pwrite(m_fd.get(), buffer, static_cast<std::size_t>(range.length), range.offset);
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

void Image::flush() const
{
    // What lies on a file system that cannot be written has nothing to be flushed.
    if (::fsync(m_fd.get()) != 0 && errno != EINVAL && errno != EROFS) {
        throw Failure(m_path, "cannot flush: " + errorText(errno));
    }
}

void Image::resize(std::int64_t size)
{
    if (::ftruncate(m_fd.get(), size) != 0) {
        throw Failure(m_path, size, "cannot change the size: " + errorText(errno));
    }
    m_size = size;
}

bool Image::punch(Range range)
{
    std::uint64_t extent[] = {static_cast<std::uint64_t>(range.offset), static_cast<std::uint64_t>(range.length)};
    const bool isDone = m_isBlockDevice
        ? ::ioctl(m_fd.get(), BLKZEROOUT, extent) == 0
        : ::fallocate(m_fd.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, range.offset, range.length) == 0;
    m_bytesWritten += isDone ? range.length : 0;
    return isDone;
}

Range Image::nextData(std::int64_t offset, std::int64_t end) const
{
    const off_t start = ::lseek(m_fd.get(), offset, SEEK_DATA);
    if (start < 0) {
        // ENXIO: nothing but a hole; else holes are not told here, as with block devices
        return errno == ENXIO ? between(end, end) : between(offset, end);
    }
    if (start >= end) {
        return between(end, end);
    }
    const off_t hole = ::lseek(m_fd.get(), start, SEEK_HOLE);
    return between(start, hole <= start ? end : std::min<std::int64_t>(hole, end));
}

void Image::dropCache() const
{
    ::posix_fadvise(m_fd.get(), 0, 0, POSIX_FADV_DONTNEED);
}

} // namespace kelvane::tool

#include "image/Image.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/Failure.h"

namespace kelvane::tool {

Image::Image(std::string path, Access access)
    : m_path(std::move(path))
{
    struct stat status;
    const bool isThere = ::stat(m_path.c_str(), &status) == 0;
    if (!isThere && errno == ENOENT && access == Access::WriteOrMissing) {
        return;
    }
    if (isThere && !S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode)) { // opening a pipe would wait
        throw Failure(m_path, "neither a regular file nor a block device");
    }
    take(openFile(m_path, access == Access::Read ? O_RDONLY : O_RDWR));
}

void Image::take(Descriptor descriptor)
{
    if (!descriptor) {
        throw Failure(m_path, "cannot open: " + errorText(errno));
    }
    struct stat status;
    if (::fstat(descriptor.get(), &status) != 0) {
        throw Failure(m_path, errorText(errno));
    }
    m_isBlockDevice = S_ISBLK(status.st_mode);
    m_size = ::lseek(descriptor.get(), 0, SEEK_END);
    if (m_size < 0) {
        throw Failure(m_path, errorText(errno));
    }
    ::posix_fadvise(descriptor.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    m_fd = std::move(descriptor);
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
    if (m_isBlockDevice) {
        std::uint64_t extent[] = {static_cast<std::uint64_t>(range.offset), static_cast<std::uint64_t>(range.length)};
        return ::ioctl(m_fd.get(), BLKZEROOUT, extent) == 0;
    }
    return ::fallocate(m_fd.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, range.offset, range.length) == 0;
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

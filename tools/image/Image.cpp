#include "image/Image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/Failure.h"

namespace kelvane::tool {

Image::Image(std::string path, Access access)
    : m_path(std::move(path))
{
    const int flags = access == Access::Read ? O_RDONLY : access == Access::Write ? O_RDWR : O_RDWR | O_CREAT;
    m_fd = ::open(m_path.c_str(), flags | O_CLOEXEC, 0666);
    if (m_fd < 0) {
        throw Failure(m_path, "cannot open: " + errorText(errno));
    }
    struct stat status;
    const bool known = ::fstat(m_fd, &status) == 0;
    const bool usable = known && (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode));
    m_isBlockDevice = usable && S_ISBLK(status.st_mode);
    m_size = usable ? ::lseek(m_fd, 0, SEEK_END) : -1;
    if (m_size < 0) {
        const std::string cause = known && !usable ? "neither a regular file nor a block device" : errorText(errno);
        ::close(m_fd);
        throw Failure(m_path, cause);
    }
    ::posix_fadvise(m_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
}

Image::~Image()
{
    ::close(m_fd);
}

void Image::read(char* buffer, Range range) const
{
    while (range.length > 0) {
        const ssize_t count = ::pread(m_fd, buffer, static_cast<std::size_t>(range.length), range.offset);
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
        const ssize_t count = ::pwrite(m_fd, buffer, static_cast<std::size_t>(range.length), range.offset);
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
    if (::fsync(m_fd) != 0) {
        throw Failure(m_path, "cannot flush: " + errorText(errno));
    }
}

void Image::resize(std::int64_t size)
{
    if (::ftruncate(m_fd, size) != 0) {
        throw Failure(m_path, size, "cannot change the size: " + errorText(errno));
    }
    m_size = size;
}

Range Image::nextData(std::int64_t offset, std::int64_t end) const
{
    const off_t start = ::lseek(m_fd, offset, SEEK_DATA);
    if (start < 0) {
        // ENXIO: nothing but a hole; else holes are not told here, as with block devices
        return errno == ENXIO ? between(end, end) : between(offset, end);
    }
    if (start >= end) {
        return between(end, end);
    }
    const off_t hole = ::lseek(m_fd, start, SEEK_HOLE);
    return between(start, hole <= start ? end : std::min<std::int64_t>(hole, end));
}

void Image::dropCache() const
{
    ::posix_fadvise(m_fd, 0, 0, POSIX_FADV_DONTNEED);
}

} // namespace kelvane::tool

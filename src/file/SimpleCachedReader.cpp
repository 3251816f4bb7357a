#include "SimpleCachedReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>
#include <utility>

#include "file/PosixFile.h"

namespace kelvane {

namespace {

constexpr kelvane_ssize_t PAGE = 4096;
constexpr kelvane_ssize_t MAXIMUM_POSITION = std::numeric_limits<kelvane_ssize_t>::max();

// A read that starts at most this far behind the end of the last one continues it: callers that step
// through a file leave out a little now and then.
constexpr kelvane_ssize_t ASCENDING_GAP = 512;

kelvane_ssize_t failWith(int error)
{
    errno = error;
    return -1;
}

// The count that an operation returns for a transfer: negative when it failed, whatever moved before.
kelvane_ssize_t result(const posix::Transfer& transfer, std::size_t& moved)
{
    moved = transfer.moved;
    return transfer.failed ? -1 : static_cast<kelvane_ssize_t>(transfer.moved);
}

void report(const SimpleCachedReader::DataTransferMetricFunc& callback, std::size_t bytes)
{
    if (callback && bytes != 0) {
        const int savedErrno = errno;
        callback(bytes);
        errno = savedErrno;
    }
}

struct Window {
    kelvane_ssize_t start;
    kelvane_ssize_t length;
};

// Which part of the file to fetch for `length` bytes at `start`: as much as the cache holds when reads
// ascend, else the pages in which the bytes lie.
Window windowFor(kelvane_ssize_t start, kelvane_ssize_t length, bool ascending, kelvane_ssize_t capacity)
{
    const kelvane_ssize_t lead = start % PAGE;
    if (ascending || lead + length > capacity) {
        return {start, std::min(capacity, MAXIMUM_POSITION - start)};
    }
    const kelvane_ssize_t pages = (lead + length + PAGE - 1) / PAGE * PAGE;
    return {start - lead, std::min({pages, capacity, MAXIMUM_POSITION - (start - lead)})};
}

} // namespace

SimpleCachedReader::SimpleCachedReader(std::size_t cacheSize)
    : m_read_buffer(std::make_unique_for_overwrite<char[]>(cacheSize))
    , m_cache_size(cacheSize)
{
}

SimpleCachedReader::~SimpleCachedReader()
{
    close();
}

SimpleCachedReader::SimpleCachedReader(SimpleCachedReader&& other) noexcept
    : m_cache_size()
{
    *this = std::move(other);
}

// Where the source stood, and what it had cached, does not matter without a file: opening one forgets it.
SimpleCachedReader& SimpleCachedReader::operator=(SimpleCachedReader&& other) noexcept
{
    if (this != &other) {
        close();
        m_seek_offset = other.m_seek_offset;
        m_fd = std::exchange(other.m_fd, INVALID_FD);
        m_read_buffer = std::move(other.m_read_buffer);
        m_read_buffer_start_offset = other.m_read_buffer_start_offset;
        m_read_buffer_end_offset = other.m_read_buffer_end_offset;
        m_cache_size = std::exchange(other.m_cache_size, 0);
        m_on_write = std::exchange(other.m_on_write, nullptr);
        m_on_read = std::exchange(other.m_on_read, nullptr);
        m_path = std::move(other.m_path);
        m_last_read_end = other.m_last_read_end;
    }
    return *this;
}

int SimpleCachedReader::open(const std::string& path, int flags)
{
    std::string ownPath = path;
    const int fd = posix::open(path, flags | O_CLOEXEC);
    if (!is_valid_fd(fd)) {
        return fd;
    }
    close();
    m_fd = fd;
    m_path = std::move(ownPath);
    return m_fd;
}

kelvane_ssize_t SimpleCachedReader::seek(kelvane_ssize_t offset, int whence)
{
    if (!is_valid_fd(m_fd)) {
        return failWith(EBADF);
    }
    kelvane_ssize_t base = 0;
    if (whence == SEEK_CUR) {
        base = m_seek_offset;
    } else if (whence == SEEK_END) {
        base = seek_int(m_fd, 0, SEEK_END);
        if (base < 0) {
            return base;
        }
    } else if (whence != SEEK_SET) {
        return failWith(EINVAL);
    }
    if (offset > MAXIMUM_POSITION - base) {
        return failWith(EOVERFLOW);
    }
    if (base + offset < 0) {
        return failWith(EINVAL);
    }
    m_seek_offset = base + offset;
    return m_seek_offset;
}

kelvane_buf_len_t SimpleCachedReader::read(kelvane_buf_t buffer, kelvane_buf_len_t length)
{
    if (!is_valid_fd(m_fd)) {
        return failWith(EBADF);
    }
    if (length < 0 || length > MAXIMUM_POSITION - m_seek_offset) {
        return failWith(EINVAL);
    }
    auto* const out = static_cast<char*>(buffer);
    std::size_t moved = 0;
    kelvane_ssize_t count = 0;
    if (static_cast<std::size_t>(length) < m_cache_size) {
        count = readThroughCache(out, length, moved);
    } else {
        count = result(posix::readAt(m_fd, out, static_cast<std::size_t>(length), m_seek_offset), moved);
    }
    if (count >= 0) {
        m_seek_offset += count;
        m_last_read_end = m_seek_offset;
    }
    report(m_on_read, moved);
    return count;
}

int SimpleCachedReader::write(const void* buffer, std::size_t length)
{
    if (!is_valid_fd(m_fd)) {
        errno = EBADF;
        return -1;
    }
    if (length > INT_MAX || static_cast<kelvane_ssize_t>(length) > MAXIMUM_POSITION - m_seek_offset) {
        errno = EFBIG;
        return -1;
    }
    std::size_t moved = 0;
    const kelvane_ssize_t count = result(posix::writeAt(m_fd, buffer, length, m_seek_offset), moved);
    rememberWritten(static_cast<const char*>(buffer), static_cast<kelvane_ssize_t>(moved));
    if (count >= 0) {
        m_seek_offset += count;
    } else {
        dropCache(); // nobody knows what the failed part left in the file
    }
    report(m_on_write, moved);
    return static_cast<int>(count);
}

int SimpleCachedReader::fsync() const
{
    return posix::fsync(m_fd);
}

int SimpleCachedReader::sync_file_range(kelvane_ssize_t offset, kelvane_buf_len_t length)
{
    return posix::syncFileRange(m_fd, offset, length);
}

void SimpleCachedReader::setOnWriteCallback(DataTransferMetricFunc on_write)
{
    m_on_write = std::move(on_write);
}

void SimpleCachedReader::setOnReadCallback(DataTransferMetricFunc on_read)
{
    m_on_read = std::move(on_read);
}

void SimpleCachedReader::truncate(std::size_t size)
{
    if (posix::truncate(m_fd, size) != 0) {
        throw posix::failure(errno, "failed to truncate file");
    }
    const auto end = static_cast<kelvane_ssize_t>(size);
    m_read_buffer_start_offset = std::min(m_read_buffer_start_offset, end);
    m_read_buffer_end_offset = std::min(m_read_buffer_end_offset, end);
}

kelvane_ssize_t SimpleCachedReader::seek_int(int fd, kelvane_ssize_t offset, int whence)
{
    return posix::seek(fd, offset, whence);
}

bool SimpleCachedReader::is_valid_fd(int fd)
{
    return fd > INVALID_FD;
}

void SimpleCachedReader::close()
{
    if (is_valid_fd(m_fd)) {
        posix::close(std::exchange(m_fd, INVALID_FD));
    }
    m_seek_offset = 0;
    m_last_read_end = -1;
    dropCache();
}

void SimpleCachedReader::dropCache()
{
    m_read_buffer_end_offset = m_read_buffer_start_offset;
}

// Copies what the cache holds of the `length` bytes at `offset`, from their first byte on.
kelvane_ssize_t SimpleCachedReader::copyFromCache(char* buffer, kelvane_ssize_t offset, kelvane_ssize_t length) const
{
    if (length == 0 || offset < m_read_buffer_start_offset || offset >= m_read_buffer_end_offset) {
        return 0;
    }
    const kelvane_ssize_t count = std::min(length, m_read_buffer_end_offset - offset);
    std::memcpy(buffer, m_read_buffer.get() + (offset - m_read_buffer_start_offset), static_cast<std::size_t>(count));
    return count;
}

// Reads `length` bytes, fewer than the cache holds, at the position, with at most one transfer: what the
// cache lacks is fetched into it first. Sets `moved` to the bytes fetched.
kelvane_ssize_t SimpleCachedReader::readThroughCache(char* buffer, kelvane_ssize_t length, std::size_t& moved)
{
    const kelvane_ssize_t cached = copyFromCache(buffer, m_seek_offset, length);
    if (cached == length) {
        return length;
    }
    const kelvane_ssize_t missing = m_seek_offset + cached;
    const bool ascending
        = m_last_read_end >= 0 && m_seek_offset >= m_last_read_end && m_seek_offset - m_last_read_end <= ASCENDING_GAP;
    const Window window = windowFor(missing, length - cached, ascending, static_cast<kelvane_ssize_t>(m_cache_size));
    const kelvane_ssize_t fetched = result(
        posix::readAt(m_fd, m_read_buffer.get(), static_cast<std::size_t>(window.length), window.start), moved);
    m_read_buffer_start_offset = window.start;
    m_read_buffer_end_offset = window.start + static_cast<kelvane_ssize_t>(moved);
    const kelvane_ssize_t count = cached + copyFromCache(buffer + cached, missing, length - cached);
    return fetched < 0 && count < length ? fetched : count; // what was not asked for may be unreadable
}

// Brings the cache up to date after `length` bytes were written at the position. It keeps as many of them
// as it can hold, for what was written is often asked for next.
void SimpleCachedReader::rememberWritten(const char* bytes, kelvane_ssize_t length)
{
    const auto capacity = static_cast<kelvane_ssize_t>(m_cache_size);
    const kelvane_ssize_t kept = std::min(length, capacity);
    if (kept == 0) {
        return;
    }
    const kelvane_ssize_t end = m_seek_offset + kept;
    const bool continues = m_seek_offset >= m_read_buffer_start_offset && m_seek_offset <= m_read_buffer_end_offset
        && end - m_read_buffer_start_offset <= capacity;
    if (!continues) {
        m_read_buffer_start_offset = m_seek_offset;
        m_read_buffer_end_offset = m_seek_offset;
        m_last_read_end = -1;
    }
    std::memcpy(m_read_buffer.get() + (m_seek_offset - m_read_buffer_start_offset), bytes,
                static_cast<std::size_t>(kept));
    m_read_buffer_end_offset = std::max(m_read_buffer_end_offset, end);
}

} // namespace kelvane

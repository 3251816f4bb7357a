// A file opened for reading and writing through a small read cache.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Constants.h"
#include "Export.h"
#include "Types.h"

namespace kelvane {

// Owns one descriptor, a position, a cache of the file's bytes and two metric callbacks. Belongs to one
// thread at a time.
//
// Failures are reported by results, with `errno` as the failing system call set it; without an open file
// they are negative with `errno` EBADF. Interrupted calls are made again and split transfers completed,
// so a short count means the end of the file. Exceptions come from `truncate`, from failed allocations in
// the constructor and in `open`, which then changes nothing, and from callbacks: what they throw passes
// through after the transfer took place and the position and the cache were brought up to date.
//
// Reads of at least the cache's size go straight into the caller's buffer. A smaller one that misses the
// cache fetches the 4096-byte pages that it touches; one that goes on where the last read ended fetches
// as much as the cache holds. What was written last stays in the cache when it fits.
class KELVANE_EXPORT SimpleCachedReader {
public:
    // Receives the bytes of a transfer: what really went to or came from the file, once per transfer, also
    // when it failed half-way. Reads served from the cache are not counted.
    using DataTransferMetricFunc = std::function<void(unsigned long)>;

    static constexpr std::size_t CACHE_BUFFER_SIZE_IN_BYTES = 49152; // of a store's reader

    SimpleCachedReader(const SimpleCachedReader&) = delete;
    SimpleCachedReader& operator=(const SimpleCachedReader&) = delete;

    // A reader without a file, whose cache will hold `cacheSize` bytes; with 0 nothing is cached.
    explicit SimpleCachedReader(std::size_t cacheSize);

    // Closes the file. Everything written has been handed to the system, nothing is flushed.
    ~SimpleCachedReader();

    // The source is left without file, cache and callbacks.
    SimpleCachedReader(SimpleCachedReader&& other) noexcept;

    // The same; closes the file that was open before.
    SimpleCachedReader& operator=(SimpleCachedReader&& other) noexcept;

    // Opens `path` with the flags of the POSIX call of that name, O_CLOEXEC added, at position 0. Returns
    // a non-negative value, or a negative one on failure, which leaves the reader as it was. A file that
    // was open before is closed.
    [[nodiscard]] int open(const std::string& path, int flags);

    // Sets the position: from the start (SEEK_SET), the position (SEEK_CUR) or the file's end (SEEK_END).
    // Returns the new position; negative on failure, the position unchanged: EINVAL for another `whence`
    // and for a position before the start, EOVERFLOW for one past what 64 bits can hold.
    kelvane_ssize_t seek(kelvane_ssize_t offset, int whence);

    // Copies up to `length` bytes from the position to `buffer` and advances by the count returned, which
    // is short only at the file's end. Negative on failure, the position unchanged; EINVAL for a negative
    // length.
    [[nodiscard]] kelvane_buf_len_t read(kelvane_buf_t buffer, kelvane_buf_len_t length);

    // Hands `length` bytes to the system at the position and advances by the count returned. Negative on
    // failure, the position unchanged; EFBIG, with nothing written, for more than INT_MAX bytes.
    [[nodiscard]] int write(const void* buffer, std::size_t length);

    // Brings everything written to stable storage, the file's size included. 0 on success.
    [[nodiscard]] int fsync() const;

    // Brings the written bytes of a range to stable storage, waiting for them; the file's size and other
    // metadata are not part of that. Length 0 means everything from `offset` on. 0 on success.
    [[nodiscard]] int sync_file_range(kelvane_ssize_t offset, kelvane_buf_len_t length);

    // An empty callable is never invoked. A callable must not use this reader.
    void setOnWriteCallback(DataTransferMetricFunc on_write);

    // The same for what is read.
    void setOnReadCallback(DataTransferMetricFunc on_read);

    // Sets the file's length; the position stays. Throws std::runtime_error with "failed to truncate
    // file: " and `errno` in decimal; the file is unchanged then.
    void truncate(std::size_t size);

private:
    kelvane_ssize_t m_seek_offset = 0;
    int m_fd = INVALID_FD;
    std::unique_ptr<char[]> m_read_buffer;
    kelvane_ssize_t m_read_buffer_start_offset = 0;
    kelvane_ssize_t m_read_buffer_end_offset = 0;
    std::size_t m_cache_size;
    DataTransferMetricFunc m_on_write;
    DataTransferMetricFunc m_on_read;
    std::string m_path;
    kelvane_ssize_t m_last_read_end = -1; // by which ascending reads are known; -1 when there is no clue

    static kelvane_ssize_t seek_int(int fd, kelvane_ssize_t offset, int whence);
    static bool is_valid_fd(int fd);

    void close();
    void dropCache();
    kelvane_ssize_t copyFromCache(char* buffer, kelvane_ssize_t offset, kelvane_ssize_t length) const;
    kelvane_ssize_t readThroughCache(char* buffer, kelvane_ssize_t length, std::size_t& moved);
    void rememberWritten(const char* bytes, kelvane_ssize_t length);
};

} // namespace kelvane

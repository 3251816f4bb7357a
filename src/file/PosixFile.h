// The system calls of the library, one function each: interrupted calls are made again where that is
// safe, and transfers that the system splits are completed. Failures leave `errno` as the call set it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <system_error>

namespace kelvane::posix {

constexpr int STANDARD_ERROR = 2;

// A failure with the text `message`, ": " and the error number in decimal; its code() has the number.
std::system_error failure(int error, std::string_view message);

// What a transfer achieved: the bytes moved before it ended, and whether a failing call ended it. A
// read that is short without having failed met the end of the file.
struct Transfer {
    std::size_t moved;
    bool failed;
};

int open(const std::string& path, int flags, mode_t mode = 0);

// Never repeated: the descriptor is gone even when the call fails.
int close(int fd);

int stat(const std::string& path, struct stat& result);
off_t seek(int fd, off_t offset, int whence);
int unlink(const std::string& path);
int fsync(int fd);
int truncate(int fd, std::uint64_t size);

// Starts writing the range out, and waits for that and for whatever was being written before.
int syncFileRange(int fd, off_t offset, off_t length);

Transfer readAt(int fd, void* buffer, std::size_t length, off_t offset);
Transfer writeAt(int fd, const void* buffer, std::size_t length, off_t offset);

// One call of write, whatever comes of it.
ssize_t writeOnce(int fd, const void* buffer, std::size_t length);

} // namespace kelvane::posix

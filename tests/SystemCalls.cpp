#include "SystemCalls.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <iterator>

namespace kelvane::testing {

namespace {

// `forward(length)` makes the system call, a transfer for `length` bytes.
template <class Forward>
long intercept(const CallRecord& record, Forward forward)
{
    Outcome outcome;
    if (auto* const hook = std::exchange(CallHook::active, nullptr)) { // calls that it makes itself are forwarded
        const int savedErrno = errno;
        outcome = hook->ask(record);
        errno = savedErrno;
        CallHook::active = hook;
    }
    if (outcome.error == 0) {
        return forward(std::min(static_cast<std::size_t>(outcome.limit), record.length)); // -1 is above any length
    }
    if (record.call == Call::Close) {
        forward(0);
    }
    errno = outcome.error;
    return -1;
}

template <class Result = int, class... Arguments>
Result passOn(const CallRecord& record, long number, Arguments... arguments)
{
    return static_cast<Result>(intercept(record, [=](std::size_t) { return syscall(number, arguments...); }));
}

ssize_t transfer(const CallRecord& call, long number) // those that take no offset ignore it
{
    return intercept(call, [&](auto length) { return syscall(number, call.fd, call.buffer, length, call.offset); });
}

} // namespace

int openDescriptors()
{
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {})) - 1; // its own
}

} // namespace kelvane::testing

using namespace kelvane::testing;

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return passOn({Call::Open, -1, nullptr, 0, 0, flags}, SYS_openat, AT_FDCWD, path, flags, mode);
}

int close(int fd)
{
    return passOn({Call::Close, fd}, SYS_close, fd);
}

int stat(const char* path, struct stat* status) noexcept
{
    return passOn({Call::Stat}, SYS_newfstatat, AT_FDCWD, path, status, 0);
}

off_t lseek(int fd, off_t offset, int whence) noexcept
{
    return passOn<off_t>({Call::Seek, fd, nullptr, 0, offset}, SYS_lseek, fd, offset, whence);
}

ssize_t pread(int fd, void* buffer, size_t length, off_t offset)
{
    return transfer({Call::ReadAt, fd, buffer, length, offset}, SYS_pread64);
}

ssize_t write(int fd, const void* buffer, size_t length)
{
    return transfer({Call::Write, fd, buffer, length}, SYS_write);
}

ssize_t pwrite(int fd, const void* buffer, size_t length, off_t offset)
{
    return transfer({Call::WriteAt, fd, buffer, length, offset}, SYS_pwrite64);
}

int fsync(int fd)
{
    return passOn({Call::Fsync, fd}, SYS_fsync, fd);
}

int sync_file_range(int fd, off64_t offset, off64_t length, unsigned flags)
{
    return passOn({Call::SyncFileRange, fd, nullptr, static_cast<std::size_t>(length), offset, static_cast<int>(flags)},
                  SYS_sync_file_range, fd, offset, length, flags);
}

int ftruncate(int fd, off_t length) noexcept
{
    return passOn({Call::Truncate, fd, nullptr, static_cast<std::size_t>(length)}, SYS_ftruncate, fd, length);
}

int unlink(const char* path) noexcept
{
    return passOn({Call::Unlink}, SYS_unlinkat, AT_FDCWD, path, 0);
}

int stat64(const char*, struct stat64*) noexcept __attribute__((alias("stat"))); // the same on 64-bit machines
int open64(const char*, int, ...) __attribute__((alias("open")));
off64_t lseek64(int, off64_t, int) noexcept __attribute__((alias("lseek")));
ssize_t pread64(int, void*, size_t, off64_t) __attribute__((alias("pread")));
ssize_t pwrite64(int, const void*, size_t, off64_t) __attribute__((alias("pwrite")));
int ftruncate64(int, off64_t) noexcept __attribute__((alias("ftruncate")));

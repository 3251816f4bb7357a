#include "SystemCalls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <iterator>
#include <utility>

namespace kelvane::testing {

namespace {

// One per thread, so that other threads never meet the hook; a plain pointer, because the calls below may
// come before any constructor has run.
constinit thread_local std::function<Outcome(const CallRecord&)>* activeHook = nullptr;

Outcome ask(const CallRecord& record)
{
    auto* const hook = std::exchange(activeHook, nullptr); // calls that it makes itself are forwarded
    if (hook == nullptr) {
        return {};
    }
    const int savedErrno = errno;
    const Outcome outcome = (*hook)(record);
    errno = savedErrno;
    activeHook = hook;
    return outcome;
}

// `forward(length)` makes the system call, a transfer for `length` bytes.
template <class Result, class Forward>
Result intercept(const CallRecord& record, Forward forward)
{
    const Outcome outcome = ask(record);
    if (outcome.error == 0) {
        const auto limit = static_cast<std::size_t>(outcome.limit); // none is larger than any length
        return static_cast<Result>(forward(limit < record.length ? limit : record.length));
    }
    if (record.call == Call::Close) {
        forward(0);
    }
    errno = outcome.error;
    return -1;
}

// The same for calls that are no transfers.
template <class Result, class... Arguments>
Result passOn(const CallRecord& record, long number, Arguments... arguments)
{
    return intercept<Result>(record, [=](std::size_t) { return syscall(number, arguments...); });
}

} // namespace

CallHook::CallHook(std::function<Outcome(const CallRecord&)> hook)
    : m_hook(std::move(hook))
{
    EXPECT_EQ(activeHook, nullptr) << "there is a hook already";
    activeHook = &m_hook;
}

CallHook::~CallHook()
{
    activeHook = nullptr;
}

int openDescriptors()
{
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<int>(std::distance(begin(descriptors), end(descriptors))) - 1; // less the iterator's own
}

} // namespace kelvane::testing

using kelvane::testing::Call;
using kelvane::testing::intercept;
using kelvane::testing::passOn;

extern "C" {

int open(const char* path, int flags, ...)
{
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return passOn<int>({Call::Open, -1, nullptr, 0, 0, flags}, SYS_openat, AT_FDCWD, path, flags, mode);
}

int close(int fd)
{
    return passOn<int>({Call::Close, fd}, SYS_close, fd);
}

int stat(const char* path, struct stat* status) noexcept
{
    return passOn<int>({Call::Stat}, SYS_newfstatat, AT_FDCWD, path, status, 0);
}

int stat64(const char* path, struct stat64* status) noexcept // the same layout on 64-bit machines
{
    return passOn<int>({Call::Stat}, SYS_newfstatat, AT_FDCWD, path, status, 0);
}

off_t lseek(int fd, off_t offset, int whence) noexcept
{
    return passOn<off_t>({Call::Seek, fd, nullptr, 0, offset}, SYS_lseek, fd, offset, whence);
}

ssize_t pread(int fd, void* buffer, size_t length, off_t offset)
{
    return intercept<ssize_t>({Call::ReadAt, fd, nullptr, length, offset},
                              [=](std::size_t limit) { return syscall(SYS_pread64, fd, buffer, limit, offset); });
}

ssize_t write(int fd, const void* buffer, size_t length)
{
    return intercept<ssize_t>({Call::Write, fd, buffer, length},
                              [=](std::size_t limit) { return syscall(SYS_write, fd, buffer, limit); });
}

ssize_t pwrite(int fd, const void* buffer, size_t length, off_t offset)
{
    return intercept<ssize_t>({Call::WriteAt, fd, buffer, length, offset},
                              [=](std::size_t limit) { return syscall(SYS_pwrite64, fd, buffer, limit, offset); });
}

int fsync(int fd)
{
    return passOn<int>({Call::Fsync, fd}, SYS_fsync, fd);
}

int sync_file_range(int fd, off64_t offset, off64_t length, unsigned flags)
{
    const auto size = static_cast<std::size_t>(length);
    return passOn<int>({Call::SyncFileRange, fd, nullptr, size, offset, static_cast<int>(flags)}, SYS_sync_file_range,
                       fd, offset, length, flags);
}

int ftruncate(int fd, off_t length) noexcept
{
    return passOn<int>({Call::Truncate, fd, nullptr, static_cast<std::size_t>(length)}, SYS_ftruncate, fd, length);
}

int unlink(const char* path) noexcept
{
    return passOn<int>({Call::Unlink}, SYS_unlinkat, AT_FDCWD, path, 0);
}

int open64(const char*, int, ...) __attribute__((alias("open")));
off64_t lseek64(int, off64_t, int) noexcept __attribute__((alias("lseek")));
ssize_t pread64(int, void*, size_t, off64_t) __attribute__((alias("pread")));
ssize_t pwrite64(int, const void*, size_t, off64_t) __attribute__((alias("pwrite")));
int ftruncate64(int, off64_t) noexcept __attribute__((alias("ftruncate")));

} // extern "C"

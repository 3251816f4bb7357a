// Preloaded into the program: writes down the calls that it makes on files, does something in the middle of one of
// them, and shows another start of the machine. By the environment:
//     SHIM_LOG   the file for the names of the calls, each with the file's name: "pwrite disk.img"
//     SHIM_AT    the number of the call before which SHIM_DO is done: "kill", or a shell command
//     SHIM_BOOT  the file that stands for the identity of this start of the machine
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

template <class Function>
Function* next(const char* name, Function* /*own*/)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

std::string nameOf(int fd)
{
    std::array<char, 4096> path;
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size());
    const std::string whole(path.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
    return whole.substr(whole.rfind('/') + 1);
}

void act(const std::string& action)
{
    if (action == "kill") {
        std::raise(SIGKILL);
    }
    ::unsetenv("LD_PRELOAD");
    if (std::system(action.c_str()) != 0) {
        std::abort();
    }
}

void note(const std::string& call)
{
    static std::atomic<int> count = 0;
    const char* const at = std::getenv("SHIM_AT");
    if (at != nullptr && ++count == std::atoi(at)) {
        act(std::getenv("SHIM_DO"));
    }
    if (const char* const path = std::getenv("SHIM_LOG")) {
        const auto fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND, 0600));
        const std::string line = call + "\n";
        ::syscall(SYS_write, fd, line.data(), line.size());
        ::syscall(SYS_close, fd);
    }
}

} // namespace

extern "C" {

ssize_t pread64(int fd, void* buffer, size_t length, off64_t offset)
{
    note("pread " + nameOf(fd));
    return next("pread64", pread64)(fd, buffer, length, offset);
}

ssize_t pwrite64(int fd, const void* buffer, size_t length, off64_t offset)
{
    note("pwrite " + nameOf(fd));
    return next("pwrite64", pwrite64)(fd, buffer, length, offset);
}

int fsync(int fd)
{
    note("fsync " + nameOf(fd));
    return next("fsync", fsync)(fd);
}

int ftruncate64(int fd, off64_t length) noexcept
{
    note("ftruncate " + nameOf(fd));
    return next("ftruncate64", ftruncate64)(fd, length);
}

int fallocate64(int fd, int mode, off64_t offset, off64_t length)
{
    note("fallocate " + nameOf(fd));
    return next("fallocate64", fallocate64)(fd, mode, offset, length);
}

int rename(const char* from, const char* to) noexcept
{
    note(std::string("rename ") + to);
    return next("rename", rename)(from, to);
}

int open64(const char* path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const char* const boot = std::getenv("SHIM_BOOT");
    const bool asksForBoot = boot != nullptr && std::strcmp(path, "/proc/sys/kernel/random/boot_id") == 0;
    return next("open64", open64)(asksForBoot ? boot : path, flags, mode);
}

// The same calls by their other names.
ssize_t pread(int, void*, size_t, off_t) __attribute__((alias("pread64")));
ssize_t pwrite(int, const void*, size_t, off_t) __attribute__((alias("pwrite64")));
int ftruncate(int, off_t) noexcept __attribute__((alias("ftruncate64")));
int open(const char*, int, ...) __attribute__((alias("open64")));

} // extern "C"

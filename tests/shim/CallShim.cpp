// Preloaded into the program: writes down the calls that it makes on files, does something before one of them, and
// shows another start of the machine and another clock. By the environment:
//     SHIM_LOG    the file for the names of the calls, each with the file's name: "pwrite disk.img"; "read" is that of
//                 more than a page, or its mapping
//     SHIM_RANGES set where what is written is to be told, too: "pwrite disk.img 4096 512"
//     SHIM_AT     before which calls SHIM_DO is done: numbers and names with commas between; "open a#2" is the second
//     SHIM_DO     "fail" (all of them, with EIO or the number of an error behind it); or, once, numbers of signals that
//     are raised, or a shell command; or
//                 "each" and a shell command that is done every time
//     SHIM_BOOT   the file that stands for the identity of this start of the machine
//     SHIM_NAMED  set where the file system cannot make files without names
//     SHIM_CLOCK  how many times too fast the clock runs that tells how long something took; perhaps a space, and after
//                 how many seconds that begins
//     SHIM_LATE   how many seconds the clock is late that files get their times from
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <mutex>
#include <sstream>
#include <string>

namespace {

template <class Function>
Function* next(const char* name, Function* /*own*/)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

constexpr std::size_t PAGE = 4096; // what is larger is data, however it is read: by a call, or by being mapped

std::string lastPart(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

std::string pathOf(int fd)
{
    std::array<char, 4096> path;
    const ssize_t length = ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size());
    return std::string(path.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
}

// Which file was made without a name, and the name that it got then.
ino_t namedLater = 0;
std::string laterName;

std::string nameOf(int fd)
{
    struct stat status;
    const std::string path = pathOf(fd);
    if (path.find("/#") == std::string::npos) {
        return lastPart(path);
    }
    return ::fstat(fd, &status) == 0 && status.st_ino == namedLater ? laterName : "unnamed";
}

bool isOfSystem(int fd)
{
    const std::string path = pathOf(fd);
    return path.starts_with("/sys/") || path.starts_with("/proc/");
}

// Whether the call has to fail.
bool act(const std::string& action)
{
    static std::atomic_flag isDone;
    if (action.starts_with("fail")) {
        errno = action == "fail" ? EIO : std::stoi(action.substr(5));
        return true;
    }
    const bool isEach = action.starts_with("each ");
    if (!isEach && isDone.test_and_set()) {
        return false;
    }
    std::istringstream words(action);
    int signal = 0;
    while (words >> signal) {
        std::raise(signal);
    }
    ::unsetenv("LD_PRELOAD");
    if (signal == 0 && std::system(action.c_str() + (isEach ? 5 : 0)) != 0) {
        std::abort();
    }
    return false;
}

bool isOneOf(const char* names, const std::string& name)
{
    std::istringstream list(names);
    for (std::string each; std::getline(list, each, ',');) {
        if (each == name) {
            return true;
        }
    }
    return false;
}

int timesCalled(const std::string& call)
{
    static std::mutex mutex;
    static std::map<std::string, int> times;
    const std::scoped_lock lock(mutex);
    return ++times[call];
}

std::string toldRange(off64_t offset, off64_t length)
{
    std::ostringstream range;
    if (std::getenv("SHIM_RANGES") != nullptr) {
        range << ' ' << offset << ' ' << length;
    }
    return range.str();
}

bool note(const std::string& call, const std::string& range = {})
{
    static std::atomic<int> count = 0;
    if (const char* const path = std::getenv("SHIM_LOG")) {
        const auto fd = static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND, 0600));
        const std::string line = call + range + "\n";
        ::syscall(SYS_write, fd, line.data(), line.size());
        ::syscall(SYS_close, fd);
    }
    const char* const at = std::getenv("SHIM_AT");
    const std::string number = std::to_string(++count);
    const std::string nth = call + "#" + std::to_string(timesCalled(call));
    const bool isDue = at != nullptr && (isOneOf(at, number) || isOneOf(at, call) || isOneOf(at, nth));
    return isDue && act(std::getenv("SHIM_DO"));
}

// A name of the user's, or one in a directory that was opened: not what the system itself keeps in files.
bool noteName(const std::string& call, const char* path)
{
    const std::string name = path;
    const std::string open = "/proc/self/fd/";
    const bool isOfUser = !name.starts_with('/') || (name.starts_with(open) && name.rfind('/') >= open.size());
    return isOfUser && note(call + lastPart(name));
}

bool makesFile(int flags)
{
    return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

} // namespace

extern "C" {

ssize_t pread64(int fd, void* buffer, size_t length, off64_t offset)
{
    return !isOfSystem(fd) && note((length > PAGE ? "read " : "pread ") + nameOf(fd))
        ? -1
        : next("pread64", pread64)(fd, buffer, length, offset);
}

ssize_t pwrite64(int fd, const void* buffer, size_t length, off64_t offset)
{
    const std::string range = toldRange(offset, static_cast<off64_t>(length));
    return note("pwrite " + nameOf(fd), range) ? -1 : next("pwrite64", pwrite64)(fd, buffer, length, offset);
}

void* mmap64(void* address, size_t length, int protection, int flags, int fd, off64_t offset) noexcept
{
    return fd >= 0 && note("read " + nameOf(fd))
        ? MAP_FAILED
        : next("mmap64", mmap64)(address, length, protection, flags, fd, offset);
}

// What has been brought in may go away again afterwards.
int madvise(void* address, size_t length, int advice) noexcept
{
    const bool fails = advice == MADV_POPULATE_READ && note("populate -");
    const int result = fails ? -1 : next("madvise", madvise)(address, length, advice);
    if (advice == MADV_POPULATE_READ) {
        note("populated -");
    }
    return result;
}

int fsync(int fd)
{
    const bool fails = note("fsync " + nameOf(fd));
    const int result = fails ? -1 : next("fsync", fsync)(fd);
    const int error = errno;
    note("fsynced " + nameOf(fd));
    errno = error;
    return result;
}

int sync_file_range(int fd, off64_t offset, off64_t length, unsigned flags)
{
    const bool isAwaited = (flags & SYNC_FILE_RANGE_WAIT_AFTER) != 0;
    return isAwaited && note("await " + nameOf(fd), toldRange(offset, length))
        ? -1
        : next("sync_file_range", sync_file_range)(fd, offset, length, flags);
}

int ftruncate64(int fd, off64_t length) noexcept
{
    return note("ftruncate " + nameOf(fd)) ? -1 : next("ftruncate64", ftruncate64)(fd, length);
}

int fallocate64(int fd, int mode, off64_t offset, off64_t length)
{
    return note("fallocate " + nameOf(fd), toldRange(offset, length))
        ? -1
        : next("fallocate64", fallocate64)(fd, mode, offset, length);
}

int open64(const char* path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = makesFile(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if ((flags & O_TMPFILE) == O_TMPFILE && std::getenv("SHIM_NAMED") != nullptr) {
        errno = EOPNOTSUPP;
        return -1;
    }
    const char* const boot = std::getenv("SHIM_BOOT");
    const bool asksForBoot = boot != nullptr && std::strcmp(path, "/proc/sys/kernel/random/boot_id") == 0;
    return noteName("open ", path) ? -1 : next("open64", open64)(asksForBoot ? boot : path, flags, mode);
}

int openat64(int directory, const char* path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = makesFile(flags) ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return noteName("open ", path) ? -1 : next("openat64", openat64)(directory, path, flags, mode);
}

int unlink(const char* path) noexcept
{
    return noteName("unlink ", path) ? -1 : next("unlink", unlink)(path);
}

int linkat(int fromDirectory, const char* from, int toDirectory, const char* to, int flags) noexcept
{
    struct stat status;
    if (noteName("link ", to)) {
        return -1;
    }
    if (::stat(from, &status) == 0) {
        laterName = lastPart(to);
        namedLater = status.st_ino;
    }
    return next("linkat", linkat)(fromDirectory, from, toDirectory, to, flags);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept
{
    constexpr std::int64_t SECOND = 1'000'000'000;
    static const char* const factor = std::getenv("SHIM_CLOCK");
    static const char* const late = std::getenv("SHIM_LATE");
    static std::atomic<std::int64_t> start = 0;
    const int result = next("clock_gettime", clock_gettime)(clock, time);
    if (factor != nullptr && clock == CLOCK_MONOTONIC) {
        const std::int64_t now = time->tv_sec * SECOND + time->tv_nsec;
        std::int64_t first = 0;
        first = start.compare_exchange_strong(first, now) ? now : first;
        static const char* const space = std::strchr(factor, ' ');
        const std::int64_t truly = std::min(now - first, space == nullptr ? 0 : std::atoi(space + 1) * SECOND);
        const std::int64_t shown = first + truly + (now - first - truly) * std::atoi(factor);
        time->tv_sec = shown / SECOND;
        time->tv_nsec = shown % SECOND;
    }
    if (late != nullptr && clock == CLOCK_REALTIME_COARSE) {
        time->tv_sec -= std::atoi(late);
    }
    return result;
}

// The same calls by their other names.
ssize_t pread(int, void*, size_t, off_t) __attribute__((alias("pread64")));
ssize_t pwrite(int, const void*, size_t, off_t) __attribute__((alias("pwrite64")));
int ftruncate(int, off_t) noexcept __attribute__((alias("ftruncate64")));
int open(const char*, int, ...) __attribute__((alias("open64")));

} // extern "C"

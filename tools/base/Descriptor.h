// An open file, closed with its owner.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>

namespace kelvane::tool {

class Descriptor {
public:
    Descriptor() = default; // none
    explicit Descriptor(int fd)
        : m_fd(fd)
    {
    }
    ~Descriptor() { reset(); }
    Descriptor(Descriptor&& other) noexcept
        : m_fd(std::exchange(other.m_fd, -1))
    {
    }
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        if (this != &other) {
            reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }

    // A path that leads to what is open here, whatever has its name meanwhile.
    std::string place() const { return "/proc/self/fd/" + std::to_string(m_fd); }

private:
    void reset()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }

    int m_fd = -1;
};

// What a link at the end of a path does. Where somebody else chooses the paths, it leads nowhere.
enum class AtLink { Follow, Refuse };

// Negative, with `errno` set, when it fails.
inline Descriptor openFile(const std::string& path, int flags, AtLink atLink = AtLink::Follow, mode_t mode = 0)
{
    return Descriptor(::open(path.c_str(), flags | O_CLOEXEC | (atLink == AtLink::Refuse ? O_NOFOLLOW : 0), mode));
}

// Opens what is open already in another way.
inline Descriptor openAgain(const Descriptor& file, int flags)
{
    return openFile(file.place(), flags);
}

// Which file it is, whatever it is called.
struct FileNumber {
    dev_t device;
    ino_t inode;

    bool operator==(const FileNumber&) const = default;
};

inline FileNumber numberOf(const struct stat& status)
{
    return {status.st_dev, status.st_ino};
}

// Whether a path leads to an open file, or to the device that it is.
inline bool leadsTo(const std::string& path, const Descriptor& file)
{
    struct stat own;
    struct stat there;
    return ::fstat(file.get(), &own) == 0 && ::stat(path.c_str(), &there) == 0
        && (S_ISBLK(own.st_mode) ? S_ISBLK(there.st_mode) && own.st_rdev == there.st_rdev
                                 : numberOf(own) == numberOf(there));
}

// Standard descriptors that are closed: no file may get their numbers, for what is meant for a user would end up in it.
// Reading input and writing output fail all the same. False, with `errno` set, when it fails.
inline bool occupyStandardDescriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        const bool isOpen = ::fcntl(fd, F_GETFD) >= 0;
        if (!isOpen && ::open("/dev/null", fd == STDOUT_FILENO ? O_RDONLY : O_WRONLY) != fd) {
            return false;
        }
    }
    return true;
}

} // namespace kelvane::tool

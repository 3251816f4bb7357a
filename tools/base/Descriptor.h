// An open file, closed with its owner.
#pragma once

#include <fcntl.h>
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

private:
    void reset()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }

    int m_fd = -1;
};

// Whether a link at the end of a path leads on, in the whole program.
inline bool followsLinks = true;

// Negative, with `errno` set, when it fails.
inline Descriptor openFile(const std::string& path, int flags, mode_t mode = 0)
{
    return Descriptor(::open(path.c_str(), flags | O_CLOEXEC | (followsLinks ? 0 : O_NOFOLLOW), mode));
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

#include "file/PosixFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace kelvane::posix {

namespace {

// The system's error numbers, whose texts are the numbers.
class ErrorNumbers : public std::error_category {
public:
    const char* name() const noexcept override { return "errno"; }
    std::string message(int error) const override { return std::to_string(error); }
    std::error_condition default_error_condition(int error) const noexcept override
    {
        return std::generic_category().default_error_condition(error);
    }
};

const ErrorNumbers ERROR_NUMBERS;

template <class Call>
auto retryInterrupted(Call call)
{
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) {
            return result;
        }
    }
}

// `call(moved)` moves bytes from position `moved` of the transfer on.
template <class Call>
Transfer complete(std::size_t length, Call call)
{
    Transfer transfer = {0, false};
    while (transfer.moved < length) {
        const ssize_t count = retryInterrupted([&] { return call(transfer.moved); });
        if (count <= 0) {
            transfer.failed = count < 0;
            break;
        }
        transfer.moved += static_cast<std::size_t>(count);
    }
    return transfer;
}

} // namespace

std::system_error failure(int error, std::string_view message)
{
    return {std::error_code(error, ERROR_NUMBERS), std::string(message)};
}

int open(const std::string& path, int flags, mode_t mode)
{
    return retryInterrupted([&] { return ::open(path.c_str(), flags, mode); });
}

int close(int fd)
{
    return ::close(fd);
}

int stat(const std::string& path, struct stat& result)
{
    return ::stat(path.c_str(), &result);
}

off_t seek(int fd, off_t offset, int whence)
{
    return ::lseek64(fd, offset, whence);
}

int unlink(const std::string& path)
{
    return ::unlink(path.c_str());
}

int fsync(int fd)
{
    return retryInterrupted([&] { return ::fsync(fd); });
}

int truncate(int fd, std::uint64_t size)
{
    return retryInterrupted([&] { return ::ftruncate(fd, static_cast<off_t>(size)); });
}

int syncFileRange(int fd, off_t offset, off_t length)
{
    constexpr unsigned FLAGS = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    return retryInterrupted([&] { return ::sync_file_range(fd, offset, length, FLAGS); });
}

Transfer readAt(int fd, void* buffer, std::size_t length, off_t offset)
{
    return complete(length, [&](std::size_t moved) {
        return ::pread(fd, static_cast<char*>(buffer) + moved, length - moved, offset + static_cast<off_t>(moved));
    });
}

Transfer writeAt(int fd, const void* buffer, std::size_t length, off_t offset)
{
    return complete(length, [&](std::size_t moved) {
        return ::pwrite(fd, static_cast<const char*>(buffer) + moved, length - moved,
                        offset + static_cast<off_t>(moved));
    });
}

ssize_t writeOnce(int fd, const void* buffer, std::size_t length)
{
    return ::write(fd, buffer, length);
}

} // namespace kelvane::posix

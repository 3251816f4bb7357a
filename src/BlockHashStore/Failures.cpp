#include <cerrno>
#include <charconv>
#include <exception>

#include "BlockHashStore/Internals.h"
#include "file/PosixFile.h"
#include "log/LogLine.h"

namespace kelvane {

void BlockHashStore::throwWithErrno(const std::string& message)
{
    const int error = errno;
    if (std::uncaught_exceptions() == 0) {
        throw posix::failure(error, message);
    }
    logLine(KELVANE_ERROR) << message << ": " << error;
}

// `errno` must not change while the message is put together: allocations may set it, even those that succeed.
void BlockHashStore::throwWithErrno(std::string_view message, std::string_view value)
{
    const int error = errno;
    const std::string text = std::string(message).append(value);
    errno = error;
    throwWithErrno(text);
}

void BlockHashStore::failWithErrno(std::string_view message, std::string_view value)
{
    throwWithErrno(message, value);
    throw GivenUp();
}

void BlockHashStore::failWithErrno(std::string_view message, kelvane_ssize_t value)
{
    std::array<char, std::numeric_limits<kelvane_ssize_t>::digits10 + 2> digits; // and a sign
    const auto end = std::to_chars(digits.begin(), digits.end(), value).ptr;
    failWithErrno(message, std::string_view(digits.begin(), end));
}

} // namespace kelvane

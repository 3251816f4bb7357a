#include <cerrno>
#include <exception>
#include <stdexcept>

#include "BlockHashStore/Internals.h"
#include "Logger.h"

namespace kelvane {

thread_local uint64_t FailureWatch::s_givenUp = 0;

void BlockHashStore::throwWithErrno(const std::string& message)
{
    const int error = errno;
    const std::string text = message + ": " + std::to_string(error);
    if (std::uncaught_exceptions() == 0) {
        throw std::runtime_error(text);
    }
    Logger(KELVANE_ERROR, "Failures.cpp", __LINE__, __func__) << text;
}

// `errno` must not change while the message is put together: allocations may set it, even those that succeed.
void BlockHashStore::throwWithErrno(const char* message, const std::string& value)
{
    const int error = errno;
    const std::string text = message + value;
    errno = error;
    throwWithErrno(text);
}

// As throwWithErrno, for failures after which the operation has nothing to go on with: where it returns, so must the
// operation.
void BlockHashStore::failWithErrno(const char* message, const std::string& value)
{
    throwWithErrno(message, value);
    FailureWatch::noteGivenUp();
}

void BlockHashStore::failWithErrno(const char* message, kelvane_ssize_t value)
{
    const int error = errno;
    const std::string text = std::to_string(value);
    errno = error;
    failWithErrno(message, text);
}

} // namespace kelvane

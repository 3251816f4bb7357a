// What ends a command: one line that names the file, where in it, and why.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>

namespace kelvane::tool {

class Failure : public std::runtime_error {
public:
    Failure(const std::string& file, const std::string& cause)
        : std::runtime_error(file + ": " + cause)
    {
    }

    Failure(const std::string& file, std::int64_t offset, const std::string& cause)
        : std::runtime_error(file + ": at offset " + std::to_string(offset) + ": " + cause)
    {
    }
};

inline std::string errorText(int error)
{
    return std::strerror(error);
}

} // namespace kelvane::tool

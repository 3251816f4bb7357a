// The content of small files, of the system's for instance.
#pragma once

#include <cerrno>
#include <cstddef>
#include <optional>
#include <string>

#include "base/Descriptor.h"

namespace kelvane::tool {

// From a file's first byte on, at most so many bytes; nothing, with `errno` set, when it cannot be read.
inline std::optional<std::string> contentOf(const Descriptor& file, std::size_t most)
{
    std::string content(most, '\0');
    std::size_t done = 0;
    while (done < most) {
        const ssize_t count = ::pread(file.get(), content.data() + done, most - done, static_cast<off_t>(done));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        done += static_cast<std::size_t>(count);
    }
    content.resize(done);
    return content;
}

// Of a file of the system, without its line end; empty when there is none.
inline std::string lineIn(const std::string& path)
{
    constexpr std::size_t LONGEST = 4096;
    std::string content = contentOf(openFile(path, O_RDONLY), LONGEST).value_or("");
    return content.erase(content.find_last_not_of('\n') + 1);
}

} // namespace kelvane::tool

// Log lines of the library's own.
#pragma once

#include <source_location>
#include <string_view>

#include "Logger.h"

namespace kelvane {

// A line that names the source file and line of the call; `function` is the caller's __func__.
inline Logger logLine(log_level_t level, std::string_view function,
                      const std::source_location& place = std::source_location::current())
{
    const std::string_view path = place.file_name();
    return Logger(level, path.substr(path.rfind('/') + 1), static_cast<int>(place.line()), function);
}

} // namespace kelvane

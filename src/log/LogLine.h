// Log lines of the library's own.
#pragma once

#include <string_view>

#include "Logger.h"

namespace kelvane {

// A line that names the source file, line and function of the call.
inline Logger logLine(log_level_t level, std::string_view path = __builtin_FILE(), int line = __builtin_LINE(),
                      std::string_view function = __builtin_FUNCTION())
{
    return Logger(level, path.substr(path.rfind('/') + 1), line, function);
}

} // namespace kelvane

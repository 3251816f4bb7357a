// What people, or programs, see of a command while it works, on standard error: notes, each a line; progress, as a line
// that is drawn again and again, as lines of JSON, or not at all.
#pragma once

#include <memory>

#include "base/Reporter.h"

namespace kelvane::tool {

enum class ProgressMode { Automatic, None, Json };

// Automatic draws when standard error is a terminal.
std::unique_ptr<Reporter> standardError(ProgressMode mode);

} // namespace kelvane::tool

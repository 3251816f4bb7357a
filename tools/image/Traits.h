// Named values that are compared, and written down to be compared later.
#pragma once

#include <map>
#include <string>

namespace kelvane::tool {

using Traits = std::map<std::string, std::string>;

} // namespace kelvane::tool

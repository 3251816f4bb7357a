// Lists of changed ranges in JSON.
#pragma once

#include <string>

#include "lists/RangeList.h"

namespace kelvane::tool {

RangeList parseJsonList(const std::string& text, const std::string& source, ListFormat format, MapEntries entries);

} // namespace kelvane::tool

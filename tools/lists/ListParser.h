// Reads the lists of changed ranges that other programs print.
#pragma once

#include <string>

#include "lists/RangeList.h"

namespace kelvane::tool {

// Offsets and lengths are not negative, and their sums no overflow. A Failure names the source, and the line or the
// entry, counted from 1; also for a list of a `diff` that was undecided, and for lines of which the last has no end.
RangeList parseRangeList(const std::string& text, const std::string& source, const ListOptions& options);

} // namespace kelvane::tool

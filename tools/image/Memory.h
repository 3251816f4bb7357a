// What the system holds in memory of a file, which is not what its disk holds once a write of it has failed.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "base/Descriptor.h"
#include "base/Range.h"

namespace kelvane::tool {

// Makes the next readings come from the disk. False when a part stays in memory, for another program has it
// mapped.
bool dropFromMemory(const Descriptor& file);

// How many of the pages of a range are in memory; nothing where that cannot be told.
std::optional<std::int64_t> pagesInMemory(const Descriptor& file, Range range);

// Which pages of a range, which begins with one, are in memory.
std::vector<bool> residentPages(const Descriptor& file, Range range);

} // namespace kelvane::tool

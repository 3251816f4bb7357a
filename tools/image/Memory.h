// What the system holds in memory of a file, which is not what its disk holds once a write of it has failed.
#pragma once

#include "base/Descriptor.h"

namespace kelvane::tool {

// Makes the next readings come from the disk. False when a part stays in memory, for another program has it mapped.
bool dropFromMemory(const Descriptor& file);

} // namespace kelvane::tool

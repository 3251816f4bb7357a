// What is known of a file system.
#pragma once

#include "base/Descriptor.h"

namespace kelvane::tool {

// Whether every change of a file leaves a stamp of this machine's clock once it is flushed, those by mappings, too, and
// what is mapped is what is read. Not where the file system is not known to work so: in memory, over a network, in user
// space, or put together from several others.
bool isStampingFileSystem(const Descriptor& file);

} // namespace kelvane::tool

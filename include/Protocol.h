// The type of positions on the device that holds a target.
#pragma once

#include "Types.h"

namespace kelvane {

using kelvane_off_t = kelvane_ssize_t; // an offset in bytes

} // namespace kelvane

// What data is cut into on its way, and put together from.
#pragma once

#include <cstdint>

#include "base/Range.h"
#include "remote/Channel.h"
#include "work/Side.h"

namespace kelvane::tool {

struct DataForm {
    std::int64_t blockSize = 1;
    std::int64_t end = 0; // of what is compared: the last block may be a part of one
    std::uint32_t compression = 0;
};

// Whether a range is of whole blocks, or lies in one: all others could be more than a receiver has room for.
bool isOnePiece(Range range, const DataForm& form);

// In as many pieces as that takes; where the bandwidth is limited, in shorter ones, so that none takes long.
void sendStretch(Channel& channel, const Stretch& stretch, const DataForm& form);

} // namespace kelvane::tool

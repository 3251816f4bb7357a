// Takes data in while what came before is written.
#pragma once

#include <functional>

#include "remote/Channel.h"
#include "remote/Data.h"

namespace kelvane::tool {

// `receive` runs on a thread of its own, which alone uses the channel meanwhile, and gives everything to `deliver`;
// `write` gets that here, some behind. What either of them fails with comes out.
using Deliver = std::function<void(ReceivedPiece received)>;
void transfer(Channel& channel, const std::function<void(const Deliver& deliver)>& receive,
              const std::function<void(const Piece& piece)>& write);

} // namespace kelvane::tool

// Takes pieces in while those that came before are worked on.
#pragma once

#include <functional>

#include "work/Piece.h"

namespace kelvane::tool {

// `produce` runs on a thread of its own, and gives all pieces to its sink; `consume` gets them here, some behind. What
// either of them fails with comes out. After a failure of `consume`, `stop` is to make `produce` end soon, where it
// waits for something else than its sink.
void pump(
    const std::function<void(const Sink& sink)>& produce, const Sink& consume,
    const std::function<void()>& stop = [] {});

} // namespace kelvane::tool

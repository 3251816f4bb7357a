// Data of an image on its way.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "base/Range.h"
#include "hash_file/Digests.h"

namespace kelvane::tool {

// None is longer than this, but for zeros.
constexpr std::int64_t LONGEST_PIECE = 1 << 20;

struct Piece {
    Range range = {};
    const char* data = nullptr; // of zeros: none

    // Of its whole blocks, as they were computed from the data, where the piece begins with one and is not of zeros;
    // may be missing.
    DigestBytes digests = {};

    std::shared_ptr<const void> memory = {}; // in which the data is
};

// Takes pieces in ascending order.
using Sink = std::function<void(Piece piece)>;

} // namespace kelvane::tool

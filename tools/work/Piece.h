// Data of an image on its way.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "base/Range.h"
#include "hash_file/Store.h"

namespace kelvane::tool {

// Pieces come in ascending order, and none is longer than this, but for zeros, whose data is null.
constexpr std::int64_t LONGEST_PIECE = 1 << 20;

struct Piece {
    Range range = {};
    const char* data = nullptr;

    // The digests of its blocks, one behind the other, as they were computed from the data; may be empty.
    DigestBytes digests = {};

    std::shared_ptr<const void> memory = {}; // in which the data is
};

using Sink = std::function<void(Piece piece)>;

} // namespace kelvane::tool

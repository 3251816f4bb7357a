// Data of an image on its way.
#pragma once

#include <cstdint>
#include <functional>

#include "base/Range.h"
#include "hash_file/Store.h"

namespace kelvane::tool {

// Pieces come in ascending order, and none is longer than this, but for zeros, whose data is null.
constexpr std::int64_t LONGEST_PIECE = 1 << 20;

struct Piece {
    Range range;
    const char* data;
    Digest digest = {}; // the hash of the hashes of its blocks, as the giver knows them; may be empty
};

using Sink = std::function<void(const Piece& piece)>;

} // namespace kelvane::tool

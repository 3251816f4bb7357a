// The hashes of blocks, as the library computes them.
#pragma once

#include <cstdint>
#include <kelvane/BlockHashStore.h>
#include <vector>

#include "base/Range.h"

namespace kelvane::tool {

using Digest = BlockHashStore::HashValue;

// The digests of consecutive blocks, one behind the other; of blocks of zeros, none.
using DigestBytes = std::vector<unsigned char>;

// Of the data of whole blocks.
DigestBytes digestsOf(const char* data, std::int64_t length, std::int64_t blockSize);

// Those of some of the blocks.
DigestBytes digestsOfPart(const DigestBytes& digests, Range blocks, Range part, std::int64_t blockSize);

// The aggregate hash of blocks that are not of zeros.
Digest digestOfDigests(const DigestBytes& digests);

// Of a message.
Digest digestOf(const char* data, std::int64_t length);

} // namespace kelvane::tool

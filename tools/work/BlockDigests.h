// The digests of blocks whose data comes in pieces.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "base/Range.h"
#include "work/Piece.h"

namespace kelvane::tool {

// For pieces that ascend. Takes no memory for blocks that are larger than a piece.
class BlockDigests {
public:
    // Is told of whole blocks once their digests are there; of zeros, without: the range is all that there is to say.
    using Told = std::function<void(Range blocks, const DigestBytes& digests)>;

    BlockDigests(std::int64_t blockSize, Told told);
    ~BlockDigests();

    // A block whose pieces do not all come is not told of.
    void add(const Piece& piece);

private:
    class Block;

    void addToBlock(Range range, const char* data);

    std::int64_t m_blockSize;
    Told m_told;
    std::unique_ptr<Block> m_block; // of which a part has come
};

} // namespace kelvane::tool

// Writes data to an image so that no crash leaves a hash of bytes that are not there.
#pragma once

#include <memory>
#include <vector>

#include "base/Range.h"
#include "base/Reporter.h"
#include "image/Image.h"
#include "work/HashedImage.h"
#include "work/Piece.h"

namespace kelvane::tool {

// In batches: the hashes of a batch are forgotten on the disk before it is written, and stored after it is on the disk.
class Copier {
public:
    // `isSparse`: zeros become holes.
    Copier(Image& destination, HashedImage& hashed, bool isSparse);

    bool isSparse() const { return m_isSparse; }

    // Ascending ranges, cut anywhere, together whole blocks but for the image's end; null is zeros. Fails when they are
    // not, and would not fit.
    void write(Range range, const char* data);

    // The rest, too. To be called between whole blocks.
    void flush();

    // Makes that possible when the data has ended within a block.
    void dropPartOfBlock();

    // Writes zeros wherever the image has a hole, which leaves its hashes true. To be called with nothing left to be
    // flushed.
    void fillHoles(Phase& phase);

    // All batches together.
    const OwnChange& ownChange() const { return m_ownChange; }

private:
    Range firstOf(Range range) const;
    bool isOfWholeBlocks(Range range) const;
    void makeRoom(Range range);
    void addZeros(Range range);
    void addBytes(Range range, const char* data);
    void addChange(const OwnChange& change);
    std::vector<Range> takeHoles(Range& rest) const;
    void put(const Piece& piece);
    bool isThere(const Piece& piece) const;
    void putZeros(Range range);

    Image& m_destination;
    HashedImage& m_hashed;
    bool m_isSparse;
    std::int64_t m_blockSize;
    std::int64_t m_room;
    std::unique_ptr<char[]> m_buffer;
    std::vector<Piece> m_batch;
    std::int64_t m_taken = 0; // of the room
    OwnChange m_ownChange;
};

} // namespace kelvane::tool

#include "remote/Pieces.h"

#include <algorithm>
#include <limits>

#include "remote/Messages.h"

namespace kelvane::tool {

namespace {

std::int64_t longestPiece(const Channel& channel, const Stretch& stretch)
{
    const bool isLimited = stretch.data != nullptr && channel.bytesPerSecond() > 0;
    return isLimited ? channel.bytesPerSecond() : std::numeric_limits<std::int64_t>::max();
}

// The first piece of a range.
Range firstPiece(Range range, const DataForm& form, std::int64_t longest)
{
    const std::int64_t before = range.offset % form.blockSize; // bytes of its block
    if (before != 0 || range.length < form.blockSize) {
        return {range.offset, std::min({range.length, form.blockSize - before, longest})};
    }
    const bool isLast = range.end() == form.end && range.length <= longest;
    return {range.offset,
            isLast ? range.length
                   : std::max(form.blockSize, roundDown(std::min(range.length, longest), form.blockSize))};
}

} // namespace

bool isOnePiece(Range range, const DataForm& form)
{
    const bool endsWhole = range.end() % form.blockSize == 0 || range.end() == form.end;
    return (range.offset % form.blockSize == 0 && endsWhole)
        || range.offset / form.blockSize == (range.end() - 1) / form.blockSize;
}

void sendStretch(Channel& channel, const Stretch& stretch, const DataForm& form)
{
    const std::int64_t longest = longestPiece(channel, stretch);
    const bool isCut = firstPiece(stretch.range, form, longest).length < stretch.range.length;
    if (isCut && !stretch.digest.empty()) { // the pieces will have hashes of their own
        checkDigest(stretch.range, digestOfBlocks(stretch.data, stretch.range.length, form.blockSize), stretch.digest);
    }
    for (Range rest = stretch.range; rest.length > 0;) {
        const Range piece = firstPiece(rest, form, longest);
        const char* const data
            = stretch.data == nullptr ? nullptr : stretch.data + (piece.offset - stretch.range.offset);
        const Digest digest
            = isCut && !stretch.digest.empty() ? digestOfBlocks(data, piece.length, form.blockSize) : stretch.digest;
        const SentStretch sent({piece, data, digest}, form.compression, channel.pool());
        channel.send(FrameType::Data, {sent.fields(), sent.data()});
        rest = between(piece.end(), rest.end());
    }
}

} // namespace kelvane::tool

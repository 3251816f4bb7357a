#include "remote/Data.h"

#include <zstd.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <utility>

#include "remote/Wire.h"
#include "work/Pump.h"

namespace kelvane::tool {

namespace {

enum class Form : std::uint8_t { Zeros, Bytes, Compressed };

bool isOfWholeBlocks(Range range, std::int64_t blockSize)
{
    return range.offset % blockSize == 0 && range.length % blockSize == 0;
}

void checkDigest(Range range, const Digest& found, const Digest& told)
{
    if (found != told) {
        throw ProtocolError(
            "at offset " + std::to_string(range.offset)
            + ": the data has not the hash that it should have; was it changed, or damaged on the way?");
    }
}

std::int64_t longestPiece(const Channel& channel, const Piece& piece)
{
    const bool isLimited = piece.data != nullptr && channel.bytesPerSecond() > 0;
    return isLimited ? channel.bytesPerSecond() : std::numeric_limits<std::int64_t>::max();
}

// What of a range goes first.
Range firstOf(Range range, const DataForm& form, std::int64_t longest)
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

SentPiece::SentPiece(const Piece& piece, const DataForm& form, BytesPool& pool)
{
    m_fields.i64(piece.range.offset).i64(piece.range.length);
    if (piece.data == nullptr) {
        m_fields.u8(static_cast<std::uint8_t>(Form::Zeros));
        return;
    }
    m_data = {piece.data, static_cast<std::size_t>(piece.range.length)};
    const bool isOfBlocks = isOfWholeBlocks(piece.range, form.blockSize) && !piece.digests.empty();
    const Digest digest = isOfBlocks ? digestOfDigests(piece.digests) : digestOf(piece.data, piece.range.length);
    if (form.compression > 0) {
        compress(form.compression, pool);
    }
    m_fields.u8(static_cast<std::uint8_t>(m_data.data() == piece.data ? Form::Bytes : Form::Compressed));
    m_fields.flag(isOfBlocks).bytes(digest.data(), digest.size());
}

// Unless it takes more room then.
void SentPiece::compress(std::uint32_t level, BytesPool& pool)
{
    m_compressed = pool.take(ZSTD_compressBound(m_data.size()));
    const std::size_t size = ZSTD_compress(m_compressed.data(), m_compressed.size(), m_data.data(), m_data.size(),
                                           static_cast<int>(level));
    if (ZSTD_isError(size) == 0 && size < m_data.size()) {
        m_data = m_compressed.view().substr(0, size);
    }
}

void send(Channel& channel, const Piece& piece, const DataForm& form)
{
    const std::int64_t longest = longestPiece(channel, piece);
    const Range blocks = {piece.range.offset, roundDown(piece.range.length, form.blockSize)};
    for (Range rest = piece.range; rest.length > 0;) {
        const Range next = firstOf(rest, form, longest);
        Piece part = {next, piece.data == nullptr ? nullptr : piece.data + (next.offset - piece.range.offset), {}, {}};
        if (isOfWholeBlocks(next, form.blockSize)) {
            part.digests = digestsOfPart(piece.digests, blocks, next, form.blockSize);
        }
        const SentPiece sent(part, form, channel.pool());
        channel.send(FrameType::Data, {sent.fields(), sent.data()});
        rest = between(next.end(), rest.end());
    }
}

namespace {

Bytes decompressed(std::string_view data, Range range, BytesPool& pool)
{
    Bytes bytes = pool.take(static_cast<std::size_t>(range.length));
    if (ZSTD_decompress(bytes.data(), bytes.size(), data.data(), data.size()) != bytes.size()) {
        throw ProtocolError("compressed data is damaged");
    }
    return bytes;
}

// `isOfBlocks`: the hash is that of the blocks' hashes.
void check(Piece& piece, bool isOfBlocks, const Digest& digest, const DataForm& form)
{
    if (isOfBlocks && !isOfWholeBlocks(piece.range, form.blockSize)) {
        throw ProtocolError("hashes of blocks for a part of one");
    }
    if (isOfBlocks) {
        piece.digests = digestsOf(piece.data, piece.range.length, form.blockSize);
    }
    checkDigest(piece.range, isOfBlocks ? digestOfDigests(piece.digests) : digestOf(piece.data, piece.range.length),
                digest);
}

} // namespace

Piece receivedPiece(Bytes payload, std::int64_t start, const DataForm& form, BytesPool& pool)
{
    FieldReader from(payload.view());
    Piece piece = {from.range(form.end), nullptr, {}, {}};
    const auto kind = static_cast<Form>(atMost<int>(from.u8(), static_cast<int>(Form::Compressed), "form of data"));
    if (piece.range.offset < start || piece.range.length == 0
        || (kind != Form::Zeros && piece.range.length > LONGEST_PIECE)) {
        throw ProtocolError("data of a range that was not asked for");
    }
    if (!isOnePiece(piece.range, form)) {
        throw ProtocolError("data of parts of several blocks");
    }
    if (kind == Form::Zeros) {
        from.end();
        return piece;
    }
    const bool isOfBlocks = from.flag();
    const Digest digest = from.digest();
    std::string_view data = from.rest();
    auto memory = std::make_shared<Bytes>(kind == Form::Compressed ? decompressed(data, piece.range, pool)
                                                                   : std::move(payload));
    data = kind == Form::Compressed ? memory->view() : data;
    if (std::ssize(data) != piece.range.length) {
        throw ProtocolError("data of another length than told");
    }
    piece.data = data.data();
    piece.memory = std::move(memory);
    check(piece, isOfBlocks, digest, form);
    return piece;
}

void takeIn(Channel& channel, const std::function<void(const Sink& sink)>& receive, const Sink& consume)
{
    try {
        pump(receive, consume, [&] { channel.stopWaiting(true); });
    } catch (...) {
        channel.stopWaiting(false);
        throw;
    }
}

} // namespace kelvane::tool

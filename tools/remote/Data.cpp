#include "remote/Data.h"

#include <kelvane/BlakeHash.h>
#include <zstd.h>

#include <algorithm>
#include <limits>

#include "remote/Wire.h"

namespace kelvane::tool {

namespace {

enum class Form : std::uint8_t { Zeros, Bytes, Compressed };

Digest digestOf(const char* data, std::int64_t length)
{
    return BlakeHash().get_hash(const_cast<char*>(data), length); // which is only read
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

Digest digestOfBlocks(const char* data, std::int64_t length, std::int64_t blockSize)
{
    std::string digests;
    for (std::int64_t at = 0; at < length; at += blockSize) {
        const Digest digest = digestOf(data + at, blockSize);
        digests.append(digest.begin(), digest.end());
    }
    return digestOf(digests.data(), std::ssize(digests));
}

SentPiece::SentPiece(const Piece& piece, std::uint32_t compression, BytesPool& pool)
{
    m_fields.i64(piece.range.offset).i64(piece.range.length);
    if (piece.data == nullptr) {
        m_fields.u8(static_cast<std::uint8_t>(Form::Zeros));
        return;
    }
    m_data = {piece.data, static_cast<std::size_t>(piece.range.length)};
    const bool isOfBlocks = !piece.digest.empty();
    const Digest digest = isOfBlocks ? piece.digest : digestOf(piece.data, piece.range.length);
    if (compression > 0) {
        compress(compression, pool);
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
    const bool isCut = firstOf(piece.range, form, longest).length < piece.range.length;
    const bool hasDigest = !piece.digest.empty();
    if (isCut && hasDigest) { // the shorter ones will have hashes of their own
        checkDigest(piece.range, digestOfBlocks(piece.data, piece.range.length, form.blockSize), piece.digest);
    }
    for (Range rest = piece.range; rest.length > 0;) {
        const Range next = firstOf(rest, form, longest);
        const char* const data = piece.data == nullptr ? nullptr : piece.data + (next.offset - piece.range.offset);
        const Digest digest = isCut && hasDigest ? digestOfBlocks(data, next.length, form.blockSize) : piece.digest;
        const SentPiece sent({next, data, digest}, form.compression, channel.pool());
        channel.send(FrameType::Data, {sent.fields(), sent.data()});
        rest = between(next.end(), rest.end());
    }
}

ReceivedPiece ReceivedPiece::decode(Bytes payload, std::int64_t start, const DataForm& form, BytesPool& pool)
{
    FieldReader from(payload.view());
    ReceivedPiece received;
    received.range = from.range(form.end);
    const auto kind = static_cast<Form>(atMost<int>(from.u8(), static_cast<int>(Form::Compressed), "form of data"));
    received.isZeros = kind == Form::Zeros;
    if (received.range.offset < start || received.range.length == 0
        || (!received.isZeros && received.range.length > LONGEST_PIECE)) {
        throw ProtocolError("data of a range that was not asked for");
    }
    if (!isOnePiece(received.range, form)) {
        throw ProtocolError("data of parts of several blocks");
    }
    if (!received.isZeros) {
        received.isOfBlocks = from.flag();
        received.digest = from.digest();
        received.data = from.rest();
        received.memory = std::move(payload);
        if (kind == Form::Compressed) {
            received.decompress(pool);
        }
        received.check(form);
    }
    from.end();
    return received;
}

void ReceivedPiece::decompress(BytesPool& pool)
{
    Bytes bytes = pool.take(static_cast<std::size_t>(range.length));
    if (ZSTD_decompress(bytes.data(), bytes.size(), data.data(), data.size()) != bytes.size()) {
        throw ProtocolError("compressed data is damaged");
    }
    memory = std::move(bytes);
    data = memory.view();
}

void ReceivedPiece::check(const DataForm& form) const
{
    const bool isOfWholeBlocks = range.offset % form.blockSize == 0 && range.length % form.blockSize == 0;
    if (std::ssize(data) != range.length || (isOfBlocks && !isOfWholeBlocks)) {
        throw ProtocolError("data of another length than told");
    }
    checkDigest(range,
                isOfBlocks ? digestOfBlocks(data.data(), range.length, form.blockSize)
                           : digestOf(data.data(), range.length),
                digest);
}

} // namespace kelvane::tool

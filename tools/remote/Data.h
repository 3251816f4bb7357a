// Data between two machines: what it is cut into, how a piece is sent, and what is made of one that has come.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "base/Bytes.h"
#include "base/Range.h"
#include "remote/Channel.h"
#include "remote/Wire.h"
#include "work/Piece.h"

namespace kelvane::tool {

struct DataForm {
    std::int64_t blockSize = 1;
    std::int64_t end = 0; // of what is compared: the last block may be a part of one
    std::uint32_t compression = 0;
};

// Whether a range is of whole blocks, or lies in one: all others could be more than a receiver has room for.
bool isOnePiece(Range range, const DataForm& form);

// A piece on its way, perhaps compressed, with its hash.
class SentPiece {
public:
    // What is not compressed is lent by the piece.
    SentPiece(const Piece& piece, const DataForm& form, BytesPool& pool);

    std::string_view fields() const { return m_fields.done(); }
    std::string_view data() const { return m_data; }

private:
    void compress(std::uint32_t level, BytesPool& pool);

    FieldWriter m_fields;
    Bytes m_compressed;
    std::string_view m_data;
};

// In as many pieces as that takes; where the bandwidth is limited, in shorter ones, so that none takes long.
void send(Channel& channel, const Piece& piece, const DataForm& form);

// A piece between `start` and the form's end that has come, with the digests of its blocks where it has whole ones.
// Fails when the data is not what the hash says.
Piece receivedPiece(Bytes payload, std::int64_t start, const DataForm& form, BytesPool& pool);

// As `pump`, for pieces that come through a channel, which `receive` alone uses meanwhile.
void takeIn(Channel& channel, const std::function<void(const Sink& sink)>& receive, const Sink& consume);

} // namespace kelvane::tool

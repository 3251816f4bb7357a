// Data between two machines: what it is cut into, how a piece is sent, and what is made of one that has come.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/Range.h"
#include "remote/Channel.h"
#include "work/Piece.h"

namespace kelvane::tool {

struct DataForm {
    std::int64_t blockSize = 1;
    std::int64_t end = 0; // of what is compared: the last block may be a part of one
    std::uint32_t compression = 0;
};

// Whether a range is of whole blocks, or lies in one: all others could be more than a receiver has room for.
bool isOnePiece(Range range, const DataForm& form);

// The hash of the hashes of whole blocks.
Digest digestOfBlocks(const char* data, std::int64_t length, std::int64_t blockSize);

// Perhaps compressed, with its hash.
std::string encode(const Piece& piece, std::uint32_t compression);

// In as many pieces as that takes; where the bandwidth is limited, in shorter ones, so that none takes long.
void send(Channel& channel, const Piece& piece, const DataForm& form);

struct ReceivedPiece {
    Range range;
    bool isZeros = false;
    bool isOfBlocks = false; // the hash is that of its blocks' hashes
    Digest digest;
    std::string data;

    // Of one piece between `start` and the form's end. Fails when the data is not what the hash says.
    static ReceivedPiece decode(std::string_view payload, std::int64_t start, const DataForm& form);

    Piece piece() const { return {range, isZeros ? nullptr : data.data(), digest}; }
};

} // namespace kelvane::tool

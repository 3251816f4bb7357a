// What the frames carry, and what both sides make of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"
#include "image/Image.h"
#include "remote/Wire.h"
#include "work/Blocks.h"
#include "work/Side.h"

namespace kelvane::tool {

constexpr std::size_t LONGEST_TEXT = 1000; // of what one side tells people through the other one

struct Hello {
    static constexpr std::uint32_t MAGIC = 0x484b564b; // "KVKH"
    static constexpr std::uint32_t VERSION = 3;
    static constexpr std::uint32_t ZSTD = 1;

    std::uint32_t version = VERSION;
    std::uint32_t capabilities = ZSTD;
    std::uint32_t timeout = 60; // seconds without a sign of life

    std::string encode() const;
    static Hello decode(std::string_view payload); // fails when the other side speaks another version
};

struct Open {
    std::string path;
    std::string hashFile; // empty: the image's
    bool isDestination = false;
    bool adopts = false;
    Trust trust = Trust::Record;
    Cache cache = Cache::LeaveAsFound;
    std::uint32_t jobs = 0; // 0: as many as the machine has cores
    std::optional<std::int64_t> partitionOffset;
    std::uint32_t compression = 0; // level of zstd, 0: none
    std::int64_t bytesPerSecond = 0;

    std::string encode() const;
    static Open decode(std::string_view payload);
};

std::string encode(const Opening& opening);
Opening decodeOpening(std::string_view payload);

struct StartSide {
    Start start;
    bool isFirst = false; // see HashedSide::start

    std::string encode() const;
    static StartSide decode(std::string_view payload);
};

std::string encode(const Started& started);
Started decodeStarted(std::string_view payload);

struct AskNodes {
    Nodes nodes;
    bool mayBeLast = false; // the answer says how the image was found, as `Concluded` does

    std::string encode() const;
    static AskNodes decode(std::string_view payload);
};

struct AskBytes {
    Range range;
    std::int64_t unit;

    std::string encode() const;
    static AskBytes decode(std::string_view payload); // at most StartedSide::MOST_NODES units
};

void encode(FieldWriter& to, const Conclusion& conclusion);
Conclusion decodeConclusion(FieldReader& from);

// A flag, and what was concluded when it is set.
void encode(FieldWriter& to, const std::optional<Conclusion>& conclusion);
std::optional<Conclusion> decodeOptionalConclusion(FieldReader& from);

struct Digests {
    std::vector<Digest> digests;
    std::optional<Conclusion> conclusion;

    std::string encode() const;
    static Digests decode(std::string_view payload);
};

// What is to be read, or will be written.
struct Ranges {
    static constexpr std::size_t MOST = 1 << 12;

    std::vector<Range> ranges;
    bool isLast = false; // no more will come; the answer to what was read says then how the image was found

    std::string encode() const;
    static Ranges decode(std::string_view payload, std::int64_t size); // ascending, inside an image
};

std::string encodeStartWriting(bool isSparse);
bool decodeStartWriting(std::string_view payload); // whether it is sparse

struct Written {
    OwnChange change;
    std::optional<Conclusion> conclusion;

    std::string encode() const;
    static Written decode(std::string_view payload);
};

} // namespace kelvane::tool

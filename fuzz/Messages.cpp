#include "Messages.h"

#include <sys/socket.h>

#include <array>
#include <functional>
#include <kelvane/BlakeHash.h>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/Failure.h"
#include "lists/ListParser.h"
#include "remote/Channel.h"
#include "remote/Data.h"
#include "remote/Messages.h"

namespace kelvane::testing {

using namespace tool;

namespace {

constexpr std::int64_t SIZE = 1 << 30;
constexpr std::int64_t BLOCK = 4096;
constexpr std::size_t HEADER = 13;
constexpr std::size_t LONGEST_STREAM = 1 << 16; // what the line takes at once
constexpr std::size_t MOST_PIECES = 16;

void require(bool condition, const char* what)
{
    if (!condition) {
        throw std::logic_error(what);
    }
}

// What is understood can be said in one way only.
template <class Decode>
std::function<void(const std::string&)> thereAndBack(Decode decode)
{
    return [decode](const std::string& text) {
        const auto message = decode(text);
        if constexpr (requires { message.encode(); }) {
            require(message.encode() == text, "a message comes out otherwise");
        } else {
            require(encode(message) == text, "a message comes out otherwise");
        }
    };
}

// The same for what is a part of a message.
template <class Decode, class Encode>
std::function<void(const std::string&)> partThereAndBack(Decode decode, Encode encode)
{
    return [decode, encode](const std::string& text) {
        FieldReader from(text);
        const auto part = decode(from);
        from.end();
        FieldWriter to;
        encode(to, part);
        require(to.done() == text, "a part of a message comes out otherwise");
    };
}

void checkPiece(const std::string& text)
{
    const DataForm form = {BLOCK, SIZE};
    const auto pool = std::make_shared<BytesPool>(Channel::LARGEST_FRAME);
    Bytes payload = pool->take(text.size());
    std::memcpy(payload.data(), text.data(), text.size());
    const Piece piece = receivedPiece(std::move(payload), BLOCK, form, *pool);
    require(piece.range.offset >= BLOCK && piece.range.length > 0 && piece.range.end() <= SIZE,
            "data outside of what was asked for");
    require(isOnePiece(piece.range, form), "data of parts of several blocks");
    require(piece.data != nullptr || piece.memory == nullptr, "memory for zeros");
}

void checkList(const std::string& text, std::optional<ListFormat> format)
{
    const RangeList list = parseRangeList(text, "list", {format, MapEntries::All, BLOCK});
    for (const auto& [range, number] : list.entries) {
        require(range.offset >= 0 && range.length >= 0 && range.end() >= range.offset && number > 0,
                "an impossible range");
    }
    if (list.format == ListFormat::Lines) {
        std::istringstream lines(text);
        std::size_t ranges = 0;
        for (std::string line; std::getline(lines, line);) {
            require(!lines.eof() && !line.starts_with("# undecided"), "a list of which a part may be missing");
            ranges += line.empty() || line[0] == '#' ? 0 : 1;
        }
        require(list.entries.size() == ranges, "a line is lost");
    }
}

// The first frame's is part of a hash, the others' is CRC-32C, bit by bit.
std::uint32_t checkOf(std::string bytes, std::int64_t number)
{
    if (number == 0) {
        const Digest digest = BlakeHash().get_hash(bytes.data(), std::ssize(bytes));
        return FieldReader({reinterpret_cast<const char*>(digest.data()), digest.size()}).u32();
    }
    std::uint32_t crc = ~0U;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int i = 0; i < 8; ++i) {
            crc = crc >> 1 ^ (crc % 2 == 1 ? 0x82f63b78U : 0U);
        }
    }
    return ~crc;
}

std::string headerOf(std::uint32_t length, std::uint8_t type, std::uint32_t check, std::int64_t number)
{
    FieldWriter header;
    header.u32(length).u8(type).u32(check);
    return header.u32(checkOf(FieldWriter(header).i64(number).done(), number)).done();
}

// The frames that a side takes from the line until that is closed, but for the signs of life, and whether they end
// with what is none.
struct Heard {
    std::vector<std::pair<int, std::string>> frames;
    bool isBroken = false;

    bool operator==(const Heard&) const = default;
};

// As the document of the protocol has it.
Heard expectedOf(const std::string& stream)
{
    Heard heard;
    std::size_t at = 0;
    for (std::int64_t number = 0; stream.size() - at >= HEADER; ++number) {
        const std::string header = stream.substr(at, HEADER);
        FieldReader fields(header);
        const std::uint32_t length = fields.u32();
        const std::uint8_t type = fields.u8();
        const std::uint32_t check = fields.u32();
        heard.isBroken = header != headerOf(length, type, check, number) || length > Channel::LARGEST_FRAME || type == 0
            || type > static_cast<std::uint8_t>(FrameType::Announce);
        if (heard.isBroken || stream.size() - at - HEADER < length) {
            break;
        }
        const std::string payload = stream.substr(at + HEADER, length);
        const bool isAlive = type == static_cast<std::uint8_t>(FrameType::Alive);
        heard.isBroken = checkOf(payload, number) != check || (isAlive && length > 0);
        if (heard.isBroken) {
            break;
        }
        if (!isAlive) {
            heard.frames.emplace_back(type, payload);
        }
        at += HEADER + length;
    }
    return heard;
}

// A line that keeps the pieces apart which it was given.
Heard heardOf(const std::string& stream, std::size_t pieces)
{
    std::array<int, 2> ends = {};
    require(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) == 0, "no line");
    Channel channel(Descriptor(ends[0]), openFile("/dev/null", O_WRONLY), "the other side");
    {
        const Descriptor peer(ends[1]);
        const std::size_t size = stream.size() / pieces + 1;
        for (std::size_t at = 0; at < stream.size(); at += size) {
            const std::string piece = stream.substr(at, size);
            require(::write(peer.get(), piece.data(), piece.size()) == std::ssize(piece), "the line is full");
        }
    }
    Heard heard;
    try {
        for (;;) {
            Frame frame = channel.receive();
            heard.frames.emplace_back(static_cast<int>(frame.type), frame.payload.view());
        }
    } catch (const ChannelClosed&) {
        return heard;
    } catch (const ProtocolError&) {
        heard.isBroken = true;
        return heard;
    }
}

void checkStream(const std::string& text)
{
    const std::string stream = text.substr(0, LONGEST_STREAM);
    const Heard expected = expectedOf(stream);
    for (const std::size_t pieces : {std::size_t(1), 2 + stream.size() % (MOST_PIECES - 1)}) {
        require(heardOf(stream, pieces) == expected, "other frames than those that were sent");
    }
    if (expected.isBroken) {
        throw ProtocolError("a frame is damaged, or none");
    }
}

const std::array<std::function<void(const std::string&)>, KINDS> CHECKS = {
    [](const std::string& text) { Hello::decode(text); },
    [](const std::string& text) { Open::decode(text); },
    thereAndBack([](const std::string& text) { return StartSide::decode(text); }),
    thereAndBack([](const std::string& text) { return decodeStarted(text); }),
    thereAndBack([](const std::string& text) { return decodeOpening(text); }),
    thereAndBack([](const std::string& text) { return AskNodes::decode(text); }),
    thereAndBack([](const std::string& text) { return AskBytes::decode(text); }),
    thereAndBack([](const std::string& text) { return Digests::decode(text); }),
    thereAndBack([](const std::string& text) { return Ranges::decode(text, SIZE); }),
    checkPiece,
    [](const std::string& text) { checkList(text, std::nullopt); },
    [](const std::string& text) { checkList(text, ListFormat::Bitmap); },
    thereAndBack([](const std::string& text) { return Written::decode(text); }),
    partThereAndBack([](FieldReader& from) { return decodeOptionalConclusion(from); },
                     [](FieldWriter& to, const std::optional<Conclusion>& conclusion) { encode(to, conclusion); }),
    partThereAndBack([](FieldReader& from) { return decodeConclusion(from); },
                     [](FieldWriter& to, const Conclusion& conclusion) { encode(to, conclusion); }),
    checkStream,
    [](const std::string& text) { checkStream(streamOf(text)); },
    [](const std::string& text) {
        require(encodeStartWriting(decodeStartWriting(text)) == text, "a message comes out otherwise");
    },
};

} // namespace

std::string streamOf(const std::string& frames)
{
    std::string stream;
    FieldReader from(frames);
    try {
        for (std::int64_t number = 0;; ++number) {
            const std::uint8_t type = from.u8();
            const std::uint8_t length = from.u8();
            const std::uint32_t excess = type >= 128 ? from.u32() : 0;
            const std::string payload(from.bytes(length));
            stream += headerOf(length + excess, type % 128, checkOf(payload, number), number) + payload;
        }
    } catch (const ProtocolError&) {
        return stream; // what is left is no whole frame
    }
}

Verdict checkMessage(const std::string& input)
{
    const std::size_t kind = input.empty() ? KINDS : static_cast<unsigned char>(input[0]);
    if (kind >= KINDS) {
        return Verdict::NoKind;
    }
    try {
        CHECKS[kind](input.substr(1));
        return Verdict::Understood;
    } catch (const ProtocolError&) {
        return Verdict::Refused;
    } catch (const Failure&) {
        return Verdict::Refused;
    }
}

} // namespace kelvane::testing

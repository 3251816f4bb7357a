// Writes inputs for the search in messages, of every kind at least one that is understood: message_seeds DIRECTORY
#include <fstream>
#include <iostream>
#include <utility>
#include <vector>

#include "Messages.h"
#include "remote/Channel.h"
#include "remote/Data.h"
#include "remote/Messages.h"

using namespace kelvane::tool;
using kelvane::testing::Kind;

namespace {

constexpr std::int64_t BLOCK = 4096;
constexpr std::int64_t SIZE = 1 << 30;

std::string partOfMessage(const auto& write)
{
    FieldWriter to;
    write(to);
    return to.done();
}

std::string frame(FrameType type, const std::string& payload)
{
    const auto length = static_cast<std::uint8_t>(payload.size());
    return FieldWriter().u8(static_cast<std::uint8_t>(type)).u8(length).bytes(payload.data(), length).done();
}

std::string sent(const Piece& piece, std::uint32_t compression)
{
    const auto pool = std::make_shared<BytesPool>(Channel::LARGEST_FRAME);
    const SentPiece sent(piece, {BLOCK, SIZE, compression}, *pool);
    return std::string(sent.fields()) + std::string(sent.data());
}

std::vector<std::pair<Kind, std::string>> seeds()
{
    const Open open {"disk.img", "disk.hashes", true, true, Trust::Nothing, Cache::Keep, 4, 1 << 20, 3, 1 << 20};
    const std::vector<Program> writers = {{1234, "qemu"}, {0, "/dev/loop3"}};
    const Conclusion conclusion {
        false, true, writers, false, false, "it was changed since", 5, 2, true, "2 blocks repaired\n"};
    const Digest digest(32, 7);
    const std::string data(BLOCK, 'x');
    const DigestBytes ofBlocks = digestsOf(data.data(), BLOCK, BLOCK);
    const std::string frames = frame(FrameType::Hello, Hello().encode()) + frame(FrameType::Alive, "")
        + frame(FrameType::Open, open.encode()) + frame(FrameType::Conclude, "");
    const std::string unfinished("\x83\x01\x09\x00\x00\x00x", 7);
    const std::string tooLong("\x83\x01\x00\x00\x20\x00x", 7);
    return {
        {Kind::Hello, Hello().encode()},
        {Kind::Open, open.encode()},
        {Kind::Start, StartSide {{BLOCK, 9 * BLOCK, 0640, 8 * BLOCK}, true}.encode()},
        {Kind::Started, encode(Started {1 << 20, 5, {1, 7, 8}, true})},
        {Kind::Opening, encode(Opening {9 * BLOCK, 0640, false, true, false, "disk.img.hashes", BLOCK})},
        {Kind::AskNodes, AskNodes {{18, {0, 3, 5}}, true}.encode()},
        {Kind::AskBytes, AskBytes {{BLOCK, 99}, 10}.encode()},
        {Kind::Digests, Digests {{digest, digest}, {}}.encode()},
        {Kind::Digests, Digests {{}, conclusion}.encode()},
        {Kind::Read, Ranges {{{0, BLOCK}, {3 * BLOCK, 2 * BLOCK}}, true}.encode()},
        {Kind::Data, sent({{BLOCK, 1 << 20}, nullptr, {}, {}}, 0)},
        {Kind::Data, sent({{BLOCK, 9}, data.data(), {}, {}}, 0)},
        {Kind::Data, sent({{BLOCK, BLOCK}, data.data(), ofBlocks, {}}, 3)},
        {Kind::List, "# lines\n4096 + 8192\n0\t1\n# equal; 5 blocks\n"},
        {Kind::List,
         R"({"verdict": "different", "sizes": [], "changedMeanwhile": [], "differing": [{"offset": 4096, "length": 9}]})"},
        {Kind::List, R"([{"start": 0, "length": 4096, "zero": true, "data": false}])"},
        {Kind::Bitmap, R"([{"offset": 0, "length": 4096, "type": 1}, {"offset": 4096, "length": 9, "type": 2}])"},
        {Kind::Written, Written {{true, false}, conclusion}.encode()},
        {Kind::End, partOfMessage([&](FieldWriter& to) { encode(to, std::optional(conclusion)); })},
        {Kind::Concluded, partOfMessage([&](FieldWriter& to) { encode(to, conclusion); })},
        {Kind::Stream, kelvane::testing::streamOf(frames)},
        {Kind::Stream, kelvane::testing::streamOf(frames + unfinished)},
        {Kind::Frames, frames},
        {Kind::Frames, frames + unfinished},
        {Kind::Frames, frames + unfinished + frames},
        {Kind::Frames, frames + tooLong},
        {Kind::Frames, frames + frame(static_cast<FrameType>(99), "x")},
        {Kind::List, R"([{"offset":0,"length":4096,"exists":"true"},{"offset":8192,"length":9,"exists":"false"}])"},
        {Kind::List, R"(<superblock time="2" data_block_size="128"><diff left="1"><same begin="0" length="9"/>
<right_only><range begin="9" data_begin="7" length="1"/></right_only></diff></superblock>)"},
        {Kind::List, R"(<blocks> <block block="3"/> <range begin="10" end = "13"/> </blocks>)"},
        {Kind::StartWriting, encodeStartWriting(true)},
        {Kind::StartWriting, encodeStartWriting(false) + "x"},
    };
}

} // namespace

int main(int count, char** arguments)
{
    if (count != 2) {
        std::cerr << "usage: message_seeds DIRECTORY\n";
        return 2;
    }
    int number = 0;
    for (const auto& [kind, content] : seeds()) {
        std::ofstream file(std::string(arguments[1]) + "/seed-" + std::to_string(100 + number++), std::ios::binary);
        file << static_cast<char>(kind) << content;
        if (!file.flush()) {
            std::cerr << arguments[1] << ": cannot write\n";
            return 1;
        }
    }
}

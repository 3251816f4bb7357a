// The search for what another machine, or another program's list of ranges, could say that is not noticed: everything
// is taken, and comes out as it went in, or ends with the failure that it is to end with.
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "base/Failure.h"
#include "remote/Messages.h"
#include "work/RangeList.h"

using namespace kelvane::tool;

namespace {

constexpr std::int64_t SIZE = 1 << 30;
constexpr std::int64_t BLOCK = 4096;

void require(bool condition)
{
    if (!condition) {
        std::abort();
    }
}

// What is understood can be said in one way only.
template <class Decode>
std::function<void(const std::string&)> thereAndBack(Decode decode)
{
    return [decode](const std::string& text) {
        const auto message = decode(text);
        if constexpr (requires { message.encode(); }) {
            require(message.encode() == text);
        } else {
            require(encode(message) == text);
        }
    };
}

void checkStretch(const std::string& text)
{
    const DataForm form = {BLOCK, SIZE};
    const auto received = ReceivedStretch::decode(text, BLOCK, form);
    require(received.range.offset >= BLOCK && received.range.length > 0 && received.range.end() <= SIZE);
    require(isOnePiece(received.range, form));
    require(received.isZeros || std::ssize(received.data) == received.range.length);
}

void checkList(const std::string& text, std::optional<ListFormat> format)
{
    for (const Range& range : parseRangeList(text, "list", format, MapEntries::All).ranges) {
        require(range.offset >= 0 && range.length >= 0 && range.end() >= range.offset);
    }
}

const std::vector<std::function<void(const std::string&)>> KINDS = {
    [](const std::string& text) { Hello::decode(text); },
    [](const std::string& text) { Open::decode(text); },
    thereAndBack([](const std::string& text) { return decodeStart(text); }),
    thereAndBack([](const std::string& text) { return decodeStarted(text); }),
    thereAndBack([](const std::string& text) { return decodeOpening(text); }),
    thereAndBack([](const std::string& text) { return AskNodes::decode(text); }),
    thereAndBack([](const std::string& text) { return AskBytes::decode(text); }),
    thereAndBack([](const std::string& text) { return Digests::decode(text); }),
    thereAndBack([](const std::string& text) { return Read::decode(text, SIZE); }),
    checkStretch,
    [](const std::string& text) { checkList(text, std::nullopt); },
    [](const std::string& text) { checkList(text, ListFormat::Bitmap); },
    thereAndBack([](const std::string& text) { return Written::decode(text); }),
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* input, std::size_t size)
{
    if (size == 0) {
        return 0;
    }
    try {
        KINDS[input[0] % KINDS.size()](std::string(input + 1, input + size));
    } catch (const ProtocolError&) {
        return 0;
    } catch (const Failure&) {
        return 0;
    }
    return 0;
}

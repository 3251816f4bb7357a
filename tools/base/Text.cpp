#include "base/Text.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <string_view>

namespace kelvane::tool {

namespace {

// Of the first character, in UTF-8 as short as it can be; 0 when there is none.
std::size_t characterLength(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(i < text.size() ? text[i] : 0); };
    const unsigned char first = byte(0);
    const std::size_t length = first < 0x80 ? 1
        : first < 0xc2                      ? 0
        : first < 0xe0                      ? 2
        : first < 0xf0                      ? 3
        : first < 0xf5                      ? 4
                                            : 0;
    const bool isOutside = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f)
        || (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    return isOutside ? 0 : length;
}

char32_t codeOf(std::string_view character)
{
    const auto first = static_cast<unsigned char>(character[0]);
    char32_t code = character.size() == 1 ? first : first & (0x7fU >> character.size());
    for (const char c : character.substr(1)) {
        code = code << 6 | (static_cast<unsigned char>(c) & 0x3fU);
    }
    return code;
}

// Control characters, marks for the direction of a text, separators of lines, and what has no width.
bool isHidden(char32_t code)
{
    return code < 0x20 || (code >= 0x7f && code < 0xa0) || code == 0xad || code == 0x61c
        || (code >= 0x200b && code < 0x2010) || (code >= 0x2028 && code < 0x202f) || (code >= 0x2060 && code < 0x2070)
        || code == 0xfeff || (code >= 0xfff9 && code < 0xfffc) || (code >= 0xe0000 && code < 0xe0080);
}

} // namespace

std::string humanSize(double bytes)
{
    constexpr std::array UNITS = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < UNITS.size()) {
        bytes /= 1024;
        ++unit;
    }
    char text[64];
    std::snprintf(text, sizeof(text), unit == 0 ? "%.0f %s" : "%.2f %s", bytes, UNITS[unit]);
    return text;
}

std::string humanTime(double seconds)
{
    char text[64];
    const auto whole = static_cast<long long>(std::llround(std::min(seconds, 1e15)));
    if (seconds < 60) {
        std::snprintf(text, sizeof(text), "%.2f s", seconds);
    } else if (whole < 3600) {
        std::snprintf(text, sizeof(text), "%lld:%02lld", whole / 60, whole % 60);
    } else {
        std::snprintf(text, sizeof(text), "%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
    }
    return text;
}

std::string grouped(std::int64_t number)
{
    std::string text = std::to_string(number);
    const std::size_t first = number < 0 ? 1 : 0;
    for (std::size_t at = text.size(); at > first + 3;) {
        at -= 3;
        text.insert(at, ",");
    }
    return text;
}

std::string counted(std::int64_t number, const std::string& noun)
{
    return grouped(number) + " " + noun + (number == 1 ? "" : "s");
}

// Without what a terminal would obey, what turns the direction of a text or cannot be seen, and what is no UTF-8.
std::string printable(const std::string& text, std::size_t most)
{
    std::string line;
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::size_t length = characterLength(rest);
        const bool isShown = length > 0 && !isHidden(codeOf(rest.substr(0, length)));
        const std::string_view shown = isShown ? rest.substr(0, length) : "?";
        if (text.size() - rest.size() + shown.size() > most) {
            return line + "...";
        }
        line += shown;
        rest.remove_prefix(std::max<std::size_t>(1, length));
    }
    return line;
}

std::string hexadecimal(const std::vector<unsigned char>& bytes)
{
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte / 16];
        text += "0123456789abcdef"[byte % 16];
    }
    return text;
}

} // namespace kelvane::tool

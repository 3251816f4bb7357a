#include "base/Text.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace kelvane::tool {

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
    const auto whole = static_cast<long long>(std::llround(seconds));
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

// Without what a terminal would obey: control characters, those of two bytes in UTF-8 among them.
std::string printable(const std::string& text, std::size_t most)
{
    std::string line = text.size() > most ? text.substr(0, most) + "..." : text;
    for (std::size_t i = 0; i < line.size(); ++i) {
        const auto byte = static_cast<unsigned char>(line[i]);
        const auto next = static_cast<unsigned char>(i + 1 < line.size() ? line[i + 1] : 0);
        if (byte < 0x20 || byte == 0x7f) {
            line[i] = '?';
        } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {
            line.replace(i, 2, "?");
        }
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

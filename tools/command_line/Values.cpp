#include "command_line/Values.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "base/Text.h"

namespace kelvane::tool {

std::int64_t parseSize(const std::string& text)
{
    constexpr std::string_view UNITS = "bkmgtpe";
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto number = parseNumber<std::int64_t>(text.substr(0, digits));
    const std::string unit = CLI::detail::to_lower(CLI::detail::trim_copy(text.substr(digits)));
    const std::size_t power = unit.empty() ? 0 : UNITS.find(unit[0]);
    const std::string rest = unit.empty() ? "" : unit.substr(1);
    const bool isUnit
        = power < UNITS.size() && (rest.empty() || (power > 0 && (rest == "b" || rest == "i" || rest == "ib")));
    if (!number || !isUnit || *number > std::numeric_limits<std::int64_t>::max() >> (10 * power)) {
        throw CLI::ValidationError("not a size like 4096, 64K or 1GiB: " + text);
    }
    return *number << (10 * power);
}

std::int64_t parseEraBlockSize(const std::string& text)
{
    const bool isInSectors = text.ends_with('s');
    const std::int64_t count = parseSize(isInSectors ? text.substr(0, text.size() - 1) : text);
    constexpr std::int64_t LEAST = 4096; // bytes, and a multiple of them, as the system has it
    if (isdigit(static_cast<unsigned char>(text.back())) != 0 || count > std::numeric_limits<std::int64_t>::max() / 512
        || count == 0 || count * (isInSectors ? 512 : 1) % LEAST != 0) {
        throw CLI::ValidationError("not the size of a block with its unit, like 4M or 8192s: " + text);
    }
    return count * (isInSectors ? 512 : 1);
}

double parseShare(const std::string& text)
{
    double share = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, share);
    if (error != std::errc() || stop != end || !(share >= 1e-9 && share <= 1)) {
        throw CLI::ValidationError("not a share like 0.05, above 0 and up to 1: " + text);
    }
    return share;
}

std::string parseName(const std::string& text)
{
    constexpr std::size_t LONGEST = 255;
    const bool isPrintable
        = std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 127; });
    if (text.empty() || text.size() > LONGEST || !isPrintable) {
        throw CLI::ValidationError("not a name: " + printable(text, LONGEST));
    }
    return text;
}

} // namespace kelvane::tool

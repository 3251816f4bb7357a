// Numbers as people and other programs write them.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

namespace kelvane::tool {

// Of digits alone, decimal whatever zeros they begin with. Nothing for anything else, and for more than the type holds.
template <class Number>
std::optional<Number> parseNumber(std::string_view text)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end && std::in_range<Number>(number)
        ? std::optional(static_cast<Number>(number))
        : std::nullopt;
}

} // namespace kelvane::tool

// How the values of options are read. The functions throw a ValidationError, to which the name of the option is added.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>

#include "base/Number.h"

namespace kelvane::tool {

template <class Number>
Number parseWithin(const std::string& text, Number least, Number most)
{
    const auto number = parseNumber<Number>(text);
    if (!number || *number < least || *number > most) {
        throw CLI::ValidationError("not a number from " + std::to_string(least) + " to " + std::to_string(most) + ": "
                                   + text);
    }
    return *number;
}

// Bytes, with a unit of powers of 1024 that is written as K, KB, Ki or KiB, large or small.
std::int64_t parseSize(const std::string& text);

// With a unit, for a number of sectors that is taken for one of bytes would leave changes out.
std::int64_t parseEraBlockSize(const std::string& text);

double parseShare(const std::string& text); // above 0 and up to 1
std::string parseName(const std::string& text);

} // namespace kelvane::tool

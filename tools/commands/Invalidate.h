// Forgets the hashes of ranges that are known to have changed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "commands/Conclusions.h"
#include "commands/ImageArguments.h"
#include "lists/RangeList.h"

namespace kelvane::tool {

struct InvalidateArguments {
    std::string list; // a path, or "-" for standard input
    std::optional<ListFormat> format;
    MapEntries entries = MapEntries::Data;
};

struct InvalidateResult {
    Verdict verdict;
    std::string hashFile;
    std::int64_t bytes;
    std::int64_t ranges;
    std::string doubt; // why the next run checks all the same; empty when it does not
    Conclusions found;
};

InvalidateResult invalidate(const ImageArguments& arguments, const InvalidateArguments& what, const Common& common);

} // namespace kelvane::tool

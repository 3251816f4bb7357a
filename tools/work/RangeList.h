// Lists of changed ranges, as other programs print them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"

namespace kelvane::tool {

enum class ListFormat {
    Lines,  // "OFFSET + LENGTH" or "OFFSET LENGTH", and what else `diff` prints; offsets count from the device's start
    Diff,   // the JSON of `diff`; the same
    Bitmap, // the JSON of `nbdinfo --map=qemu:dirty-bitmap:NAME`: entries whose type has bit 0; from the image's start
    Map     // the JSON of `qemu-img map`; from the image's start
};

enum class MapEntries { Data, Zero, All };

struct RangeList {
    std::vector<Range> ranges; // as they were listed
    bool isOnDevice = false;   // offsets count from the start of the device, not of the image
};

// Offsets and lengths are not negative, and their sums no overflow. Nothing for the format: as it looks like. A
// Failure names the source, and the line or the entry, counted from 1.
RangeList parseRangeList(const std::string& text, const std::string& source, std::optional<ListFormat> format,
                         MapEntries entries);

} // namespace kelvane::tool

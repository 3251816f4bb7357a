// Lists of changed ranges, as other programs print them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"

namespace kelvane::tool {

enum class ListFormat {
    Lines,  // as `diff` prints them: "OFFSET + LENGTH", or "OFFSET LENGTH"; offsets count from the device's start
    Diff,   // the JSON of `diff`; the same
    Bitmap, // the JSON of `nbdinfo --map=qemu:dirty-bitmap:NAME`: entries whose type has bit 0; from the image's start
    Map     // the JSON of `qemu-img map`; from the image's start
};

enum class MapEntries { Data, Zero, All };

// "line 3" or "entry 3"
std::string placeIn(ListFormat format, std::int64_t number);

struct RangeList {
    // Lines that begin so are none of its ranges; the verdict with which `diff` ends is one of them.
    static constexpr const char* REMARK = "# ";
    static constexpr const char* UNDECIDED = "undecided"; // of images that were changed meanwhile

    struct Entry {
        Range range;
        std::int64_t number; // of its line, or among all entries; counted from 1
    };

    ListFormat format;
    std::vector<Entry> entries; // as they were listed

    // Offsets count from the start of the device, not of the image.
    bool isOnDevice() const { return format == ListFormat::Lines || format == ListFormat::Diff; }

    // What sizes are rounded up to: QEMU has images of whole sectors, over NBD as well.
    std::int64_t sizeUnit() const { return isOnDevice() ? 1 : 512; }
};

// Offsets and lengths are not negative, and their sums no overflow. Nothing for the format: as it looks like. A
// Failure names the source, and the line or the entry, counted from 1; also for a list of a `diff` that was undecided,
// and for lines of which the last has no end.
RangeList parseRangeList(const std::string& text, const std::string& source, std::optional<ListFormat> format,
                         MapEntries entries);

} // namespace kelvane::tool

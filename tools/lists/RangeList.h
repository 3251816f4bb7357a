// Lists of changed ranges, as other programs print them.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"

namespace kelvane::tool {

// Offsets of the first two count from the device's start, of the others from that of the image.
enum class ListFormat {
    Lines,  // as `diff` prints them: "OFFSET + LENGTH", or "OFFSET LENGTH"
    Diff,   // the JSON of `diff`
    Bitmap, // the JSON of `nbdinfo --map=qemu:dirty-bitmap:NAME`: entries whose type has bit 0
    Map,    // the JSON of `qemu-img map`
    Rbd,    // the JSON of `rbd diff`
    Thin,   // the XML of `thin_delta`: what is not the same
    Era     // the XML of `era_invalidate`
};

enum class MapEntries { Data, Zero, All };

// What a list does not say itself.
struct ListOptions {
    std::optional<ListFormat> format; // nothing: as it looks like
    MapEntries entries = MapEntries::Data;
    std::int64_t eraBlockSize = 0; // bytes; 0 when it was not named
};

// "line 3" or "entry 3"
inline std::string placeIn(ListFormat format, std::int64_t number)
{
    return (format == ListFormat::Lines ? "line " : "entry ") + std::to_string(number);
}

inline bool isPossible(const Range& range)
{
    return range.offset >= 0 && range.length >= 0
        && range.length <= std::numeric_limits<std::int64_t>::max() - range.offset;
}

struct RangeList {
    // Lines that begin so are none of its ranges; the verdict with which `diff` ends is one of them.
    static constexpr const char* REMARK = "# ";
    static constexpr const char* UNDECIDED = "undecided"; // of images that were changed meanwhile
    static constexpr const char* UNDECIDED_LIST = "diff was undecided: more may differ than it lists";
    static constexpr std::int64_t SECTOR = 512; // bytes; QEMU has images of whole ones, over NBD as well

    struct Entry {
        Range range;
        std::int64_t number; // of its line, or among all entries; counted from 1
    };

    ListFormat format;
    std::int64_t sizeUnit;      // what the image's size is rounded up to
    std::vector<Entry> entries; // as they were listed

    // Offsets count from the start of the device, not of the image.
    bool isOnDevice() const { return format == ListFormat::Lines || format == ListFormat::Diff; }
};

} // namespace kelvane::tool

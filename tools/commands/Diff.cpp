#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/Compare.h"
#include "work/HashedImage.h"

namespace kelvane::tool {

Outcome diff(const PairArguments& arguments, const Common& common)
{
    const Image first = openImage(arguments.first.image, Image::Access::Read);
    const Image second = openImage(arguments.second.image, Image::Access::Read);
    HashedPair pair(first, arguments.first.hashFile, second, arguments.second.hashFile, second.size(), common);
    for (HashedImage* const side : {&pair.first, &pair.second}) {
        side->adaptToImage();
    }
    Comparison found = compare(pair.first, pair.second);
    append(found.differing, between(std::min(first.size(), second.size()), std::max(first.size(), second.size())));
    const Changes changes({&pair.first, &pair.second});

    Outcome outcome;
    const bool isEqual = found.differing.empty();
    outcome.good = isEqual && changes.none();
    const std::int64_t bytes = totalLength(found.differing);
    outcome.json = {{"equal", outcome.good},
                    {"bytes", bytes},
                    {"comparisons", found.comparisons},
                    {"bytesRead", found.bytesRead},
                    {"sizes", {first.size(), second.size()}},
                    {"freshness", {pair.first.json(), pair.second.json()}},
                    {"changedMeanwhile", changes.json()},
                    {"differing", nlohmann::ordered_json::array()}};
    for (const Range& range : found.differing) {
        const std::int64_t offset = pair.first.hashFile().onDevice(range.offset);
        outcome.text += std::to_string(offset) + " + " + std::to_string(range.length) + "\n";
        outcome.json["differing"].push_back({{"offset", offset}, {"length", range.length}});
    }
    if (first.size() != second.size()) {
        outcome.text += "sizes: " + counted(first.size(), "byte") + " and " + counted(second.size(), "byte") + "\n";
    }
    outcome.text += pair.first.text() + pair.second.text() + changes.text();
    outcome.text += (isEqual ? "equal"
                             : "different: " + counted(bytes, "byte") + " in "
                             + counted(static_cast<std::int64_t>(found.differing.size()), "range"))
        + "; " + counted(found.comparisons, "comparison") + ", " + counted(found.bytesRead, "byte") + " of data read\n";
    return outcome;
}

} // namespace kelvane::tool

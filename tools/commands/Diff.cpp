#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/Compare.h"

namespace kelvane::tool {

Outcome diff(const PairArguments& arguments, const Common& common)
{
    const Image first(arguments.first.image, Image::Access::Read);
    const Image second(arguments.second.image, Image::Access::Read);
    HashFilePair hashFiles(first, arguments.first.hashFile, second, arguments.second.hashFile);
    Comparison found = compare({first, hashFiles.first}, {second, hashFiles.second}, common);
    append(found.differing, between(std::min(first.size(), second.size()), std::max(first.size(), second.size())));

    Outcome outcome;
    outcome.good = found.differing.empty();
    const std::int64_t bytes = totalLength(found.differing);
    outcome.json = {{"equal", outcome.good},
                    {"bytes", bytes},
                    {"comparisons", found.comparisons},
                    {"bytesRead", found.bytesRead},
                    {"sizes", {first.size(), second.size()}},
                    {"differing", nlohmann::ordered_json::array()}};
    for (const Range& range : found.differing) {
        const std::int64_t offset = hashFiles.first.onDevice(range.offset);
        outcome.text += std::to_string(offset) + " + " + std::to_string(range.length) + "\n";
        outcome.json["differing"].push_back({{"offset", offset}, {"length", range.length}});
    }
    if (first.size() != second.size()) {
        outcome.text += "sizes: " + counted(first.size(), "byte") + " and " + counted(second.size(), "byte") + "\n";
    }
    outcome.text += (outcome.good ? "equal"
                                  : "different: " + counted(bytes, "byte") + " in "
                             + counted(static_cast<std::int64_t>(found.differing.size()), "range"))
        + "; " + counted(found.comparisons, "comparison") + ", " + counted(found.bytesRead, "byte") + " of data read\n";
    return outcome;
}

} // namespace kelvane::tool

#include "base/Text.h"
#include "commands/Commands.h"
#include "work/Compare.h"

namespace kelvane::tool {

namespace {

Outcome diffSides(Side& first, Side& second, const PairArguments& arguments, const Common& common)
{
    const auto [least, most] = std::minmax(first.opening().size, second.opening().size);
    const std::uint32_t blockSize = commonBlockSize(first, second, arguments.first.hashFile);
    Comparison found = compare(first, second, {blockSize, 0, 0, least}, [] {});
    append(found.differing, between(least, most));
    const Conclusions ends(first, second, common);

    Outcome outcome;
    const bool isEqual = found.differing.empty();
    outcome.good = isEqual && ends.areSure();
    const std::int64_t bytes = totalLength(found.differing);
    const char* const verdict = !ends.areSure() ? "undecided" : isEqual ? "equal" : "different";
    outcome.json = {{"verdict", verdict},
                    {"equal", outcome.good},
                    {"bytes", bytes},
                    {"comparisons", found.comparisons},
                    {"bytesRead", found.bytesRead},
                    {"sizes", {first.opening().size, second.opening().size}},
                    {"freshness", ends.freshness()},
                    {"changedMeanwhile", ends.changed()},
                    {"differing", nlohmann::ordered_json::array()}};
    for (const Range& range : found.differing) {
        const std::int64_t offset = first.started().partitionOffset + range.offset;
        outcome.text += std::to_string(offset) + " + " + std::to_string(range.length) + "\n";
        outcome.json["differing"].push_back({{"offset", offset}, {"length", range.length}});
    }
    if (least != most) {
        outcome.text += "sizes: " + counted(first.opening().size, "byte") + " and "
            + counted(second.opening().size, "byte") + "\n";
    }
    outcome.text += ends.remarks() + ends.text();
    std::string told = verdict;
    if (!isEqual) {
        told = "different: " + counted(bytes, "byte") + " in " + counted(std::ssize(found.differing), "range");
    }
    outcome.text += told + "; " + counted(found.comparisons, "comparison") + ", " + counted(found.bytesRead, "byte")
        + " of data read\n";
    return outcome;
}

} // namespace

Outcome diff(const PairArguments& arguments, const Common& common)
{
    const Pair pair(arguments, false, common);
    Outcome outcome = pair.run([&](Side& first, Side& second) { return diffSides(first, second, arguments, common); });
    addLineTraffic(outcome, pair);
    return outcome;
}

} // namespace kelvane::tool

#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/Compare.h"

namespace kelvane::tool {

namespace {

Outcome diffSides(Side& first, Side& second, const PairArguments& arguments)
{
    const auto [least, most] = std::minmax(first.opening().size, second.opening().size);
    const std::uint32_t blockSize = commonBlockSize(first, second, arguments.first.hashFile);
    Comparison found = compare(first, second, {blockSize, 0, least}, [] {});
    append(found.differing, between(least, most));
    const Changes changes(first, second);

    Outcome outcome;
    const bool isEqual = found.differing.empty();
    outcome.good = isEqual && changes.none();
    const std::int64_t bytes = totalLength(found.differing);
    outcome.json = {{"equal", outcome.good},
                    {"bytes", bytes},
                    {"comparisons", found.comparisons},
                    {"bytesRead", found.bytesRead},
                    {"sizes", {first.opening().size, second.opening().size}},
                    {"freshness", {first.freshness(), second.freshness()}},
                    {"changedMeanwhile", changes.json()},
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
    outcome.text += first.remarks() + second.remarks() + changes.text();
    std::string verdict = changes.none() ? "equal" : "undecided";
    if (!isEqual) {
        verdict = "different: " + counted(bytes, "byte") + " in " + counted(std::ssize(found.differing), "range");
    }
    outcome.text += verdict + "; " + counted(found.comparisons, "comparison") + ", " + counted(found.bytesRead, "byte")
        + " of data read\n";
    return outcome;
}

} // namespace

Outcome diff(const PairArguments& arguments, const Common& common)
{
    const Pair pair(arguments, false, common);
    Outcome outcome = pair.run([&](Side& first, Side& second) { return diffSides(first, second, arguments); });
    addLineTraffic(outcome, pair);
    return outcome;
}

} // namespace kelvane::tool

#include <sstream>

#include "base/Text.h"
#include "commands/Commands.h"
#include "work/Compare.h"

namespace kelvane::tool {

namespace {

// So that a reader of the list of ranges can tell them from it, whatever images are called.
std::string asRemarks(const std::string& text)
{
    std::string remarks;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        remarks += RangeList::REMARK + line + "\n";
    }
    return remarks;
}

Outcome diffSides(const Pair& pair, const PairArguments& arguments, const Common& common)
{
    Side& first = *pair.first;
    Side& second = *pair.second;
    const auto [least, most] = std::minmax(first.opening().size, second.opening().size);
    const std::uint32_t blockSize = commonBlockSize(first, second, arguments.first.hashFile);
    Comparison found = compare(first, second, {blockSize, 0, 0, least}, [] {});
    append(found.differing, between(least, most));
    const Conclusions ends(first, second, common);

    Outcome outcome;
    const bool isEqual = found.differing.empty();
    outcome.good = isEqual && ends.areSure();
    std::string verdict = !ends.areSure() ? RangeList::UNDECIDED : isEqual ? "equal" : "different";
    const std::int64_t bytes = totalLength(found.differing);
    outcome.json = {{"verdict", verdict},
                    {"equal", outcome.good},
                    {"bytes", bytes},
                    {"comparisons", found.comparisons},
                    {"bytesRead", found.bytesRead},
                    {"sizes", {first.opening().size, second.opening().size}},
                    {"freshness", ends.freshness()},
                    {"changedMeanwhile", ends.changed()},
                    {"differing", nlohmann::ordered_json::array()}};
    std::string ranges;
    for (const Range& range : found.differing) {
        const std::int64_t offset = first.started().partitionOffset + range.offset;
        ranges += std::to_string(offset) + " + " + std::to_string(range.length) + "\n";
        outcome.json["differing"].push_back({{"offset", offset}, {"length", range.length}});
    }
    if (least != most) {
        outcome.text = "sizes: " + counted(first.opening().size, "byte") + " and "
            + counted(second.opening().size, "byte") + "\n";
    }
    outcome.text += ends.remarks();
    addLineTraffic(outcome, pair);
    if (!isEqual) {
        verdict += ": " + counted(bytes, "byte") + " in " + counted(std::ssize(found.differing), "range");
    }
    outcome.text += ends.text() + verdict + "; " + counted(found.comparisons, "comparison") + ", "
        + counted(found.bytesRead, "byte") + " of data read\n";
    outcome.text = ranges + asRemarks(outcome.text);
    return outcome;
}

} // namespace

Outcome diff(const PairArguments& arguments, const Common& common)
{
    const Pair pair(arguments, false, common);
    return pair.run([&](Side&, Side&) { return diffSides(pair, arguments, common); });
}

} // namespace kelvane::tool

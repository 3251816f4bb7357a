#include "commands/Diff.h"

#include <algorithm>

#include "work/Compare.h"

namespace kelvane::tool {

namespace {

Verdict verdictOf(const Conclusions& found, bool isEqual)
{
    return !areSure(found) ? Verdict::Undecided : isEqual ? Verdict::Equal : Verdict::Different;
}

DiffResult diffSides(Side& first, Side& second, const PairArguments& arguments)
{
    const std::int64_t firstSize = first.opening().size;
    const std::int64_t secondSize = second.opening().size;
    const auto [least, most] = std::minmax(firstSize, secondSize);
    const std::uint32_t blockSize = chooseBlockSize(first, second, arguments.first.hashFile);
    auto [startedFirst, startedSecond, comparison] = compare(first, second, {blockSize, 0, 0, least}, {[] {}, false});
    append(comparison.differing, between(least, most));
    const Conclusions found = conclude(startedFirst, startedSecond);
    for (Range& range : comparison.differing) {
        range.offset += startedFirst.started().partitionOffset;
    }
    return {verdictOf(found, comparison.differing.empty()),
            firstSize,
            secondSize,
            std::move(comparison.differing),
            comparison.comparisons,
            comparison.bytesRead,
            {},
            found};
}

} // namespace

DiffResult diff(const PairArguments& arguments, const Common& common)
{
    const Pair pair(arguments, false, common, common.trust);
    DiffResult result = pair.run([&](Side& first, Side& second) { return diffSides(first, second, arguments); });
    result.traffic = pair.traffic();
    return result;
}

} // namespace kelvane::tool

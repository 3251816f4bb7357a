#include <mutex>
#include <random>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Text.h"
#include "commands/Commands.h"
#include "work/Blocks.h"
#include "work/Check.h"

namespace kelvane::tool {

namespace {

constexpr std::int64_t SAMPLE = 64 << 10;

std::vector<Range> sorted(std::vector<Range> ranges)
{
    std::sort(ranges.begin(), ranges.end(), [](const Range& a, const Range& b) { return a.offset < b.offset; });
    std::vector<Range> merged;
    for (const Range& range : ranges) {
        append(merged, range);
    }
    return merged;
}

// No record may say that all is true. What stands in the way of that; empty when nothing does.
std::string contradict(Belief& belief)
{
    try {
        belief.contradict();
        return "";
    } catch (const Failure& failure) {
        return failure.what() + std::string("; remove it\n");
    }
}

} // namespace

Outcome verify(const ImageArguments& arguments, const VerifyArguments& how, const Common& common)
{
    const Image image = openImage(arguments.image, Image::Access::Read);
    HashedImage hashed(image, HashFile::openExisting(image, arguments.hashFile), common);
    HashFile& hashFile = hashed.hashFile();
    hashed.belief().leaveRecordOfOther();
    const std::int64_t blockSize = hashFile.store().blockSize();
    const std::int64_t recorded = hashFile.geometry().targetSize;
    const Range range = wholeBlocks({0, std::min(image.size(), recorded)}, blockSize);
    const bool all = how.share >= 1;
    const std::uint64_t seed = how.seed.value_or(std::random_device()());
    const std::int64_t unit = std::max(blockSize, roundDown(SAMPLE, blockSize));
    RangeSource source = all ? RangeSource(image, range, sliceSize(blockSize), holeSliceSize(blockSize))
                             : RangeSource(range, unit, how.share, seed);
    Progress progress("verify", static_cast<std::int64_t>(how.share * static_cast<double>(range.length)),
                      common.progress);
    std::mutex mutex;
    std::vector<Range> bad;
    Check checker(image, blockSize);
    const auto check = [&](Store& store, const Piece& piece, char* data) {
        const std::vector<Range> found = checker.wrongBlocks(store, piece.range, data);
        const std::scoped_lock lock(mutex);
        bad.insert(bad.end(), found.begin(), found.end());
    };
    const StartingAnew startingAnew;
    const Traffic traffic = forBlocks(hashFile, image, source, Which::Known, common.jobs, progress, check);
    bad = sorted(std::move(bad));
    std::string complaint;
    if (!bad.empty()) {
        complaint = contradict(hashed.belief());
    }
    if (how.mark && !bad.empty()) {
        for (const Range& wrong : bad) {
            hashFile.store().invalidate(wrong);
        }
        hashed.belief().flushHashes();
    }
    if (all && recorded == image.size() && (bad.empty() || how.mark)) { // then all that it knows is true
        hashed.belief().confirm();
    } else {
        hashed.belief().dismiss();
    }
    const Conclusions found(hashed, common);

    const std::int64_t checked = (traffic.read + traffic.holes) / blockSize;
    Outcome outcome;
    outcome.good = bad.empty() && recorded == image.size() && found.areSure();
    const char* const verdict = !found.areSure() ? "undecided" : outcome.good ? "good" : "wrong";
    outcome.json = {{"verdict", verdict},
                    {"image", image.path()},
                    {"good", outcome.good},
                    {"blocksChecked", checked},
                    {"badBlocks", totalLength(bad) / blockSize},
                    {"marked", how.mark && !bad.empty()},
                    {"recordedSize", recorded},
                    {"imageSize", image.size()},
                    {"freshness", found.freshness()},
                    {"changedMeanwhile", found.changed()},
                    {"bad", nlohmann::ordered_json::array()}};
    if (!all) {
        outcome.json["seed"] = seed;
    }
    for (const Range& wrong : bad) {
        outcome.text += "wrong: " + std::to_string(hashFile.onDevice(wrong.offset)) + " + "
            + std::to_string(wrong.length) + "\n";
        outcome.json["bad"].push_back({{"offset", hashFile.onDevice(wrong.offset)}, {"length", wrong.length}});
    }
    if (recorded != image.size()) {
        outcome.text
            += "size: " + grouped(image.size()) + " bytes, " + grouped(recorded) + " recorded; build adapts it\n";
    }
    outcome.text += complaint + found.text() + (checked == 0 ? "no block is known, so nothing was checked\n" : "");
    outcome.text += image.path() + ": " + counted(checked, "known block") + " checked, "
        + grouped(totalLength(bad) / blockSize) + " wrong" + (how.mark && !bad.empty() ? ", now unknown" : "") + "\n";
    return outcome;
}

} // namespace kelvane::tool

#include "commands/Verify.h"

#include <algorithm>
#include <mutex>
#include <random>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "commands/Points.h"
#include "work/Blocks.h"
#include "work/HashedImage.h"
#include "work/OpenImage.h"

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
        return failure.what();
    }
}

struct Checked {
    Traffic traffic;
    std::vector<Range> wrong; // ascending
};

Checked checkKnown(HashedImage& hashed, Slices& slices, const Common& common, Phase& phase)
{
    std::mutex mutex;
    Checked checked;
    const auto check = [&](Store& store, const Blocks& blocks, const char* data) {
        const std::vector<Range> found = store.wrong(blocks.range, data);
        const std::scoped_lock lock(mutex);
        checked.wrong.insert(checked.wrong.end(), found.begin(), found.end());
    };
    checked.traffic
        = forBlocks(hashed.hashFile(), hashed.reader(), slices, Which::Known, common.threads(), phase, check);
    checked.wrong = sorted(std::move(checked.wrong));
    return checked;
}

// A record says in the end what is known to be true; hashes that are wrong are made unknown where that is asked for.
std::string settle(HashedImage& hashed, const std::vector<Range>& wrong, bool marks, bool areAllChecked)
{
    std::string falseRecord;
    if (!wrong.empty()) {
        falseRecord = contradict(hashed.belief());
    }
    if (marks && !wrong.empty()) {
        for (const Range& range : wrong) {
            hashed.store().invalidate(range);
        }
        hashed.belief().flushHashes();
    }
    if (areAllChecked && (wrong.empty() || marks)) { // then all that it knows is true
        hashed.belief().confirm();
    } else {
        hashed.belief().dismiss();
    }
    return falseRecord;
}

void refuseOther(const HashedImage& hashed, bool marks)
{
    const HashFile& hashFile = hashed.hashFile();
    if (marks && hashed.belief().isRecordOfOther()) {
        throw Failure(hashFile.path(),
                      "what is wrong of " + hashed.image().path() + " may be true of "
                          + hashFile.record()->image.identity.path + ", for which it was made");
    }
    if (hashed.belief().doubt().because == Doubt::Because::AnotherPoint) {
        throw Failure(hashed.image().path(),
                      "cannot be held against its known hashes: " + hashed.belief().doubt().text
                          + "; --point says which it shows");
    }
}

} // namespace

VerifyResult verify(const ImageArguments& arguments, const VerifyArguments& how, const Common& common)
{
    const std::unique_ptr<Image> opened = openImage(arguments.image, Image::Access::Read, common);
    const Image& image = *opened;
    HashedImage hashed(image, HashFile::openExisting(image, arguments.hashFile, common.reporter), common);
    HashFile& hashFile = hashed.hashFile();
    takePoints(hashed, arguments.points);
    refuseOther(hashed, how.mark);
    hashed.belief().leaveRecordOfOther();
    const std::int64_t blockSize = hashFile.store().blockSize();
    const std::int64_t recorded = hashFile.geometry().targetSize;
    const Range range = wholeBlocks({0, std::min(image.size(), recorded)}, blockSize);
    const bool all = how.share >= 1;
    const std::uint64_t seed = how.seed.value_or(std::random_device()());
    const std::int64_t sample = std::max(blockSize, roundDown(SAMPLE, blockSize));
    Slices slices = all ? Slices(image, range, sliceSize(blockSize), holeSliceSize(blockSize))
                        : Slices(range, sample, how.share, seed);
    const auto phase
        = common.reporter.begin("verify", static_cast<std::int64_t>(how.share * static_cast<double>(range.length)));
    const StartingAnew startingAnew;
    Checked checked = checkKnown(hashed, slices, common, *phase);
    std::string falseRecord = settle(hashed, checked.wrong, how.mark, all && recorded == image.size());
    const Conclusions found = conclude(hashed);
    const bool isGood = checked.wrong.empty() && recorded == image.size();
    const std::int64_t wrongBlocks = totalLength(checked.wrong) / blockSize;
    for (Range& wrong : checked.wrong) {
        wrong.offset = hashFile.onDevice(wrong.offset);
    }
    return {!areSure(found) ? Verdict::Undecided
                : isGood    ? Verdict::Good
                            : Verdict::Wrong,
            image.path(),
            image.size(),
            recorded,
            (checked.traffic.read + checked.traffic.holes) / blockSize,
            wrongBlocks,
            std::move(checked.wrong),
            how.mark && wrongBlocks > 0,
            all ? std::nullopt : std::optional(seed),
            std::move(falseRecord),
            found};
}

} // namespace kelvane::tool

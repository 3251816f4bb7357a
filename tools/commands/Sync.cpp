#include <chrono>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Text.h"
#include "commands/Commands.h"
#include "work/Compare.h"

namespace kelvane::tool {

namespace {

void refuseUnfitPair(Side& source, Side& destination)
{
    if (destination.opening().isBlockDevice && destination.opening().size < source.opening().size) {
        throw Failure(destination.name(), destination.opening().size,
                      "the device is too small for an image of " + counted(source.opening().size, "byte"));
    }
}

// A far destination is brought to what the source is, whatever it was. Where its hash file is not needed to tell the
// block size, it need not be waited for.
std::optional<std::uint32_t> foregoneBlockSize(Side& source, Side& destination, const HashFileOptions& options)
{
    const auto own = source.opening().blockSize;
    return destination.isFar() && own == options.blockSize.value_or(own.value_or(0)) ? own : std::nullopt;
}

OwnChange copy(Side& source, Side& destination, const std::vector<Range>& ranges, bool isSparse, ProgressMode mode)
{
    Progress progress("copy", totalLength(ranges), mode);
    destination.startWriting(isSparse);
    source.read(ranges, destination.isFar(), [&](const Stretch& stretch) {
        destination.write(stretch);
        progress.advance(stretch.range.length);
    });
    return destination.finishWriting();
}

std::optional<std::int64_t> reread(Side& source, Side& destination, ProgressMode mode)
{
    const StartingAnew startingAnew;
    source.dropCache();
    destination.dropCache();
    Progress progress("verify", source.opening().size, mode);
    return firstDifference(source, destination, {0, source.opening().size},
                           [&](std::int64_t bytes) { progress.advance(bytes); });
}

Outcome syncSides(Side& source, Side& destination, const PairArguments& arguments, const SyncArguments& how,
                  const Common& common)
{
    const auto start = std::chrono::steady_clock::now();
    const auto agreedBlockSize = [&] {
        refuseUnfitPair(source, destination);
        return commonBlockSize(source, destination, arguments.first.hashFile);
    };
    const auto foregone = foregoneBlockSize(source, destination, arguments.first.hashFile);
    const std::int64_t size = source.opening().size;
    const Comparison found = compare(
        source, destination, {foregone ? *foregone : agreedBlockSize(), size, source.opening().permissions, size},
        agreedBlockSize);
    const std::int64_t formerSize = destination.opening().size;
    const std::int64_t newSize = destination.opening().isBlockDevice ? formerSize : size;
    const std::int64_t copied = totalLength(found.differing);
    const bool isWritten = copied > 0 || !how.isSparse; // holes may have to be filled where nothing differs
    const OwnChange change
        = isWritten ? copy(source, destination, found.differing, how.isSparse, common.progress) : OwnChange();
    const bool foundForeignChange = !change.wasUnchanged;
    // What others wrote at the same time shows in the data alone.
    const bool isReread = how.reread || (!change.wasAlone && common.trust != Trust::Everything);
    std::optional<std::int64_t> difference;
    if (isReread) {
        difference = reread(source, destination, common.progress);
    }
    if (difference || foundForeignChange) {
        destination.distrust();
    }
    const Conclusions ends(source, destination, common);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    Outcome outcome;
    outcome.good = !difference && !foundForeignChange && ends.areSure();
    outcome.text = ends.remarks() + ends.text();
    if (foundForeignChange) {
        outcome.text
            += "changed: " + destination.name() + " was changed by something else while this ran; run it again\n";
    }
    outcome.text += counted(size, "byte") + " compared by " + counted(found.comparisons, "comparison") + " and "
        + counted(found.bytesRead, "byte") + " of data read, " + counted(copied, "byte") + " copied in "
        + counted(std::ssize(found.differing), "range") + ", " + humanTime(seconds) + "\n";
    const char* const verdict = difference ? "different" : outcome.good ? "equal" : "undecided";
    outcome.json = {{"verdict", verdict},
                    {"equal", outcome.good},
                    {"bytesCompared", size},
                    {"bytesCopied", copied},
                    {"ranges", found.differing.size()},
                    {"comparisons", found.comparisons},
                    {"bytesRead", found.bytesRead},
                    {"seconds", seconds},
                    {"verified", isReread},
                    {"freshness", ends.freshness()},
                    {"changedMeanwhile", ends.changed()}};
    if (foundForeignChange && ends.areUnchanged()) {
        outcome.json["changedMeanwhile"].push_back(destination.name());
    }
    if (destination.opening().isMissing) {
        outcome.text += destination.name() + ": made\n";
        outcome.json["formerSize"] = nullptr;
    } else if (formerSize != newSize) {
        outcome.text += destination.name() + ": " + counted(formerSize, "byte") + " before\n";
        outcome.json["formerSize"] = formerSize;
    }
    if (difference) {
        outcome.text += "reread: " + destination.name() + " differs from " + source.name() + " at offset "
            + std::to_string(*difference) + "; see verify --mark\n";
        outcome.json["firstDifference"] = *difference;
    } else if (isReread) {
        outcome.text += outcome.good ? "reread: equal\n" : "reread: no difference seen\n";
    }
    return outcome;
}

} // namespace

Outcome sync(const PairArguments& arguments, const SyncArguments& how, const Common& common)
{
    const Pair pair(arguments, true, common);
    Outcome outcome = pair.run(
        [&](Side& source, Side& destination) { return syncSides(source, destination, arguments, how, common); });
    addLineTraffic(outcome, pair);
    return outcome;
}

} // namespace kelvane::tool

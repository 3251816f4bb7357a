#include "commands/Sync.h"

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Text.h"

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

OwnChange copy(StartedSide& source, StartedSide& destination, const std::vector<Range>& ranges, bool isSparse,
               Reporter& reporter)
{
    const auto phase = reporter.begin("copy", totalLength(ranges));
    WritingSide& writing = destination.startWriting(isSparse);
    writing.announce(ranges);
    source.read(ranges, [&](const Piece& piece) {
        writing.write(piece);
        phase->advance(piece.range.length);
    });
    return writing.finish();
}

std::optional<std::int64_t> reread(StartedSide& source, StartedSide& destination, std::int64_t size, Reporter& reporter)
{
    const StartingAnew startingAnew;
    source.dropCache();
    destination.dropCache();
    const auto phase = reporter.begin("verify", size);
    return firstDifference(source, destination, {0, size}, [&](std::int64_t bytes) { phase->advance(bytes); });
}

SyncResult syncSides(Side& source, Side& destination, const PairArguments& arguments, const SyncArguments& how,
                     const Common& common)
{
    const auto start = std::chrono::steady_clock::now();
    const auto agreedBlockSize = [&] {
        refuseUnfitPair(source, destination);
        return commonBlockSize(source, destination, arguments.first.hashFile);
    };
    const auto foregone = foregoneBlockSize(source, destination, arguments.first.hashFile);
    const std::int64_t size = source.opening().size;
    auto [from, to, found] = compare(
        source, destination, {foregone ? *foregone : agreedBlockSize(), size, source.opening().permissions, size},
        {agreedBlockSize, true});
    // Holes may have to be filled where nothing differs.
    const bool isWritten = !found.differing.empty() || !how.isSparse;
    const OwnChange change = isWritten ? copy(from, to, found.differing, how.isSparse, common.reporter) : OwnChange();
    // What others wrote at the same time shows in the data alone.
    const bool isReread = how.reread || (!change.wasAlone && common.trust != Trust::Everything);
    const std::optional<std::int64_t> difference = isReread ? reread(from, to, size, common.reporter) : std::nullopt;
    if (difference || !change.wasUnchanged) {
        to.distrust();
    }
    const Conclusions ends = conclude(from, to, common);
    const Opening& former = destination.opening();
    const bool isEqual = !difference && change.wasUnchanged && areSure(ends);
    const bool isResized = !former.isMissing && !former.isBlockDevice && former.size != size;
    return {difference    ? Verdict::Different
                : isEqual ? Verdict::Equal
                          : Verdict::Undecided,
            source.name(),
            destination.name(),
            size,
            std::move(found),
            std::chrono::steady_clock::now() - start,
            former.isMissing,
            isResized ? std::optional(former.size) : std::nullopt,
            !change.wasUnchanged,
            isReread,
            difference,
            {},
            ends};
}

} // namespace

SyncResult sync(const PairArguments& arguments, const SyncArguments& how, const Common& common)
{
    const Pair pair(arguments, true, common);
    SyncResult result = pair.run(
        [&](Side& source, Side& destination) { return syncSides(source, destination, arguments, how, common); });
    result.traffic = pair.traffic();
    return result;
}

} // namespace kelvane::tool

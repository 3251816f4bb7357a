#include "commands/Sync.h"

#include <algorithm>

#include "base/Failure.h"
#include "base/Interrupt.h"
#include "base/Text.h"
#include "commands/Points.h"

namespace kelvane::tool {

namespace {

void refuseUnfitPair(Side& source, Side& destination)
{
    if (destination.opening().hasFixedSize && destination.opening().size < source.opening().size) {
        throw Failure(destination.name(), destination.opening().size,
                      "too small, and of a fixed size, for an image of " + counted(source.opening().size, "byte"));
    }
}

// What the user says besides what has changed is said of the source.
Trust trustInDestination(const SyncArguments& how, const Common& common)
{
    return how.changes && common.trust == Trust::Everything ? Trust::Record : common.trust;
}

// A far destination is brought to what the source is, whatever it was. Where its hash file is not needed to tell the
// block size, it need not be waited for.
std::optional<std::uint32_t> foregoneBlockSize(Side& source, Side& destination, const HashFileOptions& options)
{
    const auto own = source.opening().blockSize;
    return destination.isFar() && own == options.blockSize.value_or(own.value_or(0)) ? own : std::nullopt;
}

// What goes over it from now on.
class Line {
public:
    Line(const Side& source, const Side& destination)
        : m_side(source.isFar() ? source : destination)
        , m_before(bytes().value_or(0))
    {
    }

    void show(Phase& phase) const
    {
        if (const auto now = bytes()) {
            phase.carry(*now - m_before);
        }
    }

private:
    std::optional<std::int64_t> bytes() const
    {
        const auto traffic = m_side.lineTraffic();
        return traffic ? std::optional(traffic->bytesSent + traffic->bytesReceived) : std::nullopt;
    }

    const Side& m_side;
    std::int64_t m_before;
};

OwnChange copy(StartedSide& source, StartedSide& destination, const std::vector<Range>& ranges, bool isSparse,
               const Line& line, Reporter& reporter)
{
    const auto phase = reporter.begin("copy", totalLength(ranges));
    WritingSide& writing = destination.startWriting(isSparse);
    writing.announce(ranges);
    source.read(ranges, [&](const Piece& piece) {
        writing.write(piece);
        line.show(*phase);
        piece.data == nullptr ? phase->skip(piece.range.length) : phase->advance(piece.range.length);
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
        return chooseBlockSize(source, destination, arguments.first.hashFile);
    };
    const auto foregone = foregoneBlockSize(source, destination, arguments.first.hashFile);
    const std::int64_t size = source.opening().size;
    auto [from, to, found] = compare(
        source, destination, {foregone ? *foregone : agreedBlockSize(), size, source.opening().permissions, size},
        {agreedBlockSize, true});
    // Holes may have to be filled where nothing differs.
    const bool isWritten = !found.differing.empty() || !how.isSparse;
    const OwnChange change = isWritten
        ? copy(from, to, found.differing, how.isSparse, Line(source, destination), common.reporter)
        : OwnChange();
    // What others wrote at the same time shows in the data alone.
    const bool isReread = how.reread || (!change.wasAlone && trustInDestination(how, common) != Trust::Everything);
    const std::optional<std::int64_t> difference = isReread ? reread(from, to, size, common.reporter) : std::nullopt;
    if (difference || !change.wasUnchanged) {
        to.distrust();
    }
    const Conclusions ends = conclude(from, to);
    const Opening& former = destination.opening();
    const bool isEqual = !difference && change.wasUnchanged && areSure(ends);
    const bool isResized = !former.isMissing && !former.hasFixedSize && former.size != size;
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
            ends,
            false,
            {}};
}

SyncResult foresee(Side& source, Side& destination, const PairArguments& arguments)
{
    const auto start = std::chrono::steady_clock::now();
    refuseUnfitPair(source, destination);
    const std::uint32_t blockSize = chooseBlockSize(source, destination, arguments.first.hashFile);
    const Opening& found = destination.opening();
    const std::int64_t size = source.opening().size;
    const std::int64_t compared = std::min(size, found.size);
    Comparison comparison;
    Conclusions ends;
    if (!found.isMissing) {
        const Start compares = {blockSize, found.size, found.permissions, compared};
        Compared both = compare(source, destination, compares, {[] {}, false});
        comparison = std::move(both.comparison);
        ends = conclude(both.first, both.second);
    }
    append(comparison.differing, between(compared, size));
    const bool isResized = !found.isMissing && !found.hasFixedSize && found.size != size;
    const bool isEqual = comparison.differing.empty() && !found.isMissing && !isResized;
    return {.verdict = !areSure(ends) ? Verdict::Undecided
                : isEqual             ? Verdict::Equal
                                      : Verdict::Different,
            .source = source.name(),
            .destination = destination.name(),
            .size = size,
            .comparison = std::move(comparison),
            .time = std::chrono::steady_clock::now() - start,
            .wasMade = found.isMissing,
            .formerSize = isResized ? std::optional(found.size) : std::nullopt,
            .wasChangedByOthers = false,
            .isReread = false,
            .firstDifference = {},
            .traffic = {},
            .found = ends,
            .isForeseen = true,
            .told = {}};
}

} // namespace

SyncResult sync(const PairArguments& arguments, const SyncArguments& how, const Common& common, RemoteSide::Line* line)
{
    const Pair pair(arguments, true, common, trustInDestination(how, common), line);
    std::optional<Forgotten> told;
    if (how.changes) {
        pair.whenFirstIsOpened([&](HashedImage& hashed) { told = forget(hashed, *how.changes, common); });
    } else if (arguments.first.points.areSome()) {
        pair.whenFirstIsOpened([&](HashedImage& hashed) { told = takePoints(hashed, arguments.first.points); });
    }
    SyncResult result = pair.run([&](Side& source, Side& destination) {
        return how.isDryRun ? foresee(source, destination, arguments)
                            : syncSides(source, destination, arguments, how, common);
    });
    result.traffic = pair.traffic();
    result.told = std::move(told);
    return result;
}

} // namespace kelvane::tool

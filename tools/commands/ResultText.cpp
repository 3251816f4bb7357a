#include <array>
#include <sstream>

#include "base/Text.h"
#include "commands/Results.h"

namespace kelvane::tool {

namespace {

std::string human(std::chrono::nanoseconds time)
{
    return humanTime(std::chrono::duration<double>(time).count());
}

// Lines about what was checked.
std::string remarksOf(const Conclusions& found)
{
    std::string text;
    for (const Conclusions::OfImage& each : found.all) {
        text += each.conclusion.remarks;
    }
    return text;
}

// A line for each image that was changed, or open for writing.
std::string doubtsOf(const Conclusions& found)
{
    std::string text;
    for (const Conclusions::OfImage& each : changedOf(found)) {
        text += "changed: " + each.image + " was changed while this ran; run it again\n";
    }
    for (const Conclusions::OfImage& each : openForWritingOf(found)) {
        const std::string names = namesOf(each.conclusion.writers);
        text += "open: " + each.image + " was open for writing while this ran" + (names.empty() ? "" : ", by " + names)
            + "; nobody knows which moment the answer is of\n";
    }
    return text;
}

std::string textOf(const std::optional<PairTraffic>& traffic)
{
    return !traffic ? ""
                    : traffic->side + ": " + counted(traffic->line.bytesSent, "byte") + " sent, "
            + grouped(traffic->line.bytesReceived) + " received, in " + counted(traffic->line.roundTrips, "round trip")
            + "\n";
}

std::string textOf(const Range& range)
{
    return std::to_string(range.offset) + " + " + std::to_string(range.length) + "\n";
}

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

std::string sized(std::int64_t bytes)
{
    return counted(bytes, "byte") + (bytes < 1024 ? "" : " (" + humanSize(static_cast<double>(bytes)) + ")");
}

std::string textOf(const std::optional<InfoResult::Recorded>& recorded)
{
    if (!recorded) {
        return "none";
    }
    const std::string& image = recorded->record.image.identity.path;
    if (recorded->record.standing == Record::Standing::Open) {
        return "not clean: a run on " + image + " is under way, or was cut short";
    }
    const std::string& point = recorded->record.point;
    return recorded->doubt.isAny() ? "not believed of " + image + ": " + recorded->doubt.text
        : point.empty()            ? "true of " + image + ", which is unchanged"
                                   : "true of " + image + " at the point " + point;
}

} // namespace

std::string nameOf(Verdict verdict)
{
    constexpr std::array NAMES = {"done", "equal", "different", "good", "wrong", RangeList::UNDECIDED};
    return NAMES.at(static_cast<std::size_t>(verdict));
}

std::string textOf(const BuildResult& result)
{
    std::string text = result.hashFile + ": " + counted(result.knownBlocks(), "block") + " known";
    if (result.formerSize) {
        text += ", adapted from " + grouped(*result.formerSize) + " to " + counted(result.imageSize, "byte");
    }
    if (result.tornEntries) {
        text += ", torn hashes discarded: " + std::to_string(*result.tornEntries);
    }
    text += "\n" + humanSize(static_cast<double>(result.traffic.read)) + " read, "
        + humanSize(static_cast<double>(result.traffic.holes)) + " of holes, "
        + humanSize(static_cast<double>(result.traffic.left)) + " known before, in " + human(result.time) + "\n"
        + remarksOf(result.found);
    if (!result.wasUnchanged && areSure(result.found)) {
        text += "changed: " + result.image
            + " was changed while it was read; its hashes were checked again after that, and are true now\n";
    }
    return text + doubtsOf(result.found);
}

std::string textOf(const DiffResult& result)
{
    std::string ranges;
    for (const Range& range : result.differing) {
        ranges += textOf(range);
    }
    std::string remarks;
    if (result.firstSize != result.secondSize) {
        remarks = "sizes: " + counted(result.firstSize, "byte") + " and " + counted(result.secondSize, "byte") + "\n";
    }
    remarks += remarksOf(result.found) + textOf(result.traffic) + doubtsOf(result.found) + nameOf(result.verdict);
    if (!result.differing.empty()) {
        remarks += ": " + counted(totalLength(result.differing), "byte") + " in "
            + counted(std::ssize(result.differing), "range");
    }
    remarks += "; " + counted(result.comparisons, "comparison") + ", " + counted(result.bytesRead, "byte")
        + " of data read\n";
    return ranges + asRemarks(remarks);
}

std::string textOf(const HashResult& result)
{
    return hexadecimal(result.hash) + "  " + result.image + "\n" + doubtsOf(result.found);
}

std::string textOf(const InfoResult& result)
{
    constexpr std::size_t WIDTH = 18;
    std::string text;
    const auto line = [&](const std::string& name, const std::string& value) {
        text += name + std::string(WIDTH - name.size(), ' ') + value + "\n";
    };
    std::ostringstream magic;
    magic << "0x" << std::hex << result.magicNumber;
    const Geometry& geometry = result.geometry;
    const std::int64_t partial = result.partialBlock();
    line("hash file", result.hashFile);
    line("magic number", magic.str());
    line("version", std::to_string(result.version));
    line("hash entries from", sized(result.entriesStart));
    line("block size", sized(geometry.blockSize));
    line("target ends at", sized(geometry.partitionOffset + geometry.targetSize));
    line("partition offset", sized(geometry.partitionOffset));
    line("target size", sized(geometry.targetSize));
    line("hash function",
         std::to_string(result.hashFunction) + " (BLAKE2sp, " + std::to_string(result.hashSize) + " bytes)");
    line("whole blocks",
         grouped(result.wholeBlocks()) + ": " + grouped(result.knownBlocks()) + " known, "
             + grouped(result.unknownBlocks) + " unknown");
    line("partial block", partial == 0 ? "none" : counted(partial, "byte") + ", whose hash is never stored");
    line("file size", sized(result.fileSize) + ", on disk " + sized(result.sizeOnDisk));
    line("known regions", "[" + result.map + "]  # known, + in part, . unknown");
    line("record", textOf(result.recorded));
    return text;
}

std::string textOf(const InvalidateResult& result)
{
    const auto& [bytes, ranges, doubt] = result.forgotten;
    return result.hashFile + ": " + counted(bytes, "byte") + " in " + counted(ranges, "range") + " forgotten\n"
        + doubtsOf(result.found) + (doubt.empty() ? "" : "the next run checks all the same: " + doubt + "\n");
}

std::string textOf(const SyncResult& result)
{
    std::string text;
    if (result.told) {
        text += result.source + ": " + counted(result.told->bytes, "byte") + " in "
            + counted(result.told->ranges, "range") + " told to have changed\n";
    }
    text += remarksOf(result.found) + doubtsOf(result.found);
    if (result.wasChangedByOthers) {
        text += "changed: " + result.destination + " was changed by something else while this ran; run it again\n";
    }
    const Comparison& comparison = result.comparison;
    text += counted(comparison.bytes, "byte") + " compared by " + counted(comparison.comparisons, "comparison")
        + " and " + counted(comparison.bytesRead, "byte") + " of data read, "
        + counted(totalLength(comparison.differing), "byte") + (result.isForeseen ? " to be copied in " : " copied in ")
        + counted(std::ssize(comparison.differing), "range") + ", " + human(result.time) + "\n";
    if (result.wasMade) {
        text += result.destination + (result.isForeseen ? ": to be made\n" : ": made\n");
    } else if (result.formerSize) {
        text += result.destination + ": " + counted(*result.formerSize, "byte")
            + (result.isForeseen ? ", to be resized\n" : " before\n");
    }
    if (result.firstDifference) {
        text += "reread: " + result.destination + " differs from " + result.source + " at offset "
            + std::to_string(*result.firstDifference) + "; see verify --mark\n";
    } else if (result.isReread) {
        text += isGood(result.verdict) ? "reread: equal\n" : "reread: no difference seen\n";
    }
    return text + textOf(result.traffic);
}

std::string textOf(const SyncedInto& synced)
{
    if (!synced.result) {
        return "";
    }
    const SyncResult& result = *synced.result;
    const std::string doubts = doubtsOf(result.found);
    return doubts + result.destination + ": " + nameOf(result.verdict) + ", "
        + grouped(totalLength(result.comparison.differing)) + " of " + counted(result.size, "byte")
        + (result.isForeseen ? " to be copied, " : " copied, ") + human(result.time) + "\n";
}

std::string textOf(const VerifyResult& result)
{
    std::string text;
    for (const Range& wrong : result.wrong) {
        text += "wrong: " + textOf(wrong);
    }
    if (result.recordedSize != result.imageSize) {
        text += "size: " + grouped(result.imageSize) + " bytes, " + grouped(result.recordedSize)
            + " recorded; build adapts it\n";
    }
    if (!result.falseRecord.empty()) {
        text += result.falseRecord + "; remove it\n";
    }
    return text + doubtsOf(result.found)
        + (result.checkedBlocks == 0 ? "no block is known, so nothing was checked\n" : "") + result.image + ": "
        + counted(result.checkedBlocks, "known block") + " checked, " + grouped(result.wrongBlocks) + " wrong"
        + (result.isMarked ? ", now unknown" : "") + "\n";
}

} // namespace kelvane::tool

#include "commands/Commands.h"

#include <algorithm>
#include <iterator>

#include "base/Failure.h"
#include "base/Text.h"
#include "hash_file/SideFiles.h"

namespace kelvane::tool {

Conclusions::Conclusions(HashedImage& image, const Common& common, bool isAnsweredFor)
    : m_endings {{image.image().path(), image.conclude(isAnsweredFor)}}
    , m_isAnsweredFor(isAnsweredFor || common.trust == Trust::Everything)
{
}

Conclusions::Conclusions(Side& first, Side& second, const Common& common)
    : m_endings {{first.name(), first.conclude()}, {second.name(), second.conclude()}}
    , m_isAnsweredFor(common.trust == Trust::Everything)
{
}

bool Conclusions::areUnchanged() const
{
    return std::all_of(m_endings.begin(), m_endings.end(),
                       [](const Ending& each) { return each.conclusion.isUnchanged; });
}

std::vector<Conclusions::Ending> Conclusions::openForWriting() const
{
    std::vector<Ending> found;
    std::copy_if(m_endings.begin(), m_endings.end(), std::back_inserter(found),
                 [this](const Ending& each) { return each.conclusion.isOpenForWriting && !m_isAnsweredFor; });
    return found;
}

std::string Conclusions::text() const
{
    std::string text;
    for (const Ending& each : m_endings) {
        if (!each.conclusion.isUnchanged) {
            text += "changed: " + each.name + " was changed while this ran; run it again\n";
        }
    }
    for (const Ending& each : openForWriting()) {
        const std::string names = namesOf(each.conclusion.writers);
        text += "open: " + each.name + " was open for writing while this ran" + (names.empty() ? "" : ", by " + names)
            + "; nobody knows which moment the answer is of\n";
    }
    return text;
}

std::string Conclusions::remarks() const
{
    std::string text;
    for (const Ending& each : m_endings) {
        text += each.conclusion.remarks;
    }
    return text;
}

nlohmann::ordered_json Conclusions::changed() const
{
    nlohmann::ordered_json names = nlohmann::ordered_json::array();
    for (const Ending& each : m_endings) {
        if (!each.conclusion.isUnchanged) {
            names.push_back(each.name);
        }
    }
    return names;
}

nlohmann::ordered_json Conclusions::freshness() const
{
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const auto& [name, conclusion] : m_endings) {
        nlohmann::ordered_json writers = nlohmann::ordered_json::array();
        for (const Program& program : conclusion.writers) {
            writers.push_back({{"pid", program.process}, {"command", program.command}});
        }
        all.push_back({{"image", name},
                       {"believed", conclusion.isBelieved},
                       {"doubt", conclusion.doubt},
                       {"checkedBlocks", conclusion.checkedBlocks},
                       {"repairedBlocks", conclusion.repairedBlocks},
                       {"openForWriting", conclusion.isOpenForWriting},
                       {"writers", writers},
                       {"recorded", conclusion.isRecorded}});
    }
    return all.size() == 1 ? all[0] : all;
}

namespace {

std::unique_ptr<LocalSide> openNear(const ImageArguments& arguments, bool isDestination, const Common& common)
{
    const auto access = isDestination ? Image::Access::WriteOrMissing : Image::Access::Read;
    return std::make_unique<LocalSide>(arguments.image, access, arguments.hashFile, common);
}

std::unique_ptr<RemoteSide> openFar(const RemotePath& path, const ImageArguments& arguments, bool isDestination,
                                    const RemoteOptions& remote, const Common& common)
{
    Open open;
    open.hashFile = arguments.hashFile.path;
    open.isDestination = isDestination;
    open.adopts = arguments.hashFile.adopts;
    open.trust = common.trust;
    open.jobs = common.jobs;
    if (const auto offset = arguments.hashFile.partitionOffset) {
        open.partitionOffset = static_cast<std::int64_t>(*offset);
    }
    return std::make_unique<RemoteSide>(path, std::move(open), remote, common.progress);
}

void keepSidesApart(const LocalSide& first, const LocalSide& second, bool writesSecond)
{
    if (writesSecond && first.image().isSame(second.image())) {
        throw Failure(second.name(), "this is the source itself");
    }
    keepApart(first.name(), second.hashFilePath());
    keepApart(second.name(), first.hashFilePath());
    keepHashFilesApart(first.hashFilePath(), second.hashFilePath());
}

} // namespace

// The near one first: what is wrong with it needs no connection.
Pair::Pair(const PairArguments& arguments, bool writesSecond, const Common& common)
{
    const std::optional<RemotePath> farFirst = remotePath(arguments.first.image);
    const std::optional<RemotePath> farSecond = remotePath(arguments.second.image);
    if (farFirst && farSecond) {
        throw Failure(arguments.second.image, "one of the two images must be on this machine");
    }
    auto nearFirst = farFirst ? nullptr : openNear(arguments.first, false, common);
    auto nearSecond = farSecond ? nullptr : openNear(arguments.second, writesSecond, common);
    if (nearFirst && nearSecond) {
        keepSidesApart(*nearFirst, *nearSecond, writesSecond);
    }
    first = std::move(nearFirst);
    second = std::move(nearSecond);
    if (farFirst) {
        first = openFar(*farFirst, arguments.first, false, arguments.remote, common);
    } else if (farSecond) {
        second = openFar(*farSecond, arguments.second, writesSecond, arguments.remote, common);
    }
}

void addLineTraffic(Outcome& outcome, const Pair& pair)
{
    for (const Side* const side : {pair.first.get(), pair.second.get()}) {
        if (const std::optional<LineTraffic> line = side->lineTraffic()) {
            outcome.text += side->name() + ": " + counted(line->bytesSent, "byte") + " sent, "
                + grouped(line->bytesReceived) + " received, in " + counted(line->roundTrips, "round trip") + "\n";
            outcome.json["line"] = {{"bytesSent", line->bytesSent},
                                    {"bytesReceived", line->bytesReceived},
                                    {"roundTrips", line->roundTrips}};
        }
    }
}

std::uint32_t commonBlockSize(Side& first, Side& second, const HashFileOptions& options)
{
    const auto own = first.opening().blockSize;
    const auto other = second.opening().blockSize;
    if (own && other && *own != *other) {
        throw Failure(first.opening().hashFile,
                      "its blocks have " + counted(*own, "byte") + ", those of " + second.opening().hashFile + " "
                          + counted(*other, "byte") + "; name another hash file for one of the images");
    }
    return options.blockSize.value_or(own.value_or(other.value_or(HashFile::DEFAULT_BLOCK_SIZE)));
}

} // namespace kelvane::tool

#include "commands/Commands.h"

#include "base/Failure.h"
#include "terminal/Text.h"

namespace kelvane::tool {

Changes::Changes(HashedImage& image)
{
    add(image.image().path(), image.conclude());
}

Changes::Changes(Side& first, Side& second)
{
    for (Side* const side : {&first, &second}) {
        add(side->name(), side->conclude());
    }
}

void Changes::add(const std::string& name, bool isUnchanged)
{
    if (!isUnchanged) {
        m_names.push_back(name);
    }
}

std::string Changes::text() const
{
    std::string text;
    for (const std::string& path : m_names) {
        text += "changed: " + path + " was changed while this ran; run it again\n";
    }
    return text;
}

namespace {

std::unique_ptr<Side> openSide(const ImageArguments& arguments, bool isDestination, const RemoteOptions& remote,
                               const Common& common)
{
    const std::optional<RemotePath> far = remotePath(arguments.image);
    if (!far) {
        const auto access = isDestination ? Image::Access::WriteOrMissing : Image::Access::Read;
        return std::make_unique<LocalSide>(arguments.image, access, arguments.hashFile, common);
    }
    Open open;
    open.hashFile = arguments.hashFile.path;
    open.isDestination = isDestination;
    open.adopts = arguments.hashFile.adopts;
    open.trust = common.trust;
    open.jobs = common.jobs;
    if (const auto offset = arguments.hashFile.partitionOffset) {
        open.partitionOffset = static_cast<std::int64_t>(*offset);
    }
    return std::make_unique<RemoteSide>(*far, std::move(open), remote, common.progress);
}

} // namespace

// The near one first: what is wrong with it needs no connection.
Pair::Pair(const PairArguments& arguments, bool writesSecond, const Common& common)
{
    const bool isFirstFar = remotePath(arguments.first.image).has_value();
    if (isFirstFar && remotePath(arguments.second.image)) {
        throw Failure(arguments.second.image, "one of the two images must be on this machine");
    }
    if (!isFirstFar) {
        first = openSide(arguments.first, false, arguments.remote, common);
    }
    second = openSide(arguments.second, writesSecond, arguments.remote, common);
    if (isFirstFar) {
        first = openSide(arguments.first, false, arguments.remote, common);
    }
    if (!first->isFar() && !second->isFar()) {
        keepApart(first->name(), second->opening().hashFile);
        keepApart(second->name(), first->opening().hashFile);
        keepHashFilesApart(first->opening().hashFile, second->opening().hashFile);
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

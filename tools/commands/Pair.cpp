#include "commands/Pair.h"

#include <utility>

#include "base/Failure.h"
#include "base/Text.h"
#include "hash_file/SideFiles.h"
#include "work/LocalSide.h"

namespace kelvane::tool {

namespace {

std::unique_ptr<LocalSide> openNear(const ImageArguments& arguments, bool isDestination, const Common& common)
{
    const auto access = isDestination ? Image::Access::WriteOrMissing : Image::Access::Read;
    return std::make_unique<LocalSide>(arguments.image, access, arguments.hashFile, common, arguments.points.bitmap);
}

std::unique_ptr<RemoteSide> openFar(const RemotePath& path, const ImageArguments& arguments, bool isDestination,
                                    const RemoteOptions& remote, const Common& common, RemoteSide::Line* line)
{
    Open open;
    open.hashFile = arguments.hashFile.path;
    open.isDestination = isDestination;
    open.adopts = arguments.hashFile.adopts;
    open.trust = common.trust;
    open.cache = common.cache;
    open.jobs = common.jobs;
    if (const auto offset = arguments.hashFile.partitionOffset) {
        open.partitionOffset = static_cast<std::int64_t>(*offset);
    }
    return std::make_unique<RemoteSide>(path, std::move(open), remote, common.reporter, line);
}

void keepSidesApart(const LocalSide& first, const LocalSide& second, bool writesSecond)
{
    if (writesSecond && second.image().isAt(first.image().place())) {
        throw Failure(second.name(), "this is the source itself");
    }
    keepApart(first.name(), second.hashFilePath());
    keepApart(second.name(), first.hashFilePath());
    keepHashFilesApart(first.hashFilePath(), second.hashFilePath());
}

} // namespace

// The near one first: what is wrong with it needs no connection.
Pair::Pair(const PairArguments& arguments, bool writesSecond, const Common& common, Trust trustInSecond,
           RemoteSide::Line* line)
    : commonOfSecond {common.reporter, common.jobs, trustInSecond, common.cache, common.timeout}
{
    const std::optional<RemotePath> farFirst = remotePath(arguments.first.image);
    const std::optional<RemotePath> farSecond = remotePath(arguments.second.image);
    if (farFirst && farSecond) {
        throw Failure(arguments.second.image, "one of the two images must be on this machine");
    }
    auto nearFirst = farFirst ? nullptr : openNear(arguments.first, false, common);
    auto nearSecond = farSecond ? nullptr : openNear(arguments.second, writesSecond, commonOfSecond);
    if (nearFirst && nearSecond) {
        keepSidesApart(*nearFirst, *nearSecond, writesSecond);
    }
    first = std::move(nearFirst);
    second = std::move(nearSecond);
    if (farFirst) {
        first = openFar(*farFirst, arguments.first, false, arguments.remote, common, line);
    } else if (farSecond) {
        second = openFar(*farSecond, arguments.second, writesSecond, arguments.remote, commonOfSecond, line);
    }
}

void Pair::whenFirstIsOpened(std::function<void(HashedImage& hashed)> work) const
{
    auto* const side = dynamic_cast<LocalSide*>(first.get());
    if (side == nullptr) {
        throw Failure(first->name(),
                      "what has changed is told where the image is: --changes and --point take one on this machine");
    }
    side->whenOpened(std::move(work));
}

std::optional<PairTraffic> Pair::traffic() const
{
    for (const Side* const side : {first.get(), second.get()}) {
        if (const std::optional<LineTraffic> line = side->lineTraffic()) {
            return PairTraffic {side->name(), *line};
        }
    }
    return std::nullopt;
}

std::uint32_t chooseBlockSize(Side& first, Side& second, const HashFileOptions& options)
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

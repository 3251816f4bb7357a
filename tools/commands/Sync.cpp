#include <chrono>
#include <filesystem>

#include "base/Failure.h"
#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/Compare.h"
#include "work/Copier.h"
#include "work/HashedImage.h"

namespace kelvane::tool {

namespace {

// Makes the destination what its hash file is to describe: there, and of that size.
void prepare(Image& destination, HashedImage& hashed, std::int64_t size)
{
    if (destination.isMissing()) {
        hashed.markChanging();
        destination.create();
        hashed.takeState();
    }
    const auto resizeImage = [&] {
        if (destination.size() != size && !hashed.changeImage([&] { destination.resize(size); })) {
            hashed.believe(false);
        }
    };
    if (hashed.hashFile().geometry().targetSize != size) {
        hashed.resize(size, resizeImage);
    } else {
        hashed.markChanging();
        resizeImage();
    }
}

} // namespace

Outcome sync(const PairArguments& arguments, const SyncArguments& how, const Common& common)
{
    const auto start = std::chrono::steady_clock::now();
    const Image source = openImage(arguments.first.image, Image::Access::Read);
    Image destination = openImage(arguments.second.image, Image::Access::WriteOrMissing);
    std::error_code error;
    if (!destination.isMissing() && std::filesystem::equivalent(source.path(), destination.path(), error)) {
        throw Failure(destination.path(), "this is the source itself");
    }
    if (destination.isBlockDevice() && destination.size() < source.size()) {
        throw Failure(destination.path(), destination.size(),
                      "the device is too small for an image of " + counted(source.size(), "byte"));
    }
    const std::int64_t formerSize = destination.size();
    const std::int64_t size = destination.isBlockDevice() ? destination.size() : source.size();
    HashedPair pair(source, arguments.first.hashFile, destination, arguments.second.hashFile, size, common);
    pair.first.adaptToImage();
    if (destination.isMissing() || destination.size() != size || pair.second.hashFile().geometry().targetSize != size) {
        prepare(destination, pair.second, size);
    }
    const Comparison found = compare(pair.first, pair.second);
    const std::int64_t copied = totalLength(found.differing);
    bool foundForeignChange = !pair.second.isUnchanged();
    if (copied > 0) {
        Progress progress("copy", copied, common.progress);
        Copier copier(source, destination, pair.second, how.isSparse, progress);
        copier.copy(found.differing);
        pair.second.flushHashes();
        foundForeignChange = foundForeignChange || copier.foundForeignChange();
    }
    std::optional<std::int64_t> difference;
    if (how.reread) {
        destination.dropCache();
        Progress progress("verify", source.size(), common.progress);
        difference = firstDifference(source, destination, {0, source.size()},
                                     [&](std::int64_t bytes) { progress.advance(bytes); });
    }
    if (difference || foundForeignChange) {
        pair.second.markChanging();
        pair.second.believe(false);
    }
    const Changes changes({&pair.first, &pair.second});
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    Outcome outcome;
    outcome.good = !difference && !foundForeignChange && changes.none();
    outcome.text = pair.first.text() + pair.second.text() + changes.text();
    if (foundForeignChange) {
        outcome.text
            += "changed: " + destination.path() + " was changed by something else while this ran; run it again\n";
    }
    outcome.text += counted(source.size(), "byte") + " compared by " + counted(found.comparisons, "comparison")
        + " and " + counted(found.bytesRead, "byte") + " of data read, " + counted(copied, "byte") + " copied in "
        + counted(static_cast<std::int64_t>(found.differing.size()), "range") + ", " + humanTime(seconds) + "\n";
    outcome.json = {{"equal", outcome.good},
                    {"bytesCompared", source.size()},
                    {"bytesCopied", copied},
                    {"ranges", found.differing.size()},
                    {"comparisons", found.comparisons},
                    {"bytesRead", found.bytesRead},
                    {"seconds", seconds},
                    {"verified", how.reread},
                    {"freshness", {pair.first.json(), pair.second.json()}},
                    {"changedMeanwhile", changes.json()}};
    if (foundForeignChange && changes.none()) {
        outcome.json["changedMeanwhile"].push_back(destination.path());
    }
    if (formerSize != destination.size()) {
        outcome.text += destination.path() + ": " + counted(formerSize, "byte") + " before\n";
        outcome.json["formerSize"] = formerSize;
    }
    if (difference) {
        outcome.text += "reread: " + destination.path() + " differs from " + source.path() + " at offset "
            + std::to_string(*difference) + "; see verify --mark\n";
        outcome.json["firstDifference"] = *difference;
    } else if (how.reread) {
        outcome.text += "reread: equal\n";
    }
    return outcome;
}

} // namespace kelvane::tool

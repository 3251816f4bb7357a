#include "commands/Build.h"

#include "commands/Points.h"
#include "work/HashedImage.h"
#include "work/OpenImage.h"

namespace kelvane::tool {

BuildResult build(const ImageArguments& arguments, bool afterCrash, const Common& common)
{
    const auto start = std::chrono::steady_clock::now();
    const std::unique_ptr<Image> opened
        = openImage(arguments.image, Image::Access::Read, common, AtLink::Follow, arguments.points.bitmap);
    const Image& image = *opened;
    HashedImage hashed(image, HashFile::openOrMake(image, arguments.hashFile, common.reporter), common);
    takePoints(hashed, arguments.points);
    BuildResult result;
    if (afterCrash) {
        hashed.belief().mark();
        result.tornEntries = hashed.store().discardTornEntries();
    }
    hashed.adaptToImage();
    hashed.complete({0, image.size()}, "build");
    result.traffic = hashed.traffic();
    result.found = conclude(hashed);
    result.wasUnchanged = changedOf(result.found).empty();
    if (!result.wasUnchanged) { // once, not for ever
        hashed.belief().look();
        hashed.belief().dismiss();
        hashed.complete({0, image.size()}, "check");
        result.traffic.read += hashed.traffic().read;
        result.found = conclude(hashed);
    }
    result.verdict = result.wasUnchanged && areSure(result.found) ? Verdict::Done : Verdict::Undecided;
    result.image = image.path();
    result.imageSize = image.size();
    result.hashFile = hashed.hashFile().path();
    result.wasMade = hashed.hashFile().wasMade();
    result.blockSize = hashed.store().blockSize();
    result.formerSize = hashed.formerSize();
    result.time = std::chrono::steady_clock::now() - start;
    return result;
}

} // namespace kelvane::tool

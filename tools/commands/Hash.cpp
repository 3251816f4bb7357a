#include "commands/Hash.h"

#include <kelvane/BlakeHash.h>

#include "base/Failure.h"
#include "base/Text.h"
#include "commands/Points.h"
#include "work/HashedImage.h"
#include "work/OpenImage.h"

namespace kelvane::tool {

namespace {

Range inImage(const Range& onDevice, const Image& image, const HashFile& hashFile)
{
    const Range range = {onDevice.offset - hashFile.onDevice(0), onDevice.length};
    if (range.offset < 0 || range.offset > image.size() || range.length > image.size() - range.offset) {
        throw Failure(image.path(), onDevice.offset,
                      "a range of " + counted(onDevice.length, "byte") + " is not in the image, which reaches from "
                          + std::to_string(hashFile.onDevice(0)) + " to "
                          + std::to_string(hashFile.onDevice(image.size())));
    }
    return range;
}

} // namespace

HashResult hash(const ImageArguments& arguments, const std::optional<Range>& onDevice, const Common& common)
{
    const std::unique_ptr<Image> opened
        = openImage(arguments.image, Image::Access::Read, common, AtLink::Follow, arguments.points.bitmap);
    const Image& image = *opened;
    HashedImage hashed(image, HashFile::openOrMake(image, arguments.hashFile, common.reporter), common);
    takePoints(hashed, arguments.points);
    hashed.adaptToImage();
    const HashFile& hashFile = hashed.hashFile();
    const Range range = onDevice ? inImage(*onDevice, image, hashFile) : Range {0, image.size()};
    hashed.complete(range, "hash");
    std::atomic<std::int64_t> bytesRead = hashed.traffic().read;
    // Everything whole is known, and nothing is to be stored.
    const Digest value = range.length > 0
        ? hashFile.anotherStore(Store::Access::Read).hash(range, hashed.reader(), bytesRead)
        : BlakeHash().get_hash(nullptr, 0);
    const Conclusions found = conclude(hashed);
    return {areSure(found) ? Verdict::Done : Verdict::Undecided,
            image.path(),
            value,
            {hashFile.onDevice(range.offset), range.length},
            hashed.store().blockSize(),
            bytesRead,
            found};
}

} // namespace kelvane::tool

#include <kelvane/BlakeHash.h>

#include "base/Failure.h"
#include "base/Text.h"
#include "commands/Commands.h"
#include "work/HashedImage.h"

namespace kelvane::tool {

Outcome hash(const ImageArguments& arguments, const std::optional<Range>& onDevice, const Common& common)
{
    const Image image = openImage(arguments.image, Image::Access::Read);
    HashedImage hashed(image, HashFile::openOrMake(image, arguments.hashFile, common.progress), common);
    hashed.adaptToImage();
    const HashFile& hashFile = hashed.hashFile();
    Range range = {0, image.size()};
    if (onDevice) {
        range = {onDevice->offset - hashFile.onDevice(0), onDevice->length};
        if (range.offset < 0 || range.offset > image.size() || range.length > image.size() - range.offset) {
            throw Failure(image.path(), onDevice->offset,
                          "a range of " + counted(onDevice->length, "byte")
                              + " is not in the image, which reaches from " + std::to_string(hashFile.onDevice(0))
                              + " to " + std::to_string(hashFile.onDevice(image.size())));
        }
    }
    hashed.complete(range, "hash");
    std::atomic<std::int64_t> bytesRead = hashed.traffic().read;
    // Everything whole is known, and nothing is to be stored.
    const Store::Hash value = range.length > 0
        ? hashFile.anotherStore(Store::Access::Read).hash(range, image, bytesRead)
        : BlakeHash().get_hash(nullptr, 0);
    const Conclusions found(hashed, common);
    Outcome outcome;
    outcome.good = found.areSure();
    outcome.text = hexadecimal(value) + "  " + image.path() + "\n" + found.text();
    outcome.json = {{"verdict", outcome.good ? "done" : "undecided"},
                    {"image", image.path()},
                    {"hash", hexadecimal(value)},
                    {"offset", hashFile.onDevice(range.offset)},
                    {"length", range.length},
                    {"blockSize", hashed.store().blockSize()},
                    {"bytesRead", bytesRead.load()},
                    {"freshness", found.freshness()},
                    {"changedMeanwhile", found.changed()}};
    return outcome;
}

} // namespace kelvane::tool

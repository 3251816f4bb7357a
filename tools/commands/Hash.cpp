#include "base/Failure.h"
#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/Blocks.h"

namespace kelvane::tool {

namespace {

// With a block that the range covers in part, the store writes the entries of all others in one transfer.
void checkNumberOfBlocks(const Image& image, const HashFile& hashFile, Range range)
{
    constexpr std::int64_t MOST = 65'075'262;
    const std::int64_t blockSize = hashFile.header().blockSize;
    const Range whole = wholeBlocks(range, blockSize);
    if (whole.length / blockSize > MOST && whole.length != range.length) {
        throw Failure(image.path(), hashFile.onDevice(range.offset),
                      "a range that begins or ends inside a block can have at most " + counted(MOST, "whole block")
                          + ", this one has " + counted(whole.length / blockSize, "block")
                          + "; a hash file with a larger --block-size has fewer");
    }
}

} // namespace

Outcome hash(const ImageArguments& arguments, const std::optional<Range>& onDevice, const Common& common)
{
    const Image image(arguments.image, Image::Access::Read);
    HashFile hashFile = HashFile::openOrCreate(image, arguments.hashFile);
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
    checkNumberOfBlocks(image, hashFile, range);
    const Traffic traffic = fillUnknown(hashFile, image, range, common.jobs, common.progress, "hash");
    std::atomic<std::int64_t> bytesRead = traffic.read;
    const Store::Hash value
        = range.length > 0 ? hashFile.store().hash(range, image, bytesRead) : hashFile.store().hash("", 0);
    Outcome outcome;
    outcome.text = hexadecimal(value) + "  " + image.path() + "\n";
    outcome.json = {{"image", image.path()},
                    {"hash", hexadecimal(value)},
                    {"offset", hashFile.onDevice(range.offset)},
                    {"length", range.length},
                    {"blockSize", hashFile.store().blockSize()},
                    {"bytesRead", bytesRead.load()}};
    return outcome;
}

} // namespace kelvane::tool

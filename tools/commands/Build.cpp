#include <chrono>

#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/Blocks.h"

namespace kelvane::tool {

Outcome build(const ImageArguments& arguments, bool afterCrash, const Common& common)
{
    const auto start = std::chrono::steady_clock::now();
    const Image image(arguments.image, Image::Access::Read);
    HashFile hashFile = HashFile::openOrCreate(image, arguments.hashFile);
    const std::uint64_t torn = afterCrash ? hashFile.store().discardTornEntries() : 0;
    const Traffic traffic = fillUnknown(hashFile, image, {0, image.size()}, common.jobs, common.progress, "build");
    const std::int64_t blockSize = hashFile.store().blockSize();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    Outcome outcome;
    outcome.text = hashFile.path() + ": " + counted(image.size() / blockSize, "block") + " known";
    if (const auto former = hashFile.formerTargetSize()) {
        outcome.text += ", adapted from " + grouped(*former) + " to " + counted(image.size(), "byte");
    }
    if (afterCrash) {
        outcome.text += ", torn hashes discarded: " + std::to_string(torn);
    }
    outcome.text += "\n" + humanSize(static_cast<double>(traffic.read)) + " read, "
        + humanSize(static_cast<double>(traffic.holes)) + " of holes, " + humanSize(static_cast<double>(traffic.left))
        + " known before, in " + humanTime(seconds) + "\n";
    outcome.json = {{"hashFile", hashFile.path()},      {"created", hashFile.wasCreated()},
                    {"blockSize", blockSize},           {"knownBlocks", image.size() / blockSize},
                    {"bytesRead", traffic.read},        {"bytesOfHoles", traffic.holes},
                    {"bytesKnownBefore", traffic.left}, {"seconds", seconds}};
    if (const auto former = hashFile.formerTargetSize()) {
        outcome.json["adaptedFrom"] = *former;
    }
    if (afterCrash) {
        outcome.json["tornEntries"] = torn;
    }
    return outcome;
}

} // namespace kelvane::tool

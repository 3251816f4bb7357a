#include <chrono>

#include "commands/Commands.h"
#include "terminal/Text.h"
#include "work/HashedImage.h"

namespace kelvane::tool {

Outcome build(const ImageArguments& arguments, bool afterCrash, const Common& common)
{
    const auto start = std::chrono::steady_clock::now();
    const Image image = openImage(arguments.image, Image::Access::Read);
    HashedImage hashed(image, HashFile::openOrCreate(image, arguments.hashFile, image.size(), common.progress), common);
    std::uint64_t torn = 0;
    if (afterCrash) {
        hashed.markChanging();
        torn = hashed.store().discardTornEntries();
    }
    hashed.adaptToImage();
    hashed.complete({0, image.size()}, "build");
    Traffic traffic = hashed.traffic();
    Changes changes(hashed);
    const nlohmann::ordered_json changed = changes.json();
    const bool isUnchanged = changes.none();
    if (!isUnchanged) { // once, not for ever
        hashed.takeState();
        hashed.believe(false);
        hashed.complete({0, image.size()}, "check");
        traffic.read += hashed.traffic().read;
        changes = Changes(hashed);
    }
    const std::int64_t blockSize = hashed.store().blockSize();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    Outcome outcome;
    outcome.good = isUnchanged;
    outcome.text = hashed.hashFile().path() + ": " + counted(image.size() / blockSize, "block") + " known";
    if (const auto former = hashed.formerSize()) {
        outcome.text += ", adapted from " + grouped(*former) + " to " + counted(image.size(), "byte");
    }
    if (afterCrash) {
        outcome.text += ", torn hashes discarded: " + std::to_string(torn);
    }
    outcome.text += "\n" + humanSize(static_cast<double>(traffic.read)) + " read, "
        + humanSize(static_cast<double>(traffic.holes)) + " of holes, " + humanSize(static_cast<double>(traffic.left))
        + " known before, in " + humanTime(seconds) + "\n" + hashed.text();
    if (!isUnchanged) {
        outcome.text += changes.none() ? "changed: " + image.path()
                + " was changed while it was read; its hashes were "
                  "checked again after that, and are true now\n"
                                       : changes.text();
    }
    outcome.json = {{"hashFile", hashed.hashFile().path()},
                    {"created", hashed.hashFile().wasCreated()},
                    {"blockSize", blockSize},
                    {"knownBlocks", image.size() / blockSize},
                    {"bytesRead", traffic.read},
                    {"bytesOfHoles", traffic.holes},
                    {"bytesKnownBefore", traffic.left},
                    {"seconds", seconds},
                    {"freshness", hashed.json()},
                    {"changedMeanwhile", changed}};
    if (const auto former = hashed.formerSize()) {
        outcome.json["adaptedFrom"] = *former;
    }
    if (afterCrash) {
        outcome.json["tornEntries"] = torn;
    }
    return outcome;
}

} // namespace kelvane::tool

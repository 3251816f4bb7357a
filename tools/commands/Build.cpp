#include <chrono>

#include "base/Text.h"
#include "commands/Commands.h"
#include "work/HashedImage.h"

namespace kelvane::tool {

Outcome build(const ImageArguments& arguments, bool afterCrash, const Common& common)
{
    const auto start = std::chrono::steady_clock::now();
    const Image image = openImage(arguments.image, Image::Access::Read);
    HashedImage hashed(image, HashFile::openOrMake(image, arguments.hashFile, common.progress), common);
    std::uint64_t torn = 0;
    if (afterCrash) {
        hashed.belief().mark();
        torn = hashed.store().discardTornEntries();
    }
    hashed.adaptToImage();
    hashed.complete({0, image.size()}, "build");
    Traffic traffic = hashed.traffic();
    Conclusions found(hashed, common);
    const nlohmann::ordered_json changed = found.changed();
    const bool wasUnchanged = found.areUnchanged();
    if (!wasUnchanged) { // once, not for ever
        hashed.belief().look();
        hashed.belief().dismiss();
        hashed.complete({0, image.size()}, "check");
        traffic.read += hashed.traffic().read;
        found = Conclusions(hashed, common);
    }
    const std::int64_t blockSize = hashed.store().blockSize();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    Outcome outcome;
    outcome.good = wasUnchanged && found.areSure();
    outcome.text = hashed.hashFile().path() + ": " + counted(image.size() / blockSize, "block") + " known";
    if (const auto former = hashed.formerSize()) {
        outcome.text += ", adapted from " + grouped(*former) + " to " + counted(image.size(), "byte");
    }
    if (afterCrash) {
        outcome.text += ", torn hashes discarded: " + std::to_string(torn);
    }
    outcome.text += "\n" + humanSize(static_cast<double>(traffic.read)) + " read, "
        + humanSize(static_cast<double>(traffic.holes)) + " of holes, " + humanSize(static_cast<double>(traffic.left))
        + " known before, in " + humanTime(seconds) + "\n" + found.remarks();
    if (!wasUnchanged && found.areSure()) {
        outcome.text += "changed: " + image.path()
            + " was changed while it was read; its hashes were checked again after that, and are true now\n";
    }
    outcome.text += found.text();
    outcome.json = {{"verdict", outcome.good ? "done" : "undecided"},
                    {"hashFile", hashed.hashFile().path()},
                    {"created", hashed.hashFile().wasMade()},
                    {"blockSize", blockSize},
                    {"knownBlocks", image.size() / blockSize},
                    {"bytesRead", traffic.read},
                    {"bytesOfHoles", traffic.holes},
                    {"bytesKnownBefore", traffic.left},
                    {"seconds", seconds},
                    {"freshness", found.freshness()},
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

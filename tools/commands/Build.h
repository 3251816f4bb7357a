// Makes or completes the hash file of an image.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "commands/Conclusions.h"
#include "commands/ImageArguments.h"
#include "work/Blocks.h"

namespace kelvane::tool {

struct BuildResult {
    Verdict verdict;
    std::string image;
    std::int64_t imageSize;
    std::string hashFile;
    bool wasMade; // the hash file
    std::int64_t blockSize;
    std::optional<std::int64_t> formerSize;   // of the image, when the hash file was adapted
    std::optional<std::uint64_t> tornEntries; // that were discarded, when that was asked for
    Traffic traffic;
    std::chrono::nanoseconds time;
    bool wasUnchanged; // false: it was changed meanwhile, and everything checked once more
    Conclusions found;

    std::int64_t knownBlocks() const { return imageSize / blockSize; }
};

// `afterCrash`: first discards hashes of which a half was stored.
BuildResult build(const ImageArguments& arguments, bool afterCrash, const Common& common);

} // namespace kelvane::tool

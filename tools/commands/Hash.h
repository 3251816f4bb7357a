// The hash of an image, or of a range of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Range.h"
#include "commands/Conclusions.h"
#include "commands/ImageArguments.h"

namespace kelvane::tool {

struct HashResult {
    Verdict verdict;
    std::string image;
    Digest hash;
    Range onDevice;
    std::int64_t blockSize;
    std::int64_t bytesRead;
    Conclusions found;
};

HashResult hash(const ImageArguments& arguments, const std::optional<Range>& onDevice, const Common& common);

} // namespace kelvane::tool

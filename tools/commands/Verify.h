// Checks the known hashes of an image against its data.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"
#include "commands/Conclusions.h"
#include "commands/ImageArguments.h"

namespace kelvane::tool {

struct VerifyArguments {
    double share = 1;
    std::optional<std::uint64_t> seed;
    bool mark = false;
};

struct VerifyResult {
    Verdict verdict;
    std::string image;
    std::int64_t imageSize;
    std::int64_t recordedSize; // by the hash file
    std::int64_t checkedBlocks;
    std::int64_t wrongBlocks;
    std::vector<Range> wrong;          // on the device
    bool isMarked;                     // they are unknown now
    std::optional<std::uint64_t> seed; // of a random share
    std::string falseRecord;           // why one stands that says the opposite; empty when none does
    Conclusions found;
};

VerifyResult verify(const ImageArguments& arguments, const VerifyArguments& how, const Common& common);

} // namespace kelvane::tool

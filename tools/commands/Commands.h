// The commands. Each one returns what it found, as text and as JSON, and throws when it fails.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "base/Range.h"
#include "hash_file/HashFile.h"
#include "work/Blocks.h"

namespace kelvane::tool {

struct Outcome {
    bool good = true; // equal, or right
    std::string text;
    nlohmann::ordered_json json;
};

struct ImageArguments {
    std::string image;
    HashFileOptions hashFile;
};

struct PairArguments {
    ImageArguments first;
    ImageArguments second;
};

struct VerifyArguments {
    double share = 1;
    std::optional<std::uint64_t> seed;
    bool mark = false;
};

Outcome build(const ImageArguments& arguments, bool afterCrash, const Common& common);
Outcome info(const std::string& path);
Outcome hash(const ImageArguments& arguments, const std::optional<Range>& onDevice, const Common& common);
Outcome verify(const ImageArguments& arguments, const VerifyArguments& how, const Common& common);
Outcome diff(const PairArguments& arguments, const Common& common);
Outcome sync(const PairArguments& arguments, bool reread, const Common& common);

} // namespace kelvane::tool

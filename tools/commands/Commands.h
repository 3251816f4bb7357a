// The commands. Each one returns what it found, as text and as JSON, and throws when it fails.
#pragma once

#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "base/Range.h"
#include "hash_file/HashFile.h"
#include "image/Image.h"
#include "work/HashedImage.h"
#include "work/RangeList.h"

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

struct InvalidateArguments {
    std::string list; // a path, or "-" for standard input
    std::optional<ListFormat> format;
    MapEntries entries = MapEntries::Data;
};

struct SyncArguments {
    bool reread = false;
    bool isSparse = true;
};

// Which images were changed while a command used them; the others are recorded as they were.
class Changes {
public:
    explicit Changes(std::initializer_list<HashedImage*> images);

    bool none() const { return m_paths.empty(); }
    std::string text() const;
    nlohmann::ordered_json json() const { return m_paths; }

private:
    std::vector<std::string> m_paths;
};

// Refuses what is a hash file.
Image openImage(const std::string& path, Image::Access access);

Outcome build(const ImageArguments& arguments, bool afterCrash, const Common& common);
Outcome info(const std::string& path);
Outcome hash(const ImageArguments& arguments, const std::optional<Range>& onDevice, const Common& common);
Outcome verify(const ImageArguments& arguments, const VerifyArguments& how, const Common& common);
Outcome invalidate(const ImageArguments& arguments, const InvalidateArguments& what, const Common& common);
Outcome diff(const PairArguments& arguments, const Common& common);
Outcome sync(const PairArguments& arguments, const SyncArguments& how, const Common& common);

} // namespace kelvane::tool

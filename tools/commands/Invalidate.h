// Forgets the hashes of ranges that are known to have changed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "commands/Conclusions.h"
#include "commands/ImageArguments.h"
#include "lists/RangeList.h"

namespace kelvane::tool {

struct InvalidateArguments {
    std::string list; // a path, or "-" for standard input
    ListOptions options;
};

struct Forgotten {
    std::int64_t bytes;
    std::int64_t ranges;
    std::string doubt; // why all hashes must be checked all the same; empty when they need not
};

struct InvalidateResult {
    Verdict verdict;
    std::string hashFile;
    Forgotten forgotten;
    Conclusions found;
};

// Makes ranges unknown, on the disk.
void forgetRanges(HashedImage& hashed, const std::vector<Range>& ranges);

// As a part of another command, with an image whose hash file is open. Fails when what was told may be of another one.
Forgotten forget(HashedImage& hashed, const InvalidateArguments& what, const Common& common);

InvalidateResult invalidate(const ImageArguments& arguments, const InvalidateArguments& what, const Common& common);

} // namespace kelvane::tool

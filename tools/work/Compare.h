// Finds where two images differ by the hashes of ranges alone.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "base/Range.h"
#include "hash_file/HashFile.h"
#include "image/Image.h"
#include "work/Blocks.h"

namespace kelvane::tool {

struct Side {
    const Image& image;
    HashFile& hashFile;
};

struct Comparison {
    std::vector<Range> differing; // ascending, of whole blocks but for the images' ends
    std::int64_t comparisons = 0; // pairs of range hashes
    std::int64_t bytesRead = 0;   // from both images
};

// Opens the hash files of two images, with one block size.
struct HashFilePair {
    HashFilePair(const Image& firstImage, const HashFileOptions& firstOptions, const Image& secondImage,
                 const HashFileOptions& secondOptions);

    HashFile first;
    HashFile second;
};

// Hashes what is unknown in both, then halves ranges whose hashes differ. What only one image has, behind
// the end of the other, is not looked at.
Comparison compare(Side first, Side second, const Common& common);

} // namespace kelvane::tool

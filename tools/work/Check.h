// Finds the known hashes that are not those of the data.
#pragma once

#include <mutex>
#include <vector>

#include "base/Range.h"
#include "hash_file/Store.h"
#include "image/Image.h"

namespace kelvane::tool {

// May be used by several threads at once, each with its own store.
class Check {
public:
    Check(const Image& image, std::int64_t blockSize);

    // Of the whole blocks of a range, all of them known, those whose hash is not the data's. `data` is null for a hole.
    std::vector<Range> wrongBlocks(Store& store, Range range, char* data);

private:
    using Digests = std::vector<unsigned char>;

    Digests digestsOf(Range range, char* data);
    Digests zeroDigest();
    void compare(Store& store, Range whole, const Digests& digests, Range range, std::vector<Range>& wrong) const;

    const Image& m_image;
    std::int64_t m_blockSize;
    std::once_flag m_zerosHashed;
    Digests m_zeroDigest;
};

} // namespace kelvane::tool

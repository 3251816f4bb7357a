#include "hash_file/Digests.h"

#include <kelvane/BlakeHash.h>

#include <cstddef>

namespace kelvane::tool {

DigestBytes digestsOf(const char* data, std::int64_t length, std::int64_t blockSize)
{
    BlakeHash hash;
    const auto count = static_cast<std::size_t>(length / blockSize);
    const std::size_t size = hash.hash_size_in_bytes();
    DigestBytes digests(count * size);
    std::vector<kelvane_buf_t> blocks;
    std::vector<unsigned char*> places;
    for (std::size_t i = 0; i < count; ++i) {
        blocks.push_back(const_cast<char*>(data) + static_cast<std::int64_t>(i) * blockSize); // which is only read
        places.push_back(digests.data() + i * size);
    }
    static_cast<void>(hash.get_hashes(blocks.data(), count, blockSize, places.data())); // which hashes all of them
    return digests;
}

DigestBytes digestsOfPart(const DigestBytes& digests, Range blocks, Range part, std::int64_t blockSize)
{
    if (digests.empty()) {
        return {};
    }
    const std::int64_t size = std::ssize(digests) / (blocks.length / blockSize);
    const auto at = [&](std::int64_t offset) { return digests.begin() + (offset - blocks.offset) / blockSize * size; };
    return {at(part.offset), at(part.end())};
}

Digest digestOfDigests(const DigestBytes& digests)
{
    return digestOf(reinterpret_cast<const char*>(digests.data()), std::ssize(digests));
}

Digest digestOf(const char* data, std::int64_t length)
{
    return BlakeHash().get_hash(const_cast<char*>(data), length); // which is only read
}

} // namespace kelvane::tool

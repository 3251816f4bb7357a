// The data of the benchmarks, and blocks of it.
#pragma once

#include <sodium.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <vector>

#include "BlakeHash.h"
#include "hash/Blake2sp.h"

namespace kelvane::bench {

constexpr int64_t KIB = 1024, MIB = 1024 * KIB, GIB = 1024 * MIB, TIB = 1024 * GIB;
constexpr int64_t BLOCK = 4 * KIB;
constexpr int64_t DIGEST = BLAKE2SP_DIGEST_SIZE_IN_BYTES;
constexpr int64_t ENTRY = DIGEST + 1;
constexpr int64_t HEADER_PAGE = 4096;
constexpr int64_t DATA_SIZE = 32 * MIB;

using Bytes = std::vector<char>;

inline void require(bool success, const char* failure)
{
    if (!success) {
        throw std::runtime_error(failure);
    }
}

inline const Bytes& randomBytes()
{
    static const Bytes bytes = [] {
        Bytes made(DATA_SIZE);
        randombytes_buf(made.data(), made.size());
        return made;
    }();
    return bytes;
}

// Every `distance`-th block from the first on, `count` in all, shuffled in the same way every time.
inline std::vector<int64_t> scattered(int64_t count, int64_t distance)
{
    std::vector<int64_t> blocks(static_cast<std::size_t>(count));
    std::generate(blocks.begin(), blocks.end(), [block = -distance, distance]() mutable { return block += distance; });
    std::shuffle(blocks.begin(), blocks.end(), std::mt19937_64());
    return blocks;
}

// Blocks of one length, and places for their digests.
struct Blocks {
    Blocks(int64_t count, int64_t lengthOfEach)
        : length(lengthOfEach)
        , buffers(static_cast<std::size_t>(count))
        , digests(static_cast<std::size_t>(count * DIGEST))
    {
        for (int64_t i = 0; i < count; ++i) {
            places.push_back(digests.data() + i * DIGEST);
        }
    }

    // The first `size` of the bytes, cut into blocks.
    Blocks(const Bytes& bytes, int64_t lengthOfEach, int64_t size = DATA_SIZE)
        : Blocks(size / lengthOfEach, lengthOfEach)
    {
        char* block = const_cast<char*>(bytes.data()) - length;
        std::generate(buffers.begin(), buffers.end(), [&] { return block += length; });
    }

    Blocks(const Blocks&) = delete;
    Blocks& operator=(const Blocks&) = delete;

    void hash() const
    {
        const auto hashed = BlakeHash().get_hashes(buffers.data(), buffers.size(), length, places.data());
        require(hashed == buffers.size(), "a block was not hashed");
    }

    int64_t length;
    std::vector<void*> buffers;
    std::vector<unsigned char> digests;
    std::vector<unsigned char*> places;
};

} // namespace kelvane::bench

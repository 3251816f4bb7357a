// What the operations of the store share beside its public header.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "BlockHashStore.h"

namespace kelvane {

// The greatest size and position that the system's calls take.
constexpr auto MAXIMUM_SIGNED = static_cast<uint64_t>(std::numeric_limits<kelvane_ssize_t>::max());

// Tells whether, since it was made, an operation of this thread gave up after a failure that was only logged,
// because another exception is propagating.
class FailureWatch {
public:
    bool operationGaveUp() const { return s_givenUp != m_before; }
    static void noteGivenUp() { ++s_givenUp; }

private:
    static thread_local uint64_t s_givenUp;
    uint64_t m_before = s_givenUp;
};

// The geometry of a request in blocks. Span position k is the block firstBlock + k.
struct BlockHashStore::Span {
    kelvane_ssize_t firstBlock;         // the first block that the range touches
    kelvane_ssize_t numberOfBlocks;     // touched wholly or in part
    kelvane_ssize_t partialStart;       // bytes of the first block before the range
    kelvane_ssize_t partialEnd;         // bytes of the last block after the range
    kelvane_ssize_t firstFullPosition;  // span position of the first block that lies wholly in the range
    kelvane_ssize_t numberOfFullBlocks; // at least 0
    kelvane_ssize_t bufferedEntries;    // room in the hash buffer: the full blocks and two partial ones
    kelvane_off_t offset;               // external, as given
    kelvane_buf_len_t length;

    bool startsPartial() const { return firstFullPosition > 0; }
    bool endsPartial() const { return firstFullPosition + numberOfFullBlocks < numberOfBlocks; }
};

// The stretches of target data that a request needs.
struct BlockHashStore::Runs {
    std::vector<kelvane_off_t> offsets; // external
    std::vector<kelvane_off_t> lengths;
    std::vector<int32_t> indexes; // span position of each run's first block

    void append(kelvane_off_t offset, kelvane_ssize_t length, kelvane_ssize_t index)
    {
        if (offsets.empty() || m_end != static_cast<uint64_t>(offset)) {
            offsets.push_back(offset);
            lengths.push_back(0);
            indexes.push_back(static_cast<int32_t>(index));
        }
        lengths.back() += length;
        m_end = static_cast<uint64_t>(offset) + static_cast<uint64_t>(length);
    }

private:
    uint64_t m_end = 0; // of the last run; external offsets may wrap around
};

// Hashes whole blocks side by side, many at a time, into hash buffer entries.
class BlockHasher {
public:
    BlockHasher(IHashFunction& hashFunction, kelvane_buf_len_t blockSize)
        : m_hashFunction(hashFunction)
        , m_blockSize(blockSize)
    {
    }

    // The block is hashed now or by the next flush. False when a block could not be hashed.
    bool add(char* block, char* digest)
    {
        m_blocks[m_count] = block;
        m_digests[m_count] = reinterpret_cast<unsigned char*>(digest);
        return ++m_count < m_blocks.size() || flush();
    }

    bool flush()
    {
        const std::size_t count = std::exchange(m_count, 0);
        return count == 0 || m_hashFunction.get_hashes(m_blocks.data(), count, m_blockSize, m_digests.data()) == count;
    }

private:
    IHashFunction& m_hashFunction;
    kelvane_buf_len_t m_blockSize;
    std::size_t m_count = 0;
    std::array<kelvane_buf_t, 128> m_blocks;
    std::array<unsigned char*, 128> m_digests;
};

} // namespace kelvane

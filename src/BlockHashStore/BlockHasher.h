// From target data to entries.
#pragma once

#include <array>
#include <cstddef>

#include "BlockHashStore.h"

namespace kelvane {

// Fills the entries of consecutive blocks with the hashes of bytes that come in pieces. Whole blocks are hashed where
// they lie, many side by side; others are put together in a buffer, between its zeros.
class BlockHashStore::BlockHasher {
public:
    // `zeros` has room for a block, and holds zeros again in the end. A failure has the text `failure`.
    BlockHasher(IHashFunction& hashFunction, kelvane_ssize_t blockSize, char* zeros, const char* failure)
        : m_hashFunction(hashFunction)
        , m_blockSize(blockSize)
        , m_entrySize(static_cast<kelvane_ssize_t>(getHashEntrySize(hashFunction.hash_size_in_bytes())))
        , m_zeros(zeros)
        , m_failure(failure)
    {
    }
    ~BlockHasher() { clear(); }
    BlockHasher(const BlockHasher&) = delete;
    BlockHasher& operator=(const BlockHasher&) = delete;

    // The first piece to come is of the block with this entry, and starts at a position in it.
    void begin(char* entry, kelvane_ssize_t position);

    // They are hashed now or by the next flush; until then they must stay there.
    void add(const char* bytes, kelvane_ssize_t length);

    void addZeros(kelvane_ssize_t length);

    // What is missing of the last block is taken for zeros.
    void finish();

    void flush();

private:
    static constexpr std::size_t BATCH = 128;

    void place(const char* bytes, kelvane_ssize_t length);
    void addBlock(const char* block);
    void addZeroBlock();
    void clear();

    IHashFunction& m_hashFunction;
    kelvane_ssize_t m_blockSize;
    kelvane_ssize_t m_entrySize;
    char* m_zeros;
    const char* m_failure;
    char* m_entry = nullptr;
    kelvane_ssize_t m_position = 0;                     // in the block of that entry
    kelvane_ssize_t m_placedStart = 0, m_placedEnd = 0; // where the buffer holds other bytes than zeros
    IHashFunction::HashValue m_zeroDigest;              // of a block of zeros, once there was one
    std::size_t m_count = 0;                            // of blocks that wait
    std::array<kelvane_buf_t, BATCH> m_blocks;
    std::array<unsigned char*, BATCH> m_digests;
};

} // namespace kelvane

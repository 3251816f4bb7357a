#include "BlockHashStore/BlockHasher.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kelvane {

void BlockHashStore::BlockHasher::begin(char* entry, kelvane_ssize_t position)
{
    m_entry = entry;
    m_position = position;
}

void BlockHashStore::BlockHasher::add(const char* bytes, kelvane_ssize_t length)
{
    const char* const end = bytes + length;
    while (bytes != end) {
        if (m_position == 0 && end - bytes >= m_blockSize) {
            addBlock(bytes);
            bytes += m_blockSize;
        } else {
            const kelvane_ssize_t count = std::min(m_blockSize - m_position, end - bytes);
            place(bytes, count);
            bytes += count;
        }
    }
}

void BlockHashStore::BlockHasher::addZeros(kelvane_ssize_t length)
{
    while (length > 0) {
        const kelvane_ssize_t count = std::min(m_blockSize - m_position, length);
        length -= count;
        m_position += count;
        if (count == m_blockSize) {
            addZeroBlock();
        } else if (m_position == m_blockSize) {
            finish();
        }
    }
}

// A block can be far larger than what is put into it.
void BlockHashStore::BlockHasher::place(const char* bytes, kelvane_ssize_t length)
{
    std::memcpy(m_zeros + m_position, bytes, static_cast<std::size_t>(length));
    m_placedStart = m_placedStart == m_placedEnd ? m_position : m_placedStart;
    m_position += length;
    m_placedEnd = m_position;
    if (m_position == m_blockSize) {
        finish();
    }
}

void BlockHashStore::BlockHasher::finish()
{
    if (m_position != 0) {
        m_position = 0;
        addBlock(m_zeros);
        flush(); // the buffer is needed again
        clear();
    }
}

void BlockHashStore::BlockHasher::clear()
{
    std::memset(m_zeros + m_placedStart, 0, static_cast<std::size_t>(m_placedEnd - m_placedStart));
    m_placedStart = m_placedEnd = 0;
}

void BlockHashStore::BlockHasher::addBlock(const char* block)
{
    *m_entry = InUse;
    m_blocks[m_count] = const_cast<char*>(block); // which is only read
    m_digests[m_count] = reinterpret_cast<unsigned char*>(m_entry) + 1;
    m_entry += m_entrySize;
    if (++m_count == m_blocks.size()) {
        flush();
    }
}

void BlockHashStore::BlockHasher::addZeroBlock()
{
    m_position = 0;
    if (m_zeroDigest.empty()) {
        m_zeroDigest = m_hashFunction.get_hash(m_zeros, m_blockSize);
        if (m_zeroDigest.size() + 1 != static_cast<std::size_t>(m_entrySize)) {
            throw std::runtime_error(m_failure);
        }
    }
    *m_entry = InUse;
    std::copy(m_zeroDigest.begin(), m_zeroDigest.end(), m_entry + 1);
    m_entry += m_entrySize;
}

void BlockHashStore::BlockHasher::flush()
{
    const std::size_t count = std::exchange(m_count, 0);
    if (count != 0 && m_hashFunction.get_hashes(m_blocks.data(), count, m_blockSize, m_digests.data()) != count) {
        throw std::runtime_error(m_failure);
    }
}

} // namespace kelvane

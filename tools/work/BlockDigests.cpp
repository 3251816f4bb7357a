#include "work/BlockDigests.h"

#include <algorithm>
#include <array>
#include <kelvane/BlakeHash.h>
#include <utility>
#include <vector>

namespace kelvane::tool {

class BlockDigests::Block {
public:
    explicit Block(std::int64_t start)
        : m_range {start, 0}
    {
    }

    Range range() const { return m_range; }

    void add(Range range, const char* data)
    {
        m_range.length += range.length;
        for (Range rest = range; rest.length > 0;) {
            static constexpr std::array<char, 1 << 16> ZEROS = {};
            const Range part = takeFirst(rest, data == nullptr ? std::ssize(ZEROS) : range.length);
            m_message->add(data == nullptr ? ZEROS.data() : data, static_cast<std::size_t>(part.length));
        }
    }

    DigestBytes finish() { return m_message->finish(); }

private:
    Range m_range;
    BlakeHash m_hash;
    std::unique_ptr<IHashFunction::Message> m_message = m_hash.begin_message();
};

BlockDigests::BlockDigests(std::int64_t blockSize, Told told)
    : m_blockSize(blockSize)
    , m_told(std::move(told))
{
}

BlockDigests::~BlockDigests() = default;

void BlockDigests::add(const Piece& piece)
{
    Range rest = piece.range;
    const auto dataAt = [&](Range range) {
        return piece.data == nullptr ? nullptr : piece.data + (range.offset - piece.range.offset);
    };
    if (const std::int64_t inBlock = rest.offset % m_blockSize; inBlock > 0) {
        const Range part = takeFirst(rest, m_blockSize - inBlock);
        addToBlock(part, dataAt(part));
    }
    if (const Range blocks = takeFirst(rest, roundDown(rest.length, m_blockSize)); blocks.length > 0) {
        const bool isThere = blocks.offset == piece.range.offset && !piece.digests.empty();
        m_told(blocks,
               piece.data == nullptr || isThere ? piece.digests
                                                : digestsOf(dataAt(blocks), blocks.length, m_blockSize));
    }
    if (rest.length > 0) {
        addToBlock(rest, dataAt(rest));
    }
}

void BlockDigests::addToBlock(Range range, const char* data)
{
    if (range.offset % m_blockSize == 0) {
        m_block = std::make_unique<Block>(range.offset);
    }
    if (m_block && m_block->range().end() == range.offset) {
        m_block->add(range, data);
        if (m_block->range().length == m_blockSize) {
            m_told(m_block->range(), m_block->finish());
            m_block.reset();
        }
    }
}

} // namespace kelvane::tool

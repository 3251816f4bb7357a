// What the operations of the store share beside its public header.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "BlockHashStore.h"

namespace kelvane {

// The greatest size and position that the system's calls take.
constexpr auto MAXIMUM_SIGNED = static_cast<uint64_t>(std::numeric_limits<kelvane_ssize_t>::max());

constexpr const char* BLOCK_SIZE_OF_ZERO = "block size is invalid: 0";

// Ends an operation after a failure that was only logged, because another exception is propagating.
struct GivenUp { };

// The result of a public operation; an empty one when it gave up.
template <class Operation>
auto emptyWhenGivenUp(Operation operation) -> decltype(operation())
{
    try {
        return operation();
    } catch (const GivenUp&) {
        return decltype(operation())();
    }
}

// Writes zeros in pieces; `write` is given each, and returns how many bytes of it were written. False when they were
// not all.
template <class Write>
bool BlockHashStore::writesZeros(uint64_t length, const Write& write)
{
    const auto bufferSize = std::min<uint64_t>(length, MAXIMUM_CREATE_FILE_BUFFER_SIZE);
    const auto zeros = std::make_unique<char[]>(bufferSize);
    while (length > 0) {
        const uint64_t count = std::min(bufferSize, length);
        if (!validReadWrite(static_cast<kelvane_ssize_t>(count), write(zeros.get(), count))) {
            return false;
        }
        length -= count;
    }
    return true;
}

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
    bool endsPartial() const { return endFullPosition() < numberOfBlocks; }
    kelvane_ssize_t endFullPosition() const { return firstFullPosition + numberOfFullBlocks; }
};

// How failures of a transfer of entries begin. Behind that stands the position in the hash file, or, of the transfer
// itself, the offset that is given.
struct BlockHashStore::TransferFailures {
    const char* ofSeek;
    const char* ofTransfer;
    std::optional<kelvane_off_t> offset = std::nullopt;

    static TransferFailures ofStoring(kelvane_off_t offset)
    {
        return {"failed to seek in hash file: ", "failed to write hash: ", offset};
    }
    static TransferFailures ofLooking() { return {"failed to read hash entry: ", "failed to read hash entry: "}; }
};

// Entries of a request in memory, those of the span positions from `from` up to `to`.
struct BlockHashStore::Window {
    char* entries;
    kelvane_ssize_t entrySize;
    kelvane_ssize_t from;
    kelvane_ssize_t to;

    char* at(kelvane_ssize_t position) const { return entries + (position - from) * entrySize; }
    char* end() const { return at(to); }
    kelvane_ssize_t count() const { return to - from; }
    std::size_t size() const { return static_cast<std::size_t>(end() - entries); }

    // Those of the blocks that lie wholly in the range.
    Window full(const Span& span) const
    {
        const kelvane_ssize_t first = std::clamp(span.firstFullPosition, from, to);
        return {at(first), entrySize, first, std::clamp(span.endFullPosition(), first, to)};
    }

    bool isKnown(kelvane_ssize_t position) const { return (*at(position) & InUse) != 0; }
};

// The stretches of target data that a request needs.
struct BlockHashStore::Runs {
    std::vector<kelvane_off_t> offsets; // external
    std::vector<kelvane_off_t> lengths;
    std::vector<int32_t> indexes;       // of each run's first block in the window
    kelvane_ssize_t firstFullIndex = 0; // of the whole blocks among them
    kelvane_ssize_t endFullIndex = 0;   // behind the last one; 0 without one

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

    void appendFull(kelvane_off_t offset, kelvane_ssize_t length, kelvane_ssize_t index)
    {
        append(offset, length, index);
        firstFullIndex = endFullIndex == 0 ? index : firstFullIndex;
        endFullIndex = index + 1;
    }

private:
    uint64_t m_end = 0; // of the last run; external offsets may wrap around
};

// Marks the time in which a data callback runs.
class BlockHashStore::CallbackGuard {
public:
    explicit CallbackGuard(bool& isInCallback)
        : m_isInCallback(isInCallback)
    {
        m_isInCallback = true;
    }
    ~CallbackGuard() { m_isInCallback = false; }
    CallbackGuard(const CallbackGuard&) = delete;
    CallbackGuard& operator=(const CallbackGuard&) = delete;

private:
    bool& m_isInCallback;
};

// Tells the stretches of neighbours among blocks that are added in their order.
class BlockHashStore::Stretches {
public:
    Stretches(const BlockHashStore& store, const Span& span, const RangeFunc& onRange)
        : m_store(store)
        , m_span(span)
        , m_onRange(onRange)
    {
    }

    void add(kelvane_ssize_t position)
    {
        m_start = m_start == m_end ? position : m_start;
        m_end = position + 1;
    }

    // There is none behind the last one that was added.
    void report()
    {
        if (m_start != m_end) {
            const kelvane_ssize_t count = m_end - std::exchange(m_start, m_end);
            m_onRange(m_store.blockOffset(m_span, m_end - count), count * m_store.blockSize());
        }
    }

private:
    const BlockHashStore& m_store;
    const Span& m_span;
    const RangeFunc& m_onRange;
    kelvane_ssize_t m_start = 0, m_end = 0; // span positions
};

} // namespace kelvane

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "BlockHashStore/BlockHasher.h"
#include "BlockHashStore/Internals.h"

namespace kelvane {

namespace {

constexpr kelvane_ssize_t MAXIMUM_BLOCKS_PER_REQUEST = std::numeric_limits<int32_t>::max();

// Moves a digest to a place that may overlap it.
void moveDigest(char* to, const char* from, std::size_t size)
{
    constexpr std::size_t USUAL_SIZE = 32;
    if (size == USUAL_SIZE) {
        std::array<char, USUAL_SIZE> digest; // a size known when compiling saves the call, which shows
        std::memcpy(digest.data(), from, USUAL_SIZE);
        std::memcpy(to, digest.data(), USUAL_SIZE);
    } else {
        std::memmove(to, from, size);
    }
}

} // namespace

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

void BlockHashStore::throwWithinDataCallback() const
{
    if (m_isInDataCallback) {
        throw std::runtime_error("the store is in use by its own data callback");
    }
}

BlockHashStore::HashValue BlockHashStore::get_hash(kelvane_off_t offset, kelvane_buf_len_t length,
                                                   DataRequiredFunc dataRequiredFunc)
{
    return emptyWhenGivenUp([&] { return hashOfRange(offset, length, dataRequiredFunc, true); });
}

BlockHashStore::HashValue BlockHashStore::hashOfRange(kelvane_off_t offset, kelvane_buf_len_t length,
                                                      const DataRequiredFunc& dataRequiredFunc, bool stores)
{
    throwWithinDataCallback();
    const Span span = spanOf("get_hash", offset, length);
    if (span.numberOfBlocks > MAXIMUM_BLOCKS_PER_REQUEST) {
        throw std::runtime_error("get_hash: too many blocks in one request: " + std::to_string(span.numberOfBlocks));
    }
    growHashBufferWhenNeeded(span.bufferedEntries * entrySize());
    if (length == 0) {
        return aggregate(0);
    }
    const Window window = {m_hashBuffer.get(), entrySize(), 0, span.numberOfBlocks};
    char* const fullEntries = window.at(span.firstFullPosition);
    const kelvane_ssize_t firstFullBlock = span.firstBlock + span.firstFullPosition;
    if (span.numberOfFullBlocks > 0) {
        readEntries(firstFullBlock, span.numberOfFullBlocks, fullEntries,
                    {"failed to seek in hash file: ", "failed to read hash value: ", offset});
    }
    const Runs runs = planRuns(span, window);
    if (!runs.offsets.empty()) {
        const auto data = [&] {
            const CallbackGuard guard(m_isInDataCallback);
            return dataRequiredFunc(runs.offsets, runs.lengths);
        }();
        if (data.size() != runs.offsets.size() || std::find(data.begin(), data.end(), nullptr) != data.end()) {
            failWithErrno("expected more image data than was returned while hashing");
        }
        hashRuns(runs, window, data);
        if (stores && span.numberOfFullBlocks > 0) {
            writeEntries(firstFullBlock, span.numberOfFullBlocks, fullEntries,
                         {"failed to seek in hash file during update: ", "failed to write hash: ", offset});
        }
    }
    return aggregate(span.numberOfBlocks);
}

// The data that the window's entries lack.
BlockHashStore::Runs BlockHashStore::planRuns(const Span& span, const Window& window) const
{
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const kelvane_ssize_t fullEnd = std::min(span.endFullPosition(), window.to);
    kelvane_ssize_t position = window.from;
    Runs runs;
    if (position == 0 && span.startsPartial()) {
        runs.append(span.offset, std::min(span.length, blockSize - span.partialStart), position++);
    }
    for (const char* flags = window.at(position); position < fullEnd; ++position, flags += window.entrySize) {
        if ((*flags & InUse) == 0) {
            runs.append(blockOffset(span, position), blockSize, position - window.from);
        }
    }
    if (position < window.to) {
        runs.append(blockOffset(span, position), blockSize - span.partialEnd, position - window.from);
    }
    return runs;
}

void BlockHashStore::hashRuns(const Runs& runs, const Window& window, const std::vector<std::unique_ptr<char[]>>& data)
{
    BlockHasher hasher = blockHasher("failed to generate block hash");
    for (std::size_t run = 0; run < data.size(); ++run) {
        hasher.begin(window.entries + runs.indexes[run] * window.entrySize,
                     toInternalOffset(runs.offsets[run]) % static_cast<kelvane_ssize_t>(getBlockSize()));
        hasher.add(data[run].get(), runs.lengths[run]);
        hasher.finish();
    }
    hasher.flush();
}

// The hash of the first `numberOfHashes` entries' hashes. They are concatenated where they lie: the request
// is done with the entries, and a second buffer would cost more than the copying.
BlockHashStore::HashValue BlockHashStore::aggregate(kelvane_ssize_t numberOfHashes)
{
    const auto digestSize = static_cast<std::size_t>(hashSize());
    const char* from = m_hashBuffer.get() + 1;
    char* to = m_hashBuffer.get();
    for (kelvane_ssize_t i = 0; i < numberOfHashes; ++i) {
        moveDigest(to, from, digestSize);
        from += getHashEntrySize(digestSize);
        to += digestSize;
    }
    HashValue aggregated_hash = get_hash(m_hashBuffer.get(), digestSize * static_cast<std::size_t>(numberOfHashes));
    if (aggregated_hash.empty()) {
        throw std::runtime_error("failed to hash aggregate hashes");
    }
    return aggregated_hash;
}

} // namespace kelvane

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "BlockHashStore/BlockHasher.h"
#include "BlockHashStore/Internals.h"

namespace kelvane {

namespace {

constexpr kelvane_ssize_t MAXIMUM_BLOCKS_PER_REQUEST = std::numeric_limits<int32_t>::max();

constexpr std::size_t USUAL_SIZE = 32; // of a digest

// Moves a digest to a place that may overlap it. A size known when compiling saves the call, which shows.
void moveDigest(char* to, const char* from, std::size_t size)
{
    if (size == USUAL_SIZE) {
        std::array<char, USUAL_SIZE> digest;
        std::memcpy(digest.data(), from, USUAL_SIZE);
        std::memcpy(to, digest.data(), USUAL_SIZE);
    } else {
        std::memmove(to, from, size);
    }
}

} // namespace

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
    const Window window = {m_hashBuffer.get(), entrySize(), 0, length == 0 ? 0 : span.numberOfBlocks};
    const Window full = window.full(span);
    if (full.count() > 0) {
        readEntries(span.firstBlock + full.from, full.count(), full.entries,
                    {"failed to seek in hash file: ", "failed to read hash value: ", offset});
    }
    const Runs runs = planRuns(span, window, 0);
    if (!runs.offsets.empty()) {
        const auto data = [&] {
            const CallbackGuard guard(m_isInDataCallback);
            return dataRequiredFunc(runs.offsets, runs.lengths);
        }();
        if (data.size() != runs.offsets.size() || std::find(data.begin(), data.end(), nullptr) != data.end()) {
            failWithErrno("expected more image data than was returned while hashing");
        }
        hashRuns(runs, window, data);
        if (stores && full.count() > 0) {
            writeEntries(span.firstBlock + full.from, full.count(), full.entries,
                         {"failed to seek in hash file during update: ", "failed to write hash: ", offset});
        }
    }
    return checkedAggregate(get_hash(window.entries, concatenateHashes(window)));
}

// The data that those whole blocks need whose flag InUse is so, and partial blocks.
BlockHashStore::Runs BlockHashStore::planRuns(const Span& span, const Window& window, uint8_t flag) const
{
    const kelvane_ssize_t size = blockSize();
    const Window full = window.full(span);
    Runs runs;
    if (window.from < full.from) {
        runs.append(span.offset, std::min(span.length, size - span.partialStart), 0);
    }
    const char* flags = full.entries;
    for (kelvane_ssize_t position = full.from; position < full.to; ++position, flags += full.entrySize) {
        if ((*flags & InUse) == flag) {
            runs.appendFull(blockOffset(span, position), size, position - window.from);
        }
    }
    if (full.to < window.to) {
        runs.append(blockOffset(span, full.to), size - span.partialEnd, full.to - window.from);
    }
    return runs;
}

kelvane_ssize_t BlockHashStore::positionInBlock(kelvane_off_t offset) const
{
    return toInternalOffset(offset) % blockSize();
}

void BlockHashStore::hashRuns(const Runs& runs, const Window& window, const std::vector<std::unique_ptr<char[]>>& data)
{
    BlockHasher hasher = blockHasher("failed to generate block hash");
    for (std::size_t run = 0; run < data.size(); ++run) {
        hasher.begin(window.at(runs.indexes[run]), positionInBlock(runs.offsets[run]));
        hasher.add(data[run].get(), runs.lengths[run]);
        hasher.finish();
    }
    hasher.flush();
}

// Moves the hashes of the window's entries together, where they lie: the request is done with the entries, and a
// second buffer would cost more than the copying. Returns how many bytes they are.
std::size_t BlockHashStore::concatenateHashes(const Window& window) const
{
    const auto digestSize = static_cast<std::size_t>(hashSize());
    char* to = window.entries;
    for (const char* entry = window.entries; entry != window.end(); entry += digestSize + 1, to += digestSize) {
        moveDigest(to, entry + 1, digestSize);
    }
    return static_cast<std::size_t>(to - window.entries);
}

BlockHashStore::HashValue BlockHashStore::checkedAggregate(HashValue hash)
{
    if (hash.empty()) {
        throw std::runtime_error("failed to hash aggregate hashes");
    }
    return hash;
}

} // namespace kelvane

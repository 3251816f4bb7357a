#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

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

// Bytes between zeros, which stand there again afterwards. A block can be far larger than what is put into it.
class Placed {
public:
    Placed(char* place, const char* bytes, std::size_t size)
        : m_place(place)
        , m_size(size)
    {
        std::memcpy(place, bytes, size);
    }
    ~Placed() { std::memset(m_place, 0, m_size); }
    Placed(const Placed&) = delete;
    Placed& operator=(const Placed&) = delete;

private:
    char* m_place;
    std::size_t m_size;
};

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
    return hashOfRange(offset, length, dataRequiredFunc, true);
}

BlockHashStore::HashValue BlockHashStore::hashOfRange(kelvane_off_t offset, kelvane_buf_len_t length,
                                                      const DataRequiredFunc& dataRequiredFunc, bool stores)
{
    throwWithinDataCallback();
    const Span span = spanOf("get_hash", offset, length);
    if (span.numberOfBlocks > MAXIMUM_BLOCKS_PER_REQUEST) {
        throw std::runtime_error("get_hash: too many blocks in one request: " + std::to_string(span.numberOfBlocks));
    }
    growHashBufferWhenNeeded(span.bufferedEntries * static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize())));
    if (length == 0) {
        return aggregate(0);
    }
    if (!loadFullEntries(span)) {
        return {};
    }
    const Runs runs = planRuns(span);
    if (!runs.offsets.empty()) {
        const auto data = [&] {
            const CallbackGuard guard(m_isInDataCallback);
            return dataRequiredFunc(runs.offsets, runs.lengths);
        }();
        if (data.size() != runs.offsets.size() || std::find(data.begin(), data.end(), nullptr) != data.end()) {
            failWithErrno("expected more image data than was returned while hashing");
            return {};
        }
        hashRuns(runs, data);
        if (stores && !storeFullEntries(span)) {
            return {};
        }
    }
    return aggregate(span.numberOfBlocks);
}

// False when a failure was only logged; the same below.
bool BlockHashStore::loadFullEntries(const Span& span)
{
    if (span.numberOfFullBlocks == 0) {
        return true;
    }
    const kelvane_ssize_t whereTo = entryOffsetInFile(span.firstBlock + span.firstFullPosition);
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        failWithErrno("failed to seek in hash file: ", whereTo);
        return false;
    }
    char* const first = entryAt(span.firstFullPosition);
    const kelvane_ssize_t bytesToRead = entryAt(span.firstFullPosition + span.numberOfFullBlocks) - first;
    if (!validReadWrite(bytesToRead, m_file.read(first, bytesToRead))) {
        failWithErrno("failed to read hash value: ", span.offset);
        return false;
    }
    return true;
}

BlockHashStore::Runs BlockHashStore::planRuns(const Span& span) const
{
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const auto entrySize = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    Runs runs;
    if (span.startsPartial()) {
        runs.append(span.offset, std::min(span.length, blockSize - span.partialStart), 0);
    }
    const kelvane_ssize_t endFullPosition = span.firstFullPosition + span.numberOfFullBlocks;
    const char* flags = entryAt(span.firstFullPosition);
    for (kelvane_ssize_t position = span.firstFullPosition; position < endFullPosition; ++position) {
        if ((*flags & InUse) == 0) {
            runs.append(blockOffset(span, position), blockSize, position);
        }
        flags += entrySize;
    }
    if (span.endsPartial()) {
        runs.append(blockOffset(span, endFullPosition), blockSize - span.partialEnd, endFullPosition);
    }
    return runs;
}

void BlockHashStore::hashRuns(const Runs& runs, const std::vector<std::unique_ptr<char[]>>& data)
{
    const auto blockSize = static_cast<kelvane_ssize_t>(getBlockSize());
    const auto entrySize = static_cast<kelvane_ssize_t>(getHashEntrySize(hashSize()));
    BlockHasher hasher(*m_hashFunction, blockSize);
    bool hashed = true;
    for (std::size_t run = 0; run < data.size(); ++run) {
        char* block = data[run].get();
        char* const end = block + runs.lengths[run];
        char* entry = entryAt(runs.indexes[run]);
        kelvane_ssize_t partial = toInternalOffset(runs.offsets[run]) % blockSize;
        while (hashed && block < end) {
            *entry = InUse;
            const kelvane_ssize_t bytes = std::min(blockSize - partial, end - block);
            if (bytes == blockSize) {
                hashed = hasher.add(block, entry + 1);
            } else {
                const Placed placed(m_blockBuffer.get() + partial, block, static_cast<std::size_t>(bytes));
                hashed = hasher.add(m_blockBuffer.get(), entry + 1) && hasher.flush(); // the buffer is needed again
            }
            block += bytes;
            entry += entrySize;
            partial = 0;
        }
    }
    if (!hashed || !hasher.flush()) {
        throw std::runtime_error("failed to generate block hash");
    }
}

bool BlockHashStore::storeFullEntries(const Span& span)
{
    if (span.numberOfFullBlocks == 0) {
        return true;
    }
    const kelvane_ssize_t whereTo = entryOffsetInFile(span.firstBlock + span.firstFullPosition);
    if (m_file.seek(whereTo, SEEK_SET) != whereTo) {
        failWithErrno("failed to seek in hash file during update: ", whereTo);
        return false;
    }
    const char* const first = entryAt(span.firstFullPosition);
    const kelvane_ssize_t bytesToWrite = entryAt(span.firstFullPosition + span.numberOfFullBlocks) - first;
    if (!validReadWrite(bytesToWrite, m_file.write(first, static_cast<std::size_t>(bytesToWrite)))) {
        failWithErrno("failed to write hash: ", span.offset);
        return false;
    }
    return true;
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

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "BlockHashStore/BlockHasher.h"
#include "BlockHashStore/Internals.h"
#include "TargetSource.h"

namespace kelvane {

namespace {

constexpr const char* HASHING_FAILED = "failed to generate block hash";

} // namespace

BlockHashStore::HashValue BlockHashStore::hash_range(kelvane_off_t offset, kelvane_buf_len_t length,
                                                     TargetSource& source, const ProgressFunc& progress)
{
    return emptyWhenGivenUp([&] { return hashOfRange(offset, length, source, progress, true); });
}

BlockHashStore::HashValue BlockHashStore::hashOfRange(kelvane_off_t offset, kelvane_buf_len_t length,
                                                      TargetSource& source, const ProgressFunc& progress, bool stores)
{
    throwWithinDataCallback();
    const Span span = spanOf("hash_range", offset, length);
    const auto message = m_hashFunction->begin_message();
    BlockHasher hasher = blockHasher(HASHING_FAILED);
    const auto take = [&](const Window& window) {
        completeWindow(span, window, hasher, source, stores);
        message->add(window.entries, concatenateHashes(window));
    };
    const kelvane_ssize_t end = length == 0 ? 0 : span.numberOfBlocks;
    return throughWindows(span, 0, end, progress, take) ? checkedAggregate(message->finish()) : HashValue();
}

bool BlockHashStore::learn_hashes(kelvane_off_t offset, kelvane_buf_len_t length, TargetSource& source,
                                  const ProgressFunc& progress)
{
    return emptyWhenGivenUp([&] {
        throwWithinDataCallback();
        const Span span = spanOf("learn_hashes", offset, length);
        BlockHasher hasher = blockHasher(HASHING_FAILED);
        return throughWindows(span, span.firstFullPosition, span.endFullPosition(), progress,
                              [&](const Window& window) { completeWindow(span, window, hasher, source, true); });
    });
}

bool BlockHashStore::find_wrong_hashes(kelvane_off_t offset, kelvane_buf_len_t length, TargetSource& source,
                                       const RangeFunc& onWrong, const ProgressFunc& progress)
{
    return emptyWhenGivenUp([&] {
        throwWithinDataCallback();
        const Span span = spanOf("find_wrong_hashes", offset, length);
        BlockHasher hasher = blockHasher(HASHING_FAILED);
        Stretches wrong(*this, span, onWrong);
        std::vector<char> entries;
        const auto compare = [&](const Window& window) {
            entries.resize(window.size());
            const Window right = {entries.data(), window.entrySize, window.from, window.to};
            hashRuns(planRuns(span, window, InUse), right, hasher, source);
            for (kelvane_ssize_t position = window.from; position < window.to; ++position) {
                const bool isWrong = window.isKnown(position)
                    && !std::equal(window.at(position) + 1, window.at(position + 1), right.at(position) + 1);
                isWrong ? wrong.add(position) : wrong.report();
            }
        };
        const bool isComplete = throughWindows(span, span.firstFullPosition, span.endFullPosition(), progress, compare);
        wrong.report();
        return isComplete;
    });
}

// Hashes the data of what is unknown in the window, and stores the new hashes of whole blocks.
void BlockHashStore::completeWindow(const Span& span, const Window& window, BlockHasher& hasher, TargetSource& source,
                                    bool stores)
{
    const Runs runs = planRuns(span, window, 0);
    hashRuns(runs, window, hasher, source);
    if (stores && runs.endFullIndex != 0) {
        const kelvane_ssize_t first = window.from + runs.firstFullIndex;
        writeEntries(span.firstBlock + first, runs.endFullIndex - runs.firstFullIndex, window.at(first),
                     TransferFailures::ofStoring(span.offset));
    }
}

void BlockHashStore::hashRuns(const Runs& runs, const Window& window, BlockHasher& hasher, TargetSource& source)
{
    for (std::size_t run = 0; run < runs.offsets.size(); ++run) {
        hasher.begin(window.at(window.from + runs.indexes[run]), positionInBlock(runs.offsets[run]));
        for (kelvane_ssize_t done = 0; done < runs.lengths[run];) {
            const auto offset
                = static_cast<kelvane_off_t>(static_cast<uint64_t>(runs.offsets[run]) + static_cast<uint64_t>(done));
            done += hashLent(offset, runs.lengths[run] - done, hasher, source);
        }
        hasher.finish();
    }
}

// Hashes what the source lends of the `length` bytes from the offset on, and returns how much that was.
kelvane_ssize_t BlockHashStore::hashLent(kelvane_off_t offset, kelvane_ssize_t length, BlockHasher& hasher,
                                         TargetSource& source)
{
    const CallbackGuard guard(m_isInDataCallback);
    const LentData lent = source.lend(offset, length);
    if (lent.length() < 1 || lent.length() > length || (lent.bytes() == nullptr && !lent.areZeros())) {
        throw std::runtime_error("the source lent something else than was wanted at " + std::to_string(offset) + ": "
                                 + std::to_string(lent.length()) + " bytes of " + std::to_string(length));
    }
    if (lent.areZeros()) {
        hasher.addZeros(lent.length());
    } else {
        hasher.add(lent.bytes(), lent.length());
        hasher.flush();
    }
    source.returned();
    return lent.length();
}

} // namespace kelvane

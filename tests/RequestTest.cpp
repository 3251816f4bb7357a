// Requests to an open store that the model and the fault sweep do not make.
#include <cerrno>
#include <limits>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();
constexpr int64_t INTERESTING[] // as unsigned numbers, those near 2^63 and near 2^64 too
    = {LOWEST, LOWEST + 1, LOWEST + 1000, -4096, -1,   0,    1,           999,    1000,
       1001,   7192,       7193,          8191,  8192, 8193, HIGHEST - 1, HIGHEST};

// What an access ends with: its numbers cannot wrap around, but for the target's length, which has a sign.
std::string violation(uint64_t target, uint64_t partition, int64_t offset, int64_t length)
{
    const auto end = static_cast<int64_t>(target - partition);
    const __int128 start = static_cast<__int128>(offset) - partition;
    return start >= 0 && start < end && start + length <= end
        ? "(none)"
        : "tag: offset is out of bounds: " + std::to_string(offset) + ", " + std::to_string(end);
}

TEST(RequestTest, IsAcceptedInsideTheTargetOnly)
{
    const MemoryStore store(1, 0, 1);
    const auto check = [&](int64_t target, int64_t partition, int64_t offset, int64_t length) {
        const auto [t, p] = std::pair(static_cast<uint64_t>(target), static_cast<uint64_t>(partition));
        Peer::header(*store.store).targetSizeInBytes = t;
        Peer::header(*store.store).partitionOffset = p;
        EXPECT_EQ(Peer::toInternalOffset(*store.store, Peer::fromInternalOffset(*store.store, offset)), offset);
        EXPECT_EQ(failureOf([&] { store->throwOnAccessViolation("tag", offset, length); }),
                  violation(t, p, offset, length));
    };
    for (const int64_t target : INTERESTING) {
        for (const int64_t partition : INTERESTING) {
            for (const int64_t offset : INTERESTING) {
                for (const int64_t length : INTERESTING) {
                    check(target, partition, offset, length);
                }
            }
        }
    }
}

// The last blocks of the largest targets, in whose arithmetic nothing overflows. Offsets past 2^63 - 1 cannot be
// requested but reached; the callback is then given them less 2^64.
TEST(RequestTest, ReachesTheEndOfTheLargestTargets)
{
    const auto check = [](uint64_t partition, uint32_t blockSize, int64_t offset, int64_t length) {
        SCOPED_TRACE(::testing::Message() << partition << ", " << blockSize << ", " << offset << ", " << length);
        MemoryStore store(blockSize, 0, blockSize);
        Peer::header(*store.store).partitionOffset = partition;
        Peer::header(*store.store).targetSizeInBytes = partition + HIGHEST; // HIGHEST bytes
        const __int128 start = static_cast<__int128>(offset) - partition, end = start + length;
        const auto first = static_cast<int64_t>(start / blockSize), last = static_cast<int64_t>((end - 1) / blockSize);
        const int64_t fullBlocks
            = static_cast<int64_t>(end / blockSize) - static_cast<int64_t>((start + blockSize - 1) / blockSize);
        std::vector<CallRecord> calls;
        const CallHook hook([&](const CallRecord& call) {
            calls.push_back(call);
            return Outcome {EIO};
        });
        const std::string place = std::to_string(offset) + ": 5";
        EXPECT_EQ(failureOf([&] { store->invalidate_hashes(offset, length); }), "failed to write hash: " + place);
        ASSERT_EQ(calls.size(), 1U);
        EXPECT_EQ(calls[0].offset, static_cast<off_t>(DATA + static_cast<uint64_t>(first) * ENTRY));
        EXPECT_EQ(calls[0].length, static_cast<std::size_t>(last - first + 1) * ENTRY);
        std::vector<std::pair<int64_t, int64_t>> asked;
        const auto hash = [&] {
            return store->get_hash(offset, length, [&](const auto& offsets, const auto& lengths) {
                for (std::size_t i = 0; i < offsets.size(); ++i) {
                    asked.emplace_back(offsets[i], lengths[i]);
                }
                std::vector<std::unique_ptr<char[]>> zeros;
                zeros.push_back(std::make_unique<char[]>(static_cast<std::size_t>(length)));
                return zeros;
            });
        };
        if (fullBlocks > 0) {
            EXPECT_EQ(failureOf(hash), "failed to read hash value: " + place);
            EXPECT_EQ(failureOf([&] { store->for_each_unknown_range(offset, length, {}); }).substr(0, 27),
                      "failed to read hash entry: ");
        } else {
            struct : TargetSource {
                LentData lend(kelvane_off_t, kelvane_buf_len_t count) override { return LentData::zeros(count); }
            } hole;
            const Bytes right = aggregateDigest(Bytes(2 * blockSize), blockSize, 0, (last - first + 1) * blockSize);
            EXPECT_EQ(hash(), right);
            EXPECT_EQ(store->hash_range(offset, length, hole), right);
            EXPECT_EQ(asked, (std::vector<std::pair<int64_t, int64_t>> {{offset, length}}));
        }
    };
    for (const uint32_t blockSize :
         {34U, 4096U, 4097U, 1U << 20}) { // with smaller ones the hash file would be too large
        for (const uint64_t partition : {0, 1, 4096, 5000}) {
            check(partition, blockSize, HIGHEST - 1, 1 + static_cast<int64_t>(partition)); // up to the target's end
            check(partition, blockSize, HIGHEST - 3 * blockSize, 3 * blockSize + static_cast<int64_t>(partition));
            check(partition, blockSize, HIGHEST - 1, 1);
        }
    }
}

TEST(RequestTest, RefusesWhatItCannotServe)
{
    MemoryStore store(1000, 1050, 100);
    const Bytes before = store.file();
    const auto checkEach = [&](int64_t offset, int64_t length, const std::string& hashing, const std::string& writing) {
        EXPECT_EQ(failureOf([&] { store->get_hash(offset, length, store.target.supplier()); }), hashing);
        EXPECT_EQ(failureOf([&] { store->update_hashes(offset, store.target.bytes.data(), length); }), writing);
        EXPECT_EQ(failureOf([&] { store->invalidate_hashes(offset, length); }), writing);
    };
    const auto check = [&](int64_t offset, int64_t length, const std::string& text) {
        checkEach(offset, length, "get_hash: " + text, "update_hashes: " + text);
    };
    check(1049, 5, "offset is out of bounds: 1049, 1000");
    check(2050, 0, "offset is out of bounds: 2050, 1000");
    check(2049, 2, "offset is out of bounds: 2049, 1000");
    check(1100, -1, "length is negative: -1");
    check(1100, LOWEST, "length is negative: -9223372036854775808");
    const std::string null = "encountered a null buffer while updating hashes";
    for (const auto& [offset, length, text] : {std::tuple(1050, 100, null),
                                               {1051, 0, null},
                                               {1050, -1, "update_hashes: length is negative: -1"},
                                               {1150, 0, "(none)"}}) {
        EXPECT_EQ(failureOf([&] { store->update_hashes(offset, nullptr, length); }), text);
    }
    EXPECT_THROW(store->for_each_unknown_range(1050, 1000, nullptr), std::bad_function_call);
    const kelvane_buf_len_t room = Peer::hashBufferSize(*store.store);
    Peer::header(*store.store).blockSizeInBytes = 1;
    Peer::header(*store.store).targetSizeInBytes = uint64_t {1} << 40;
    const std::string tooMany = "get_hash: too many blocks in one request: ";
    checkEach(1100, int64_t {1} << 31, tooMany + "2147483648", "failed to write hash: 1100: 27");
    checkEach(1050, (int64_t {1} << 40) - 1050, tooMany + "1099511626726", "failed to write hash: 1050: 27");
    Peer::header(*store.store).blockSizeInBytes = 2; // two of the blocks in part
    checkEach(1051, 0xFFFFFFFE, tooMany + "2147483648", "failed to write hash: 1051: 27");
    EXPECT_EQ(Peer::hashBufferSize(*store.store), room);
    EXPECT_EQ(store.target.calls, 0);
    EXPECT_EQ(store.file(), before);
}

TEST(RequestTest, FailsWithinTheDataCallbackOfItsStore)
{
    MemoryStore store(1000, 0, 100);
    const auto use = [&](const std::function<void()>& operation) {
        return failureOf([&] {
            store->get_hash(0, 1000, [&](const auto& offsets, const auto& lengths) {
                operation();
                return store.target.supplier()(offsets, lengths);
            });
        });
    };
    const std::function<void()> operations[] = {[&] { store->get_hash(0, 100, store.target.supplier()); },
                                                [&] { store->update_hashes(0, store.target.bytes.data(), 100); },
                                                [&] { store->invalidate_hashes(0, 100); },
                                                [&] { store->store_hashes_of_zeros(0, 100); },
                                                [&] { store->store_hashes(0, 100, nullptr); },
                                                [&] { store->for_each_unknown_range(0, 100, nullptr); },
                                                [&] { store->discard_torn_entries(); }};
    const Bytes before = store.file();
    for (const auto& operation : operations) {
        EXPECT_EQ(use(operation), "the store is in use by its own data callback");
        EXPECT_EQ(store.file(), before);
    }
    EXPECT_EQ(use([] {}), "(none)");
}

// More than are written at once; the blocks around them keep their entries.
TEST(RequestTest, HashesThatNeedNoDataAreWrittenInPieces)
{
    MemoryStore store(100000, 0, 1);
    store->get_hash(0, 100000, store.target.supplier());
    Bytes right = store.file();
    for (int64_t block = 10; block < 99990; ++block) {
        setEntry(right, block, digestOf({0}));
    }
    const CallCounter calls;
    store->store_hashes_of_zeros(10, 99980);
    EXPECT_EQ(calls.counts(), (CallCounts {{Call::WriteAt, 4}}));
    EXPECT_TRUE(store.file() == right);
    const Bytes hashes(32 * 99980, 7);
    store->store_hashes(10, 99980, hashes.data());
    EXPECT_EQ(calls.counts(), (CallCounts {{Call::WriteAt, 8}}));
    for (int64_t block = 10; block < 99990; ++block) {
        setEntry(right, block, Bytes(32, 7));
    }
    EXPECT_TRUE(store.file() == right);
}

TEST(RequestTest, DiscardTornEntriesClearsAndCountsWhatEndsInZerosFromASectorOn)
{
    MemoryStore store(200 * 100, 0, 100);
    store->get_hash(0, 200 * 100, store.target.supplier());
    const Bytes whole = store.file();
    EXPECT_EQ(store->discard_torn_entries(), 0);
    Bytes torn = whole, right = whole;
    for (const std::size_t sector : {1, 2, 9}) {
        const std::size_t boundary = DATA + sector * 512;
        const std::size_t block = (boundary - DATA) / ENTRY;
        std::fill(&torn[boundary], &torn[entryAt(block + 1)], static_cast<unsigned char>(0));
        setEntry(right, static_cast<int64_t>(block), {});
    }
    for (const auto& [file, count] : {std::pair(torn, 3U), {right, 0U}}) {
        writeFile(store.path, file);
        store.reopen();
        EXPECT_EQ(store->discard_torn_entries(), count);
        EXPECT_EQ(store.file(), right);
    }
}

// The file is lost; the position of the failure is that of block 1's entry.
TEST(RequestTest, FailsWithoutItsFile)
{
    MemoryStore store(1000, 1050, 100);
    const auto supplier = [&](const auto& offsets, const auto& lengths) {
        Peer::file(*store.store) = SimpleCachedReader(0);
        return store.target.supplier()(offsets, lengths);
    };
    const std::pair<std::function<void()>, std::string> failures[]
        = {{[&] { store->get_hash(1150, 100, supplier); }, "failed to seek in hash file during update: 4129: 9"},
           {[&] { store->get_hash(1150, 100, supplier); }, "failed to seek in hash file: 4129: 9"},
           {[&] { store->get_hash(1151, 10, supplier); }, "(none)"}, // no entry is wanted
           {[&] { store->invalidate_hashes(1150, 100); }, "failed to seek in hash file: 4129: 9"},
           {[&] { store->discard_torn_entries(); }, "failed to read hash entry: 4591: 9"},
           {[&] { Peer::initFileRegion(*store.store, 10, 20); },
            "error in seek while initting file region: 10, 20, errno = 9"}};
    for (const auto& [operation, text] : failures) {
        EXPECT_EQ(failureOf(operation), text);
    }
}

} // namespace
} // namespace kelvane::testing

// Requests to an open store that the model and the fault sweep do not make.
#include <cerrno>
#include <limits>

#include "Support.h"

namespace kelvane::testing {
namespace {

constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();

using Ranges = std::vector<std::pair<kelvane_off_t, kelvane_off_t>>;

TEST(Request, RefusesWhatItCannotServe)
{
    MemoryStore store(1000, 1050, 100);
    const Bytes before = store.file();
    const auto check = [&](int64_t offset, int64_t length, const std::string& text) {
        EXPECT_EQ(failureOf([&] { store->get_hash(offset, length, store.target.supplier()); }), "get_hash: " + text);
        EXPECT_EQ(failureOf([&] { store->update_hashes(offset, store.target.bytes.data(), length); }),
                  "update_hashes: " + text);
        EXPECT_EQ(failureOf([&] { store->invalidate_hashes(offset, length); }), "update_hashes: " + text);
    };
    check(1049, 5, "offset is out of bounds: 1049, 1000");
    check(2050, 0, "offset is out of bounds: 2050, 1000");
    check(2049, 2, "offset is out of bounds: 2049, 1000");
    check(1100, -1, "length is negative: -1");
    check(1100, LOWEST, "length is negative: -9223372036854775808");
    const auto updateFailure = [&](int64_t offset, int64_t length) {
        return failureOf([&] { store->update_hashes(offset, nullptr, length); });
    };
    EXPECT_EQ(updateFailure(1050, 100), "encountered a null buffer while updating hashes");
    EXPECT_EQ(updateFailure(1051, 0), "encountered a null buffer while updating hashes");
    EXPECT_EQ(updateFailure(1050, -1), "update_hashes: length is negative: -1");
    EXPECT_EQ(updateFailure(1150, 0), "(none)");
    const kelvane_buf_len_t room = Peer::hashBufferSize(*store.store);
    Peer::header(*store.store).blockSizeInBytes = 1;
    Peer::header(*store.store).targetSizeInBytes = uint64_t {1} << 40;
    check(1100, int64_t {1} << 31, "too many blocks in one request: 2147483648");
    check(1050, (int64_t {1} << 40) - 1050, "too many blocks in one request: 1099511626726");
    EXPECT_EQ(Peer::hashBufferSize(*store.store), room);
    EXPECT_EQ(store.target.calls, 0);
    EXPECT_EQ(store.file(), before);
}

// The file is lost; the position of the failure is that of block 1's entry.
TEST(Request, FailsWithoutItsFile)
{
    MemoryStore store(1000, 1050, 100);
    const auto lose = [&] { Peer::file(*store.store) = SimpleCachedReader(0); };
    const auto hash = [&] {
        store->get_hash(1150, 100, [&](const auto& offsets, const auto& lengths) {
            lose();
            return store.target.supplier()(offsets, lengths);
        });
    };
    EXPECT_EQ(failureOf(hash), "failed to seek in hash file during update: 4129: 9");
    EXPECT_EQ(failureOf(hash), "failed to seek in hash file: 4129: 9");
    EXPECT_EQ(failureOf([&] { store->invalidate_hashes(1150, 100); }), "failed to seek in hash file: 4129: 9");
    EXPECT_EQ(failureOf([&] { store->discard_torn_entries(); }), "failed to read hash entry: 4591: 9");
    EXPECT_EQ(failureOf([&] { Peer::initFileRegion(*store.store, 10, 20); }),
              "error in seek while initting file region: 10, 20, errno = 9");
}

TEST(Request, ReachesTheLastOffset)
{
    const MemoryStore store(1, 0, 4096);
    Peer::header(*store.store).targetSizeInBytes = UINT64_MAX;
    Peer::header(*store.store).partitionOffset = 4096;
    Ranges asked;
    const auto supplier = [&](const auto& offsets, const auto& lengths) {
        asked.emplace_back(offsets[0], lengths[0]);
        std::vector<std::unique_ptr<char[]>> data;
        data.push_back(std::make_unique<char[]>(2));
        data.back()[1] = 'x';
        return data;
    };
    Bytes block(4096);
    block[4094] = 'x';
    EXPECT_EQ(store->get_hash(HIGHEST - 2, 2, supplier), digestOf(digestOf(block)));
    EXPECT_EQ(asked, (Ranges {{HIGHEST - 2, 2}}));
}

TEST(Request, HashFunctionFailuresKeepTheFileUntilAllBlocksAreHashed)
{
    constexpr int BLOCKS = 300;
    constexpr int64_t LENGTH = BLOCKS * 20 - 7; // the last block is partial
    for (const int failAt : {0, 1, 127, 128, 200, 256, BLOCKS - 2, BLOCKS - 1, BLOCKS}) {
        for (const std::size_t size : {0U, 31U, 33U}) {
            SCOPED_TRACE(std::to_string(failAt) + ", " + std::to_string(size));
            MemoryStore store(LENGTH, 11, 20);
            const Bytes before = store.file();
            Bytes after = before;
            for (int64_t block = 0; block < BLOCKS - 1; ++block) {
                setEntry(after, block, blockDigest(store.target.bytes, 20, block, 0, LENGTH));
            }
            const auto hash = [&] { return store->get_hash(11, LENGTH, store.target.supplier()); };
            const auto update = [&] { store->update_hashes(11, store.target.bytes.data(), LENGTH); };
            const auto failureWith = [&](const std::function<void()>& operation) {
                auto good
                    = std::exchange(Peer::hashFunction(*store.store), std::make_unique<FailingHash>(failAt, size));
                const std::string failure = failureOf(operation);
                Peer::hashFunction(*store.store) = std::move(good);
                return failure;
            };
            if (failAt < BLOCKS - 1) {
                EXPECT_EQ(failureWith(update), "failed to compute hash from data");
                EXPECT_EQ(store.file(), before);
            }
            if (failAt < BLOCKS) {
                EXPECT_EQ(failureWith(hash), "failed to generate block hash");
                EXPECT_EQ(store.file(), before);
            } else if (size == 0) { // other sizes of the aggregate are the hash function's own business
                EXPECT_EQ(failureWith(hash), "failed to hash aggregate hashes");
                EXPECT_EQ(store.file(), after);
            }
            EXPECT_EQ(hash(), aggregateDigest(store.target.bytes, 20, 0, LENGTH));
            EXPECT_EQ(store.file(), after);
        }
    }
}

// A hash function with digests of another size, which repeat one byte.
struct SizedHash : IHashFunction {
    explicit SizedHash(std::size_t sizeInBytes)
        : size(sizeInBytes)
    {
    }
    HashValue get_hash(kelvane_buf_t buffer, kelvane_buf_len_t length) override
    {
        return HashValue(size, BlakeHash().get_hash(buffer, length)[0]);
    }
    kelvane_size_t hash_size_in_bytes() const override { return size; }

    std::size_t size;
};

TEST(Request, FollowsTheDigestSizeOfTheHashFunction)
{
    for (const std::size_t size : {1U, 20U, 100U}) {
        MemoryStore store(400, 0, 10);
        SizedHash hash(size);
        Bytes expected(store.file()), digests;
        expected.resize(DATA);
        for (std::size_t block = 0; block < 40; ++block) {
            const Bytes digest = hash.get_hash(store.target.bytes.data() + block * 10, 10);
            expected.push_back(1);
            expected.insert(expected.end(), digest.begin(), digest.end());
            digests.insert(digests.end(), digest.begin(), digest.end());
        }
        Peer::hashFunction(*store.store) = std::make_unique<SizedHash>(size);
        const Bytes aggregate = hash.get_hash(digests.data(), static_cast<kelvane_buf_len_t>(digests.size()));
        EXPECT_EQ(store->get_hash(0, 400, store.target.supplier()), aggregate);
        EXPECT_EQ(store->get_hash(0, 400, nullptr), aggregate);
        Bytes found = store.file();
        found.resize(expected.size());
        EXPECT_EQ(found, expected);
    }
}

TEST(Request, OneBufferHashPassesOnWhatTheHashFunctionGives)
{
    MemoryStore store(100, 0, 4096);
    EXPECT_EQ(store->get_hash(store.target.bytes.data(), 100), digestOf(store.target.bytes));
    EXPECT_TRUE(store->get_hash(kelvane_buf_t {}, 1).empty());
    Peer::hashFunction(*store.store) = std::make_unique<FailingHash>(0, 5);
    EXPECT_EQ(store->get_hash(store.target.bytes.data(), 1).size(), 5U);
}

} // namespace
} // namespace kelvane::testing

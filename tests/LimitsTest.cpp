// The edges of what the format and the system allow, with real files.
#include <iostream>

#include "Allocations.h"
#include "Support.h"

namespace kelvane::testing {

namespace {

constexpr int64_t BLOCK = 4096;
constexpr int64_t LONGEST = INT32_MAX * BLOCK; // that a request may be

// Of the hash file, which has 66 GiB, only the header and the last entry take space.
void checkEndOfTarget(int64_t partition, int64_t length)
{
    const TemporaryDirectory directory;
    const std::string path = directory.file("hashes");
    const int64_t end = partition + length;
    const auto size = static_cast<kelvane_size_t>(end);
    writeFile(path, {});
    std::filesystem::resize_file(path, Peer::computeFileSize(size, BLOCK, 32));
    Peer::initHeader(path, size, partition, BLOCK, 1);
    const auto store = BlockHashStore::open(path, size);
    Bytes data = randomBytes(BLOCK, 1);
    store->update_hashes(end - BLOCK, data.data(), BLOCK);
    EXPECT_EQ(store->get_hash(end - BLOCK, BLOCK, nullptr), digestOf(digestOf(data)));
    EXPECT_EQ(failureOf([&] { store->invalidate_hashes(end, 0); }),
              "update_hashes: offset is out of bounds: " + std::to_string(end) + ", " + std::to_string(length));
    const auto hash = [&] { store->get_hash(partition, length, nullptr); };
    if (length == LONGEST) { // accepted, but there is no memory for its entries
        peakOf(1 << 20, [&] { EXPECT_THROW(hash(), std::bad_alloc); });
    } else {
        EXPECT_EQ(failureOf(hash), "get_hash: too many blocks in one request: 2147483648");
    }
    // At most 65075262 entries are written at once; more are refused before anything is made ready.
    for (const auto& [blocks, text] :
         {std::pair(65075263L, "failed to write hash: " + std::to_string(partition) + ": 27"),
          {length / BLOCK, "failed to write hash: " + std::to_string(partition) + ": 27"},
          {65075262L, std::string("std::bad_alloc")}}) {
        peakOf(1 << 20, [&] {
            EXPECT_EQ(failureOf([&] { store->invalidate_hashes(partition, blocks * BLOCK); }), text);
            EXPECT_EQ(failureOf([&] { store->update_hashes(partition, data.data(), blocks * BLOCK); }), text);
        });
    }
}

TEST(LimitsTest, TargetsOf8TiB)
{
    for (const int64_t partition : {0L, 5L << 30}) {
        checkEndOfTarget(partition, LONGEST);
        checkEndOfTarget(partition, LONGEST + BLOCK);
        std::cout << "limits: 2^31 blocks from offset " << partition << (HasFailure() ? ": wrong\n" : ": right\n");
    }
}

// Zeros that a source knows of cost their entries, and no more than a few hundred KiB of memory at a time; more blocks
// than get_hash takes are no obstacle.
TEST(LimitsTest, AHoleOf15TiB)
{
    struct Hole : TargetSource {
        LentData lend(kelvane_off_t, kelvane_buf_len_t length) override { return ++calls, LentData::zeros(length); }
        int calls = 0;
    } hole;
    constexpr int64_t LARGE = 16 << 20, SIZE = 15L << 40;
    const TemporaryDirectory directory;
    const std::string path = directory.file("hashes");
    const auto openFor = [&](int64_t size, int64_t blockSize) {
        const auto target = static_cast<kelvane_size_t>(size);
        writeFile(path, {});
        std::filesystem::resize_file(path, Peer::computeFileSize(target, static_cast<uint32_t>(blockSize), 32));
        Peer::initHeader(path, target, 0, static_cast<uint32_t>(blockSize), 1);
        return BlockHashStore::open(path, target);
    };
    const auto store = openFor(SIZE, LARGE);
    Bytes hash;
    EXPECT_LE(peakOf(SIZE_MAX, [&] { hash = store->hash_range(0, SIZE, hole); }), 300U << 10);
    EXPECT_EQ(hole.calls, SIZE / LARGE / 4096);
    Bytes digests;
    const Bytes digest = digestOf(Bytes(LARGE));
    for (int64_t i = 0; i < SIZE / LARGE; ++i) {
        digests.insert(digests.end(), digest.begin(), digest.end());
    }
    EXPECT_EQ(hash, digestOf(std::move(digests)));
    EXPECT_EQ(store->hash_range(0, SIZE, hole), hash);
    EXPECT_EQ(hole.calls, SIZE / LARGE / 4096);
    const auto more = openFor(2 * LONGEST, BLOCK);
    EXPECT_FALSE(more->learn_hashes(0, 2 * LONGEST, hole, [](auto) { return false; }));
    EXPECT_TRUE(more->hash_range(0, 2 * LONGEST, hole, [](auto) { return false; }).empty());
}

} // namespace
} // namespace kelvane::testing

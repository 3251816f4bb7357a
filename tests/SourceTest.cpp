// Operations with a source, beyond what the model and the fault sweep do with them.
#include <gmock/gmock.h>

#include <cstring>

#include "Allocations.h"
#include "HashFileInspector.h"
#include "Support.h"
#include "SystemCalls.h"
#include "TargetWriteGuard.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;
using Stretch = std::pair<kelvane_off_t, kelvane_off_t>;

constexpr int64_t BLOCK = 10;
constexpr int64_t PIECE = 4096 * BLOCK; // what an operation does at once
constexpr int64_t START = 1000;
constexpr int64_t SIZE = 2 * PIECE + 777; // three pieces

struct SourceTest : ::testing::Test {
    // Runs an operation, which may hold no more memory than it may and leaves nothing lent.
    void use(const std::function<void(TargetSource&)>& operation)
    {
        std::string failure;
        MemorySource source(START, std::as_bytes(std::span(memory.target.bytes)));
        EXPECT_LE(peakOf(SIZE_MAX, [&] { failure = failureOf([&] { operation(source); }); }), 300U << 10);
        EXPECT_EQ(failure, "(none)");
    }

    // A progress function that stops at the `most`-th call.
    BlockHashStore::ProgressFunc upTo(std::size_t most)
    {
        done.clear();
        return [this, most](kelvane_buf_len_t bytes) {
            done.push_back(bytes);
            return done.size() < most;
        };
    }

    std::size_t knownBlocks() const
    {
        std::size_t unknown = 0;
        HashFileInspector(memory.path).for_each_unknown_range([&](auto, auto length) { unknown += length / BLOCK; });
        return SIZE / BLOCK - unknown;
    }

    MemoryStore memory {SIZE, START, BLOCK};
    std::vector<kelvane_buf_len_t> done;
};

TEST_F(SourceTest, LongRangesAreDoneInPieces)
{
    const Bytes right = aggregateDigest(memory.target.bytes, BLOCK, 3, SIZE - 3);
    Bytes hash;
    CallCounts calls;
    use([&](TargetSource& source) {
        const CallCounter counter;
        hash = memory->hash_range(START + 3, SIZE - 3, source, upTo(100));
        calls = counter.counts();
    });
    EXPECT_EQ(hash, right);
    EXPECT_THAT(done, ElementsAre(PIECE - 3, 2 * PIECE - 3, SIZE - 3));
    EXPECT_EQ(calls[Call::WriteAt], 3U);
    EXPECT_EQ(knownBlocks(), SIZE / BLOCK - 1);
    use([&](TargetSource& source) { EXPECT_TRUE(memory->learn_hashes(START, SIZE, source, upTo(100))); });
    EXPECT_THAT(done, ElementsAre(PIECE, 2 * PIECE, SIZE));
    EXPECT_EQ(knownBlocks(), SIZE / BLOCK);
    const Bytes known = memory.file();
    memory->invalidate_hashes(START + PIECE, 5 * BLOCK);
    use([&](TargetSource& source) { hash = HashFileInspector(memory.path).hash_range(START + 3, SIZE - 3, source); });
    EXPECT_EQ(hash, right);
    EXPECT_EQ(knownBlocks(), SIZE / BLOCK - 5);
    use([&](TargetSource& source) { EXPECT_TRUE(memory->learn_hashes(START, SIZE, source)); });
    EXPECT_TRUE(memory.file() == known);
}

TEST_F(SourceTest, StoppedOperationsKeepWhatIsDone)
{
    use([&](TargetSource& source) { EXPECT_TRUE(memory->hash_range(START, SIZE, source, upTo(1)).empty()); });
    EXPECT_EQ(knownBlocks(), 4096U);
    use([&](TargetSource& source) { EXPECT_FALSE(memory->learn_hashes(START, SIZE, source, upTo(2))); });
    EXPECT_EQ(knownBlocks(), 2 * 4096U);
    EXPECT_THAT(done, ElementsAre(PIECE, 2 * PIECE));
    // At the end there is nothing left to stop.
    use([&](TargetSource& source) { EXPECT_TRUE(memory->learn_hashes(START, SIZE, source, upTo(3))); });
    use([&](TargetSource& source) { EXPECT_FALSE(memory->hash_range(START, SIZE, source, upTo(3)).empty()); });
}

TEST_F(SourceTest, WrongHashesAreFoundInStretches)
{
    use([&](TargetSource& source) { memory->learn_hashes(START, SIZE, source); });
    const Bytes before = memory.file();
    for (const int64_t block : {0L, 4095L, 4096L, 4097L, SIZE / BLOCK - 1}) {
        memory.target.bytes[static_cast<std::size_t>(block * BLOCK + block % BLOCK)] ^= 1;
    }
    memory->invalidate_hashes(START + 4097 * BLOCK, BLOCK);
    const Stretch first(START, BLOCK), border(START + 4095 * BLOCK, 2 * BLOCK), last(START + SIZE - 7 - BLOCK, BLOCK);
    std::vector<Stretch> found;
    const auto repair = [&](kelvane_off_t offset, kelvane_buf_len_t length) { // which may use the store
        found.emplace_back(offset, length);
        memory->invalidate_hashes(offset, length);
    };
    HashFileInspector inspector(memory.path);
    use([&](TargetSource& source) {
        inspector.find_wrong_hashes(START, SIZE, source, [&](auto at, auto size) { found.emplace_back(at, size); });
    });
    EXPECT_THAT(std::exchange(found, {}), ElementsAre(first, border, last));
    use([&](TargetSource& source) { EXPECT_FALSE(memory->find_wrong_hashes(START, SIZE, source, repair, upTo(1))); });
    EXPECT_THAT(std::exchange(found, {}), ElementsAre(first, Stretch(START + 4095 * BLOCK, BLOCK)));
    use([&](TargetSource& source) { EXPECT_TRUE(memory->find_wrong_hashes(START, SIZE, source, repair)); });
    EXPECT_THAT(std::exchange(found, {}), ElementsAre(Stretch(START + 4096 * BLOCK, BLOCK), last));
    use([&](TargetSource& source) { memory->learn_hashes(START, SIZE, source); });
    EXPECT_FALSE(hasWrongEntry(memory.file(), memory.target.bytes, BLOCK));
    EXPECT_FALSE(memory.file() == before);
}

TEST_F(SourceTest, SourcesMustNotUseTheStoreThatAsksThem)
{
    struct Meddler : MemorySource {
        Meddler(BlockHashStore& owner, const Bytes& bytes)
            : MemorySource(START, std::as_bytes(std::span(bytes)))
            , store(owner)
        {
        }
        LentData lend(kelvane_off_t offset, kelvane_buf_len_t length) override
        {
            inLend ? store.invalidate_hashes(START, BLOCK) : void();
            return MemorySource::lend(offset, length);
        }
        void returned() override { inLend ? void() : store.invalidate_hashes(START, BLOCK); }
        BlockHashStore& store;
        bool inLend = true;
    } source(*memory.store, memory.target.bytes);
    for (const bool inLend : {true, false}) {
        source.inLend = inLend;
        EXPECT_EQ(failureOf([&] { memory->learn_hashes(START, SIZE, source); }),
                  "the store is in use by its own data callback");
        EXPECT_EQ(knownBlocks(), 0U);
    }
    EXPECT_EQ(failureOf([&] { memory->learn_hashes(START, BLOCK, source, [&](auto) { return false; }); }),
              "the store is in use by its own data callback");
    use([&](TargetSource& good) {
        memory->learn_hashes(START, SIZE, good, [&](auto) {
            memory->invalidate_hashes(START, BLOCK); // a progress function may
            return true;
        });
    });
    EXPECT_EQ(knownBlocks(), SIZE / BLOCK - 1);
}

TEST_F(SourceTest, MemoryLendsWhatItHas)
{
    const Bytes bytes(100);
    MemorySource source(START, bytes.data(), 100);
    for (const auto& [offset, length] : {Stretch(START - 1, 1), {START + 101, 1}, {START + 99, 2}}) {
        EXPECT_EQ(failureOf([&, at = offset, size = length] { source.lend(at, size); }),
                  "the target is not in memory at " + std::to_string(offset));
    }
    const LentData lent = source.lend(START + 99, 1), zeros = LentData::zeros(7);
    EXPECT_EQ(std::tuple(lent.bytes(), lent.length(), lent.areZeros()),
              std::tuple(reinterpret_cast<const char*>(&bytes[99]), 1, false));
    EXPECT_EQ(std::tuple(zeros.bytes(), zeros.length(), zeros.areZeros()), std::tuple(nullptr, 7, true));
    const MemorySource all(START, std::as_bytes(std::span(bytes)));
    EXPECT_EQ(LentData(std::as_bytes(std::span(bytes))).length(), 100);
}

TEST_F(SourceTest, SpansTakeThePlaceOfPointersAndLengths)
{
    const auto bytes = std::as_bytes(std::span(memory.target.bytes));
    memory->update_hashes(START, bytes);
    const Bytes known = memory.file();
    EXPECT_EQ(knownBlocks(), SIZE / BLOCK);
    EXPECT_EQ(memory->get_hash(bytes), digestOf(memory.target.bytes));
    TargetWriteGuard guard(*memory.store, START, 5 * BLOCK);
    for (const std::size_t size : {5 * BLOCK - 1, 5 * BLOCK + 1}) {
        EXPECT_EQ(failureOf([&] { guard.commit(bytes.first(size)); }),
                  "the buffer of a target write has " + std::to_string(size) + " bytes, not 50");
    }
    EXPECT_EQ(knownBlocks(), SIZE / BLOCK - 5);
    guard.commit(bytes.first(5 * BLOCK));
    EXPECT_TRUE(memory.file() == known);
}

} // namespace
} // namespace kelvane::testing

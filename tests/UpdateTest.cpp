#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

// A store of 4096-byte blocks at partition offset 1048576, of which the first ten start as known with
// digests of no block.
struct Rig : MemoryStore {
    Rig()
        : MemoryStore(100000, 1048576, 4096)
    {
        Bytes bytes = file();
        std::fill_n(bytes.begin() + DATA, ENTRY * 10, static_cast<unsigned char>(1));
        writeFile(path, bytes);
        reopen();
        before = file();
    }

    void update(int64_t start, int64_t length)
    {
        store->update_hashes(1048576 + start, target.bytes.data() + start, length);
    }
    void invalidate(int64_t start, int64_t length) const { store->invalidate_hashes(1048576 + start, length); }

    // The file when the entries of `blocks` blocks from `first` on are those given, all zero where not given.
    Bytes fileWith(int64_t first, int64_t blocks, const std::vector<int64_t>& known) const
    {
        Bytes bytes = before;
        for (int64_t block = first; block < first + blocks; ++block) {
            setEntry(bytes, block, {});
        }
        for (const int64_t block : known) {
            setEntry(bytes, block, blockDigest(target.bytes, 4096, block, 0, 100000));
        }
        return bytes;
    }

    Bytes before;
    std::optional<Fault> fault;
};

TEST(Update, WritesTheEntriesOfAllTouchedBlocksAtOnce)
{
    struct Example {
        int64_t start, length;
        off_t position; // of the entries written, and what they are
        int64_t first, blocks;
        std::vector<int64_t> known;
    };
    const Example examples[] = {
        {6000, 10000, 4129, 1, 3, {2}},
        {8192, 8192, 4162, 2, 2, {2, 3}},
        {4096, 4096, 4129, 1, 1, {1}},
        {5000, 100, 4129, 1, 1, {}},
        {4096, 100, 4129, 1, 1, {}},
        {8000, 192, 4129, 1, 1, {}},
        {4000, 200, 4096, 0, 2, {}},
        {4096, 4097, 4129, 1, 2, {1}},
        {4095, 4097, 4096, 0, 2, {1}},
        {5000, 0, 4129, 1, 1, {}},
        {4096, 0, 0, 0, 0, {}},
        {90112, 9888, 4822, 22, 3, {22, 23}}, // the target ends inside block 24
        {0, 100000, 4096, 0, 25, {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                                  12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23}},
    };
    for (const Example& example : examples) {
        for (const bool invalidateOnly : {false, true}) {
            SCOPED_TRACE(std::to_string(example.start) + ", " + std::to_string(example.length));
            Rig rig;
            rig.update(49152, 49152); // leaves digests in the store's buffer, none of which may reach the file
            rig.before = rig.file();
            std::vector<CallRecord> calls;
            {
                const CallHook hook([&](const CallRecord& call) {
                    calls.push_back(call);
                    return Outcome {};
                });
                invalidateOnly ? rig.invalidate(example.start, example.length)
                               : rig.update(example.start, example.length);
            }
            EXPECT_EQ(
                rig.file(),
                rig.fileWith(example.first, example.blocks, invalidateOnly ? std::vector<int64_t>() : example.known));
            ASSERT_EQ(calls.size(), example.blocks == 0 ? 0U : 1U);
            if (!calls.empty()) {
                EXPECT_EQ(calls[0].call, Call::WriteAt);
                EXPECT_EQ(calls[0].offset, example.position);
                EXPECT_EQ(calls[0].length, ENTRY * static_cast<std::size_t>(example.blocks));
            }
        }
    }
}

TEST(Update, NextQueryUsesTheNewDigestsWithoutReading)
{
    Rig rig;
    rig.update(0, 40960);
    const CallCounter counter;
    EXPECT_EQ(rig->get_hash(1048576, 40960, nullptr), aggregateDigest(rig.target.bytes, 4096, 0, 40960));
    EXPECT_EQ(counter.total(), 0U);
}

struct Failure {
    const char* name;
    const char* text;
    bool canGoOn; // the store is as good as before once the cause is gone
    void (*arrange)(Rig&);
};

class UpdateFailures : public ::testing::TestWithParam<Failure> { };

TEST_P(UpdateFailures, LeaveTheFileAlone)
{
    for (const bool unwinding : {false, true}) {
        for (const bool invalidateOnly : {false, true}) {
            SCOPED_TRACE(std::string(unwinding ? "while unwinding" : "thrown")
                         + (invalidateOnly ? ", invalidate" : ""));
            Rig rig;
            const auto operation = [&] { invalidateOnly ? rig.invalidate(6000, 10000) : rig.update(6000, 10000); };
            GetParam().arrange(rig);
            errno = 0;
            if (unwinding) {
                EXPECT_EQ(logWhileUnwinding(operation),
                          std::vector {std::string("3 throwWithErrno: ") + GetParam().text});
            } else {
                EXPECT_EQ(failureOf(operation), GetParam().text);
            }
            rig.fault.reset();
            EXPECT_EQ(rig.file(), rig.before);
            if (GetParam().canGoOn) {
                operation();
                EXPECT_EQ(rig.file(), rig.fileWith(1, 3, std::vector<int64_t>(invalidateOnly ? 0 : 1, 2)));
            }
        }
    }
}

constexpr Outcome NOTHING = {0, 0}; // transferred

const Failure FAILURES[] = {
    {"Seek", "failed to seek in hash file: 4129: 9", false,
     [](Rig& rig) { Peer::file(*rig.store) = SimpleCachedReader(0); }},
    {"Write", "failed to write hash: 1054576: 28", true,
     [](Rig& rig) { rig.fault.emplace(Call::WriteAt, Outcome {ENOSPC}); }},
    {"ShortWrite", "failed to write hash: 1054576: 0", true,
     [](Rig& rig) { rig.fault.emplace(Call::WriteAt, NOTHING); }},
};

INSTANTIATE_TEST_SUITE_P(, UpdateFailures, ::testing::ValuesIn(FAILURES),
                         [](const auto& failure) { return std::string(failure.param.name); });

TEST(Update, RefusesRangesAndBuffersThatItCannotServe)
{
    Rig rig;
    const auto failures = [&](int64_t offset, int64_t length) {
        const std::string update = failureOf([&] { rig->update_hashes(offset, rig.target.bytes.data(), length); });
        const std::string invalidate = failureOf([&] { rig->invalidate_hashes(offset, length); });
        return update == invalidate ? update : update + " | " + invalidate;
    };
    const CallCounter counter;
    EXPECT_EQ(failures(1048575, 5), "update_hashes: offset is out of bounds: 1048575, 100000");
    EXPECT_EQ(failures(1148576, 0), "update_hashes: offset is out of bounds: 1148576, 100000");
    EXPECT_EQ(failures(1148575, 2), "update_hashes: offset is out of bounds: 1148575, 100000");
    EXPECT_EQ(failures(1048576, -1), "update_hashes: length is negative: -1");
    EXPECT_EQ(failures(1048576, std::numeric_limits<int64_t>::min()),
              "update_hashes: length is negative: -9223372036854775808");
    EXPECT_EQ(failureOf([&] { rig->update_hashes(1048576 + 5000, nullptr, 0); }),
              "encountered a null buffer while updating hashes");
    EXPECT_EQ(failureOf([&] { rig->update_hashes(1048576, nullptr, 4096); }),
              "encountered a null buffer while updating hashes");
    EXPECT_EQ(failureOf([&] { rig->update_hashes(1048576, nullptr, -1); }), "update_hashes: length is negative: -1");
    EXPECT_EQ(failureOf([&] { rig->update_hashes(1048576 + 4096, nullptr, 0); }), "(none)");
    const kelvane_buf_len_t room = Peer::hashBufferSize(*rig.store);
    Peer::header(*rig.store).blockSizeInBytes = 1;
    Peer::header(*rig.store).targetSizeInBytes = uint64_t {1} << 40;
    EXPECT_EQ(failures(1048576, int64_t {1} << 31), "update_hashes: too many blocks in one request: 2147483648");
    EXPECT_EQ(Peer::hashBufferSize(*rig.store), room);
    EXPECT_EQ(counter.total(), 0U);
    EXPECT_EQ(rig.file(), rig.before);
}

TEST(Update, HashFunctionFailuresLeaveTheFileAlone)
{
    constexpr int BLOCKS = 300;
    for (const int failAt : {0, 1, 127, 128, 200, BLOCKS - 1}) {
        for (const std::size_t size : {0U, 31U, 33U}) {
            SCOPED_TRACE(std::to_string(failAt) + ", " + std::to_string(size));
            MemoryStore store(BLOCKS * 20 + 5, 11, 20);
            const Bytes before = store.file();
            const auto update = [&] { store->update_hashes(11, store.target.bytes.data(), BLOCKS * 20 + 5); };
            auto good = std::exchange(Peer::hashFunction(*store.store), std::make_unique<FailingHash>(failAt, size));
            EXPECT_EQ(failureOf(update), "failed to compute hash from data");
            EXPECT_EQ(store.file(), before);
            Peer::hashFunction(*store.store) = std::move(good);
            update();
            EXPECT_EQ(store->get_hash(11, BLOCKS * 20, nullptr),
                      aggregateDigest(store.target.bytes, 20, 0, BLOCKS * 20));
        }
    }
}

TEST(Update, OneBufferHashTakesAnyLength)
{
    Rig rig;
    Bytes& bytes = rig.target.bytes;
    for (const std::size_t length : {0U, 1U, 4096U, 100000U}) {
        EXPECT_EQ(rig->get_hash(bytes.data(), length), digestOf(Bytes(bytes.begin(), bytes.begin() + length)));
    }
    EXPECT_TRUE(rig->get_hash(kelvane_buf_t {}, 1).empty());
    Peer::hashFunction(*rig.store) = std::make_unique<FailingHash>(0, 5);
    EXPECT_EQ(rig->get_hash(bytes.data(), 1).size(), 5U); // passed on as it is
}

} // namespace
} // namespace kelvane::testing

#include <algorithm>
#include <cerrno>
#include <limits>
#include <numeric>
#include <optional>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using Ranges = std::vector<std::pair<kelvane_off_t, kelvane_off_t>>;

// The hash file that `before` becomes when the entries of whole blocks get their flag and digest.
Bytes withKnown(Bytes before, const MemoryTarget& target, int64_t blockSize, const std::vector<int64_t>& blocks)
{
    for (const int64_t block : blocks) {
        setEntry(before, block, blockDigest(target.bytes, blockSize, block, 0, std::numeric_limits<int64_t>::max()));
    }
    return before;
}

std::vector<int64_t> sequence(int64_t first, int64_t end)
{
    std::vector<int64_t> numbers(static_cast<std::size_t>(end - first));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

void makeKnown(MemoryStore& store, int64_t block)
{
    const auto size = static_cast<int64_t>(store->getBlockSize());
    store->update_hashes(store.target.partitionOffset + block * size, store.target.bytes.data() + block * size, size);
}

struct Example {
    const char* name;
    int64_t size, partition, block;
    std::vector<int64_t> known;
    int64_t offset, length; // internal
    Ranges asked;           // internal
    off_t position;         // of the entries written
    std::vector<int64_t> written;
};

class RangeHashExamples : public ::testing::TestWithParam<Example> { };

TEST_P(RangeHashExamples, AsksForUnknownDataAndStoresWholeBlocks)
{
    const Example& example = GetParam();
    for (const int64_t partition : {int64_t {0}, example.partition}) {
        MemoryStore store(static_cast<std::size_t>(example.size), partition, static_cast<uint32_t>(example.block));
        for (const int64_t block : example.known) {
            makeKnown(store, block);
        }
        store.reopen(); // drops what the accessor holds
        Ranges asked = example.asked;
        for (auto& range : asked) {
            range.first += partition;
        }
        const Bytes expected = withKnown(store.file(), store.target, example.block, example.written);
        std::vector<CallRecord> calls;
        {
            const CallHook hook([&](const CallRecord& call) {
                calls.push_back(call);
                return Outcome {};
            });
            EXPECT_EQ(store->get_hash(partition + example.offset, example.length, store.target.supplier()),
                      aggregateDigest(store.target.bytes, example.block, example.offset, example.length));
        }
        EXPECT_EQ(store.target.asked, asked);
        EXPECT_EQ(store.target.calls, asked.empty() ? 0 : 1);
        EXPECT_EQ(store.file(), expected);
        std::erase_if(calls, [](const CallRecord& call) { return call.call == Call::ReadAt; });
        ASSERT_EQ(calls.size(), example.written.empty() ? 0U : 1U);
        if (!calls.empty()) {
            EXPECT_EQ(calls[0].call, Call::WriteAt);
            EXPECT_EQ(calls[0].offset, example.position);
            EXPECT_EQ(calls[0].length, ENTRY * example.written.size());
        }
    }
}

const Example EXAMPLES[] = {
    {"AroundAnUnknownBlock", 30000, 1048576, 4096, {}, 10000, 10000, {{10000, 10000}}, 4195, {3}},
    {"AroundAKnownBlock", 30000, 1048576, 4096, {3}, 10000, 10000, {{10000, 2288}, {16384, 3616}}, 4195, {3}},
    {"OneUnknownBlock", 8192, 5, 4096, {}, 4096, 4096, {{4096, 4096}}, 4129, {1}},
    {"KnownBlocks", 12288, 5, 4096, {0, 1, 2}, 0, 12288, {}, 0, {}},
    {"InsideABlock", 8192, 4097, 4096, {1}, 5000, 100, {{5000, 100}}, 0, {}},
    {"StartOfABlock", 8192, 4097, 4096, {1}, 4096, 100, {{4096, 100}}, 0, {}},
    {"EndOfABlock", 8192, 4097, 4096, {1}, 8000, 192, {{8000, 192}}, 0, {}},
    {"TwoPartialBlocks", 8192, 4097, 4096, {0, 1}, 4095, 2, {{4095, 2}}, 0, {}},
    {"TargetEndsInsideABlock", 10000, 777, 4096, {0}, 0, 10000, {{4096, 5904}}, 4096, {0, 1}},
    {"TargetOfLessThanABlock", 100, 777, 4096, {}, 0, 100, {{0, 100}}, 0, {}},
    {"SomeKnown", 80, 3, 10, {1, 4, 5}, 0, 80, {{0, 10}, {20, 20}, {60, 20}}, 4096, {0, 1, 2, 3, 4, 5, 6, 7}},
    {"BlocksOfOneByte", 8, 3, 1, {3}, 1, 6, {{1, 2}, {4, 3}}, 4129, {1, 2, 3, 4, 5, 6}},
    {"NothingAtABoundary", 8192, 9, 4096, {}, 4096, 0, {}, 0, {}},
    {"NothingInsideABlock", 8192, 9, 4096, {}, 5000, 0, {}, 0, {}},
};

INSTANTIATE_TEST_SUITE_P(, RangeHashExamples, ::testing::ValuesIn(EXAMPLES),
                         [](const auto& example) { return std::string(example.param.name); });

TEST(RangeHash, CostsOneReadAndOneWriteAtMost)
{
    for (const int64_t blocks : {1, 300, 1600}) { // the last ones' entries exceed the accessor's cache
        MemoryStore store(static_cast<std::size_t>(blocks * 16), 7, 16);
        const auto transfers = [&] {
            const CallCounter counter;
            store->get_hash(7, blocks * 16, store.target.supplier());
            return std::pair(counter[Call::ReadAt], counter.total());
        };
        EXPECT_EQ(transfers(), std::pair(std::size_t {1}, std::size_t {2})) << blocks;
        store.reopen();
        EXPECT_EQ(transfers(), std::pair(std::size_t {1}, std::size_t {1})) << blocks;
        EXPECT_EQ(transfers().second, blocks == 1600 ? 1U : 0U) << blocks;
        EXPECT_EQ(store.target.calls, 1);
    }
}

TEST(RangeHash, AlternatelyKnownBlocksBatchAcrossRuns)
{
    MemoryStore store(301 * 512 + 100, 1000, 512);
    Ranges asked = {{1000 + 10, 502}};
    for (int64_t block = 1; block < 301; ++block) {
        if (block % 2 == 0) {
            makeKnown(store, block);
        } else if (block > 1) {
            asked.emplace_back(1000 + block * 512, 512);
        } else {
            asked.back().second += 512;
        }
    }
    asked.emplace_back(1000 + 301 * 512, 90);
    EXPECT_EQ(store->get_hash(1010, 301 * 512 + 80, store.target.supplier()),
              aggregateDigest(store.target.bytes, 512, 10, 301 * 512 + 80));
    EXPECT_EQ(store.target.asked, asked);
    EXPECT_EQ(store.file(), withKnown(store.file(), store.target, 512, sequence(1, 301)));
    EXPECT_EQ(store.file()[DATA] + store.file()[DATA + ENTRY * 301], 0);
}

TEST(RangeHash, TrustsKnownEntriesAndOnlyTheLowestBitOfTheirFlags)
{
    MemoryStore store(40, 0, 10);
    Bytes file = store.file();
    const unsigned char flags[] = {3, 2, 255, 254};
    Bytes digests;
    for (std::size_t block = 0; block < 4; ++block) {
        std::fill_n(file.begin() + static_cast<std::ptrdiff_t>(DATA + ENTRY * block), ENTRY, flags[block]);
    }
    writeFile(store.path, file);
    store.reopen();
    const Bytes expected = withKnown(file, store.target, 10, {1, 3});
    for (std::size_t block = 0; block < 4; ++block) {
        const auto entry = expected.begin() + static_cast<std::ptrdiff_t>(DATA + ENTRY * block);
        digests.insert(digests.end(), entry + 1, entry + ENTRY);
    }
    EXPECT_EQ(store->get_hash(0, 40, store.target.supplier()), digestOf(digests));
    EXPECT_EQ(store.target.asked, (Ranges {{10, 10}, {30, 10}}));
    EXPECT_EQ(store.file(), expected);
}

TEST(RangeHash, ReachesTheLastOffset)
{
    MemoryStore store(1, 0, 4096);
    constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();
    Peer::header(*store.store).targetSizeInBytes = UINT64_MAX;
    Peer::header(*store.store).partitionOffset = 4096;
    const auto supplier = [&](const auto& offsets, const auto& lengths) {
        store.target.asked.emplace_back(offsets[0], lengths[0]);
        std::vector<std::unique_ptr<char[]>> data;
        data.push_back(std::make_unique<char[]>(2));
        data.back()[1] = 'x';
        return data;
    };
    Bytes block(4096);
    block[4094] = 'x';
    EXPECT_EQ(store->get_hash(HIGHEST - 2, 2, supplier), digestOf(digestOf(block)));
    EXPECT_EQ(store.target.asked, (Ranges {{HIGHEST - 2, 2}}));
}

// A hash function with digests of another size.
class SizedHash : public IHashFunction {
public:
    explicit SizedHash(std::size_t size)
        : m_size(size)
    {
    }

    HashValue get_hash(kelvane_buf_t buffer, kelvane_buf_len_t length) override
    {
        HashValue hash = BlakeHash().get_hash(buffer, length);
        hash.resize(m_size, hash[0]);
        return hash;
    }
    kelvane_size_t hash_size_in_bytes() const override { return m_size; }

private:
    std::size_t m_size;
};

TEST(RangeHash, FollowsTheDigestSizeOfTheHashFunction)
{
    for (const std::size_t size : {1U, 20U, 100U}) {
        MemoryStore store(400, 0, 10);
        SizedHash hash(size);
        Bytes expected(store.file());
        Bytes digests;
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

// ---------------------------------------------------------------------------------------------------
// Failures

// A request with partial blocks around whole ones, the blocks 1 to 4.
struct Rig : MemoryStore {
    Rig()
        : MemoryStore(1000, 1050, 100)
        , supplier(target.supplier())
    {
    }

    IHashFunction::HashValue request() const { return store->get_hash(1100, 500, supplier); }
    void loseFile() const { Peer::file(*store) = SimpleCachedReader(0); }

    BlockHashStore::DataRequiredFunc supplier;
    std::optional<Fault> fault;
};

using Arrays = std::vector<std::unique_ptr<char[]>>;

// Has the supplier's arrays changed before the store gets them.
void spoil(Rig& rig, const std::function<void(Arrays&)>& change)
{
    rig.supplier = [good = rig.target.supplier(), change](const auto& offsets, const auto& lengths) {
        Arrays arrays = good(offsets, lengths);
        change(arrays);
        errno = E2BIG;
        return arrays;
    };
}

struct Failure {
    const char* name;
    const char* text;
    int suppliersCalls;
    bool canGoOn; // the store is as good as before once the cause is gone
    void (*arrange)(Rig&);
};

class RangeHashFailures : public ::testing::TestWithParam<Failure> { };

TEST_P(RangeHashFailures, LeaveTheFileAlone)
{
    for (const bool unwinding : {false, true}) {
        SCOPED_TRACE(unwinding ? "while unwinding" : "thrown");
        Rig rig;
        const Bytes before = rig.file();
        IHashFunction::HashValue hash(1);
        GetParam().arrange(rig);
        errno = 0;
        if (unwinding) {
            EXPECT_EQ(logWhileUnwinding([&] { hash = rig.request(); }),
                      std::vector {std::string("3 throwWithErrno: ") + GetParam().text});
            EXPECT_TRUE(hash.empty());
        } else {
            EXPECT_EQ(failureOf([&] { rig.request(); }), GetParam().text);
        }
        rig.fault.reset();
        EXPECT_EQ(rig.target.calls, GetParam().suppliersCalls);
        EXPECT_EQ(rig.file(), before);
        if (GetParam().canGoOn) {
            rig.supplier = rig.target.supplier();
            EXPECT_EQ(rig.request(), aggregateDigest(rig.target.bytes, 100, 50, 500));
            EXPECT_EQ(rig.file(), withKnown(before, rig.target, 100, sequence(1, 5)));
        }
    }
}

constexpr Outcome NOTHING = {0, 0}; // transferred

const Failure FAILURES[] = {
    {"SeekBeforeLoading", "failed to seek in hash file: 4129: 9", 0, false, [](Rig& rig) { rig.loseFile(); }},
    {"Read", "failed to read hash value: 1100: 5", 0, true,
     [](Rig& rig) { rig.fault.emplace(Call::ReadAt, Outcome {EIO}); }},
    {"ShortRead", "failed to read hash value: 1100: 0", 0, true,
     [](Rig& rig) { rig.fault.emplace(Call::ReadAt, NOTHING); }},
    {"NoArray", "expected more image data than was returned while hashing: 7", 1, true,
     [](Rig& rig) { spoil(rig, [](Arrays& arrays) { arrays.clear(); }); }},
    {"AnArrayTooMany", "expected more image data than was returned while hashing: 7", 1, true,
     [](Rig& rig) { spoil(rig, [](Arrays& arrays) { arrays.push_back(std::make_unique<char[]>(500)); }); }},
    {"ANullArray", "expected more image data than was returned while hashing: 7", 1, true,
     [](Rig& rig) { spoil(rig, [](Arrays& arrays) { arrays[0].reset(); }); }},
    {"SeekBeforeStoring", "failed to seek in hash file during update: 4129: 9", 1, false,
     [](Rig& rig) { spoil(rig, [&rig](Arrays&) { rig.loseFile(); }); }},
    {"Write", "failed to write hash: 1100: 28", 1, true,
     [](Rig& rig) { rig.fault.emplace(Call::WriteAt, Outcome {ENOSPC}); }},
    {"ShortWrite", "failed to write hash: 1100: 7", 1, true,
     [](Rig& rig) {
         spoil(rig, [](Arrays&) {}); // whose errno a short write leaves as it is
         rig.fault.emplace(Call::WriteAt, NOTHING);
     }},
};

INSTANTIATE_TEST_SUITE_P(, RangeHashFailures, ::testing::ValuesIn(FAILURES),
                         [](const auto& failure) { return std::string(failure.param.name); });

TEST(RangeHash, AWriteThatFailsHalfWayKeepsWhatReachedTheFile)
{
    Rig rig;
    const Bytes before = rig.file();
    {
        int writes = 0;
        const CallHook hook([&](const CallRecord& call) {
            return call.call != Call::WriteAt ? Outcome {} : ++writes == 1 ? Outcome {0, 40} : Outcome {EIO};
        });
        EXPECT_EQ(failureOf([&] { rig.request(); }), "failed to write hash: 1100: 5");
        EXPECT_EQ(writes, 2);
    }
    Bytes expected = withKnown(before, rig.target, 100, {1, 2});
    std::fill_n(expected.begin() + DATA + ENTRY + 40, 2 * ENTRY - 40, static_cast<unsigned char>(0));
    EXPECT_EQ(rig.file(), expected);
}

TEST(RangeHash, RefusesRequestsThatItCannotServe)
{
    Rig rig;
    const Bytes before = rig.file();
    const auto request = [&](int64_t offset, int64_t length) {
        return failureOf([&] { rig->get_hash(offset, length, rig.supplier); });
    };
    const CallCounter counter;
    EXPECT_EQ(request(1049, 5), "get_hash: offset is out of bounds: 1049, 1000");
    EXPECT_EQ(request(2050, 0), "get_hash: offset is out of bounds: 2050, 1000");
    EXPECT_EQ(request(2049, 2), "get_hash: offset is out of bounds: 2049, 1000");
    EXPECT_EQ(request(1100, -1), "get_hash: length is negative: -1");
    EXPECT_EQ(request(1100, std::numeric_limits<int64_t>::min()), "get_hash: length is negative: -9223372036854775808");
    Peer::header(*rig.store).blockSizeInBytes = 1;
    Peer::header(*rig.store).targetSizeInBytes = uint64_t {1} << 40;
    EXPECT_EQ(request(1100, int64_t {1} << 31), "get_hash: too many blocks in one request: 2147483648");
    EXPECT_EQ(request(1050, (int64_t {1} << 40) - 1050), "get_hash: too many blocks in one request: 1099511626726");
    EXPECT_EQ(Peer::hashBufferSize(*rig.store), 0);
    EXPECT_EQ(rig.target.calls, 0);
    EXPECT_EQ(counter.total(), 0U);
    EXPECT_EQ(rig.file(), before);
}

TEST(RangeHash, PassesOnWhatTheSupplierThrows)
{
    Rig rig;
    const Bytes before = rig.file();
    const std::logic_error failure("the disk is gone");
    rig.supplier = [&](const auto&, const auto&) -> Arrays { throw failure; };
    EXPECT_THROW(rig.request(), std::logic_error);
    EXPECT_EQ(failureOf([&] { rig.request(); }), "the disk is gone");
    rig.supplier = nullptr;
    EXPECT_THROW(rig.request(), std::bad_function_call);
    EXPECT_EQ(rig.file(), before);
    for (int64_t block = 0; block < 10; ++block) {
        makeKnown(rig, block);
    }
    EXPECT_EQ(rig->get_hash(1050, 1000, nullptr), aggregateDigest(rig.target.bytes, 100, 0, 1000));
}

TEST(RangeHash, HashFunctionFailuresKeepTheFileUntilAllBlocksAreHashed)
{
    constexpr int BLOCKS = 300;
    for (const int failAt : {0, 1, 127, 128, 200, 256, BLOCKS - 1, BLOCKS}) {
        for (const std::size_t size : {0U, 31U, 33U}) {
            if (failAt == BLOCKS && size != 0) {
                continue; // the aggregate's size is the hash function's own business
            }
            SCOPED_TRACE(std::to_string(failAt) + ", " + std::to_string(size));
            MemoryStore store(BLOCKS * 20 - 7, 11, 20); // the last block is partial
            const Bytes before = store.file();
            const auto request = [&] { return store->get_hash(11, BLOCKS * 20 - 7, store.target.supplier()); };
            auto good = std::exchange(Peer::hashFunction(*store.store), std::make_unique<FailingHash>(failAt, size));
            EXPECT_EQ(failureOf(request),
                      failAt < BLOCKS ? "failed to generate block hash" : "failed to hash aggregate hashes");
            const Bytes after = withKnown(before, store.target, 20, sequence(0, BLOCKS - 1));
            EXPECT_EQ(store.file(), failAt < BLOCKS ? before : after);
            Peer::hashFunction(*store.store) = std::move(good);
            EXPECT_EQ(request(), aggregateDigest(store.target.bytes, 20, 0, BLOCKS * 20 - 7));
            EXPECT_EQ(store.file(), after);
        }
    }
}

} // namespace
} // namespace kelvane::testing

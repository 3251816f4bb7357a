// Creating and opening hash files, beyond what the model and the fault sweep do.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;

constexpr kelvane_size_t BLOCK = 4096;
constexpr auto LARGEST = std::numeric_limits<uint64_t>::max();
constexpr const char* WRONG_SIZE = "the hash file size is incorrect for given target size";

struct HashFileTest : ::testing::Test {
    void create(std::size_t blocks) const
    {
        BlockHashStore::create(path, Blake2dHashFunctionType, blocks * BLOCK, 1000, BLOCK, false);
    }
    std::unique_ptr<BlockHashStore> open(std::size_t blocks) const
    {
        return BlockHashStore::open(path, blocks * BLOCK);
    }

    TemporaryDirectory directory;
    std::string path = directory.file("hashes");
};

void place(Bytes& bytes, std::size_t offset, uint64_t value, std::size_t size)
{
    std::memcpy(bytes.data() + offset, &value, size);
}

TEST_F(HashFileTest, IsCreatedThroughSynchronousDescriptorsInPieces)
{
    std::vector<int> flags;
    std::vector<std::size_t> writes;
    {
        const CallHook hook([&](const CallRecord& call) {
            if (call.call == Call::Open) {
                flags.push_back(call.flags);
            } else if (call.call == Call::Write) {
                writes.push_back(call.length);
            }
            return Outcome();
        });
        create(262144);
    }
    EXPECT_THAT(flags, ElementsAre(0x101242, 0x101002));
    EXPECT_THAT(writes,
                ElementsAre(1 << 20, 1 << 20, 1 << 20, 1 << 20, 1 << 20, 1 << 20, 1 << 20, 1 << 20, 266240, 56));
    EXPECT_EQ(std::filesystem::status(path).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(HashFileTest, IsNotTouchedByACreationThatIsRefused)
{
    const struct {
        uint32_t id;
        kelvane_size_t target;
        uint32_t block;
        const char* text;
    } refusals[] = {
        {0, 10000, 4096, "thrown: unknown hash id: 0"},
        {2, 10000, 4096, "thrown: unknown hash id: 2"},
        {1, 10000, 0, "thrown: block size is invalid: 0"},
        {1, LARGEST, 1, "thrown: target is too large for its block size: 18446744073709551615, 1"},
        {1, LARGEST - 4096, 65, "thrown: target is too large for its block size: 18446744073709547519, 65"},
    };
    for (const auto& item : refusals) {
        const CallCounter counter;
        const auto id = static_cast<HashFunctionType>(item.id);
        EXPECT_THAT(logOf([&] { BlockHashStore::create(path, id, item.target, 0, item.block, true); }),
                    ElementsAre(item.text));
        EXPECT_EQ(counter.counts(), CallCounts());
    }
    path = directory.file("missing/hashes");
    EXPECT_THAT(logOf([&] { BlockHashStore::create(path, Blake2dHashFunctionType, 10000, 0, 4096, true); }),
                ElementsAre("thrown: error opening file for writing: 2"));
    EXPECT_EQ(failureOf([&] { Peer::initHeader(path, 10000, 0, 4096, 1); }), "error opening file for writing");
    EXPECT_FALSE(std::filesystem::exists(directory.file("missing")));
}

TEST(Failures, CarryTheErrorNumber)
{
    for (const auto& [message, error] : {std::pair("message", 0), std::pair("", 5)}) {
        EXPECT_EQ(failureOf([&] { errno = error, Peer::throwWithErrno(message); }),
                  message + std::string(": ") + std::to_string(error));
    }
}

TEST_F(HashFileTest, IsRefusedByTheFirstOfItsHeadersFaults)
{
    const struct {
        std::size_t offset;
        uint64_t value;
        std::size_t size;
        std::string text;
    } faults[] = {
        // in the order of the checks; of two for the same field either is enough
        {0, 0x20001313, 8, "header magic number does not match expected"},
        {8, uint64_t {1} << 40, 8, "header version does not match the expected value"},
        {16, 8192, 8, "hash data offset is invalid: 8192 4096"},
        {48, 7, 4, "unknown hashing function: 7"},
        {48, 0, 4, "unknown hashing function: 0"},
        {24, 0, 4, "block size is invalid: 0"},
        {32, LARGEST, 8, WRONG_SIZE},
        {32, 1000 * BLOCK, 8, WRONG_SIZE},
    };
    create(10);
    const Bytes valid = readFile(path);
    const int descriptors = openDescriptors();
    Bytes damaged = valid;
    for (auto item = std::rbegin(faults); item != std::rend(faults); ++item) {
        Bytes single = valid;
        place(single, item->offset, item->value, item->size);
        place(damaged, item->offset, item->value, item->size); // on top of all later ones
        for (const Bytes& bytes : {single, damaged}) {
            writeFile(path, bytes);
            EXPECT_EQ(failureOf([&] { open(10); }), item->text);
            EXPECT_EQ(failureOf([&] { open(2000); }), item->text); // never taken for a target that changed
            EXPECT_EQ(readFile(path), bytes);
        }
    }
    place(damaged = valid, 24, 1, 4);
    place(damaged, 32, LARGEST, 8);
    writeFile(path, damaged);
    EXPECT_EQ(failureOf([&] { open(10); }), "target is too large for its block size: 18446744073709551615, 1");
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(HashFileTest, IsCheckedAgainstTheTargetToo)
{
    create(10);
    const auto store = open(10);
    const auto failure = [&] { return failureOf([&] { Peer::validateHeader(*store, 11 * BLOCK, 8192); }); };
    Peer::header(*store).dataRegionOffsetInBytes = 1;
    EXPECT_EQ(failure(), "the target size managed by the hash store has changed");
    Peer::header(*store).version = 1;
    EXPECT_EQ(failure(), "header version does not match the expected value");
}

TEST_F(HashFileTest, IsRefusedWhenItIsNotWholeOrCannotServeItsTarget)
{
    const std::pair<std::size_t, std::string> sizes[] = {{0, "file is too small to be valid: 0"},
                                                         {55, "file is too small to be valid: 55"},
                                                         {56, WRONG_SIZE},
                                                         {8191, WRONG_SIZE},
                                                         {12288, WRONG_SIZE}};
    create(10);
    const Bytes valid = readFile(path);
    for (const auto& [size, text] : sizes) {
        Bytes bytes = valid;
        bytes.resize(size);
        writeFile(path, bytes);
        EXPECT_EQ(failureOf([&] { open(10); }), text);
    }
    writeFile(path, Bytes(8192)); // what a creation that was interrupted leaves
    EXPECT_EQ(failureOf([&] { open(10); }), "header magic number does not match expected");
    EXPECT_EQ(failureOf([&] { BlockHashStore::open(directory.file("missing"), 0); }), "failed to stat hash file: 2");
    for (const std::string& other : {directory.file(""), std::string("/dev/null")}) {
        EXPECT_EQ(failureOf([&] { BlockHashStore::open(other, 0); }), "path does not represent a hash file");
    }
    BlockHashStore::create(path, Blake2dHashFunctionType, 100, 0, 1, false);
    EXPECT_THAT(logOf([&] { BlockHashStore::open(path, LARGEST); }),
                ElementsAre("thrown: target is too large for its block size: 18446744073709551615, 1"));
}

TEST_F(HashFileTest, ChangesItsSizeWithALogLine)
{
    const std::string prefix
        = "1 resizeIfTargetChangeDetected: hash storage resizing because target changed, expected: ";
    create(10);
    EXPECT_THAT(logOf([&] { open(2000); }), ElementsAre(prefix + "73728, actual: 8192"));
    EXPECT_THAT(logOf([&] { open(2000), open(2001); }), ElementsAre()); // the last page has room
    EXPECT_THAT(logOf([&] { open(0); }), ElementsAre(prefix + "4096, actual: 73728"));
}

TEST_F(HashFileTest, IsFilledInPiecesAndSynced)
{
    constexpr std::size_t MEBIBYTE = 1048576;
    create(10);
    const auto store = open(10);
    std::vector<std::pair<off_t, std::size_t>> calls;
    const CallHook hook([&](const CallRecord& record) {
        calls.emplace_back(record.offset, record.length);
        return Outcome();
    });
    Peer::initFileRegion(*store, 5000, 3 * MEBIBYTE + 1);
    Peer::initFileRegion(*store, 7000, 0);
    EXPECT_THAT(calls,
                ElementsAre(std::pair(5000, MEBIBYTE), std::pair(5000 + MEBIBYTE, MEBIBYTE),
                            std::pair(5000 + 2 * MEBIBYTE, MEBIBYTE), std::pair(5000 + 3 * MEBIBYTE, 1),
                            std::pair(5000, 3 * MEBIBYTE + 1), std::pair(7000, 0)));
}

TEST_F(HashFileTest, HasABufferThatOnlyGrows)
{
    const auto store = Peer::make();
    const auto grow = [&](kelvane_buf_len_t size) {
        Peer::growHashBufferWhenNeeded(*store, size);
        return std::pair(Peer::hashBuffer(*store), Peer::hashBufferSize(*store));
    };
    EXPECT_EQ(grow(0), std::pair(static_cast<const char*>(nullptr), kelvane_buf_len_t {0}));
    EXPECT_EQ(grow(-5), grow(0));
    const auto hundred = grow(100);
    EXPECT_EQ(hundred.second, 100);
    EXPECT_NE(hundred.first, nullptr);
    EXPECT_EQ(grow(40), hundred);
    EXPECT_EQ(grow(101).second, 101);
}

TEST_F(HashFileTest, MovesWithItsStore)
{
    create(10);
    const int descriptors = openDescriptors();
    const auto first = open(10);
    BlockHashStore::create(directory.file("second"), Blake2dHashFunctionType, 5000, 0, 512, false);
    BlockHashStore target = std::move(*BlockHashStore::open(directory.file("second"), 5000));
    EXPECT_EQ(openDescriptors(), descriptors + 2);
    EXPECT_EQ(target.getBlockSize(), 512U);
    Peer::growHashBufferWhenNeeded(*first, 100);
    const char* const buffer = Peer::hashBuffer(*first);
    target = std::move(*first);
    auto& self = target;
    target = std::move(self);
    EXPECT_EQ(openDescriptors(), descriptors + 1);
    EXPECT_EQ(target.getBlockSize(), BLOCK);
    EXPECT_EQ(target.getHashFunctionType(), Blake2dHashFunctionType);
    EXPECT_EQ(Peer::hashBuffer(target), buffer);
    EXPECT_EQ(Peer::hashBufferSize(target), 100);
    EXPECT_EQ(Peer::hashBuffer(*first), nullptr);
    EXPECT_EQ(Peer::hashBufferSize(*first), 0);
    EXPECT_EQ(Peer::hashFunction(*first), nullptr);
    target.invalidate_hashes(1000, 1);
}

} // namespace
} // namespace kelvane::testing

// Creating and opening hash files, beyond what the model and the fault sweep do.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <system_error>

#include "HashFileInspector.h"
#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsSupersetOf;

constexpr kelvane_size_t BLOCK = 4096;
constexpr std::size_t MEBIBYTE = 1048576;
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

    // The text with which these bytes are refused as a hash file, and what is found about them; they stay as they are,
    // and nothing stays open.
    std::string refusalOf(const Bytes& bytes, HashFileFault fault, std::size_t field) const
    {
        const int descriptors = openDescriptors();
        writeFile(path, bytes);
        const std::string text = failureOf([&] { open(10); });
        expectFinding(path, {fault, field, 0});
        EXPECT_EQ(readFile(path), bytes);
        EXPECT_EQ(openDescriptors(), descriptors);
        return text;
    }

    // By who only looks, and by who catches what opening and inspecting throw.
    static void expectFinding(const std::string& file, const HashFileFinding& expected)
    {
        const auto thrown = [](const auto& operation) {
            try {
                operation();
            } catch (const HashFileFinding& finding) {
                return finding;
            }
            return HashFileFinding();
        };
        const kelvane_size_t size = expected.fault > HashFileFault::FileType ? std::filesystem::file_size(file) : 0;
        for (const HashFileFinding& found :
             {HashFileInspector::examine(file), thrown([&] { HashFileInspector inspector(file); }),
              thrown([&] { BlockHashStore::open(file, 10 * BLOCK); })}) {
            EXPECT_EQ(std::tuple(found.fault, found.offset, found.error, found.fileSize),
                      std::tuple(expected.fault, expected.offset, expected.error, size));
        }
    }

    TemporaryDirectory directory;
    std::string path = directory.file("hashes");
};

TEST_F(HashFileTest, IsWrittenInPiecesAndSynced)
{
    std::vector<std::pair<std::size_t, std::size_t>> calls; // flags and offset, and length
    const CallHook hook([&](const CallRecord& call) {
        calls.emplace_back(call.flags + call.offset, call.length);
        return Outcome();
    });
    create(40000);
    using Pair = std::pair<std::size_t, std::size_t>;
    const Pair close(0, 0), seek(0, 0);
    EXPECT_THAT(calls,
                ElementsAre(Pair(0x101242, 0), seek, Pair(0, MEBIBYTE), Pair(0, 278528), close, Pair(0x101002, 0), seek,
                            Pair(0, 56), close));
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(0600));
    open(40000);
    calls.clear();
    open(80000); // which has the header written anew
    EXPECT_THAT(calls,
                IsSupersetOf({Pair(1327104, MEBIBYTE), Pair(1327104 + MEBIBYTE, 270336), Pair(1327111, 1318912)}));
}

TEST_F(HashFileTest, IsNotTouchedByACreationThatIsRefused)
{
    const std::tuple<uint32_t, kelvane_size_t, uint32_t, std::string> refusals[]
        = {{0, 10000, 4096, "unknown hash id: 0"},
           {2, 10000, 4096, "unknown hash id: 2"},
           {1, 10000, 0, "block size is invalid: 0"},
           {1, LARGEST, 1, "target is too large for its block size: 18446744073709551615, 1"},
           {1, 279496122328932352, 1, "error opening file for writing: 5"}, // the largest there can be
           {1, 279496122328932353, 1, "target is too large for its block size: 279496122328932353, 1"},
           {1, 279496122328932476, 1, "target is too large for its block size: 279496122328932476, 1"}, // its last page
           {1, LARGEST - 4096, 65, "target is too large for its block size: 18446744073709547519, 65"}};
    for (const auto& [id, target, block, text] : refusals) {
        int calls = 0;
        const CallHook hook([&](const CallRecord&) { // what is not refused shall not fill the disk
            ++calls;
            return Outcome {EIO};
        });
        EXPECT_EQ(
            failureOf([&] { BlockHashStore::create(path, static_cast<HashFunctionType>(id), target, 0, block, true); }),
            text);
        EXPECT_EQ(calls != 0, text == "error opening file for writing: 5");
    }
}

TEST_F(HashFileTest, IsRefusedByTheFirstOfItsFaults)
{
    using Fault = HashFileFault;
    const std::tuple<std::size_t, std::size_t, uint64_t, Fault, std::string> faults[] = {
        // in the order of the checks; of two for the same field either is enough
        {0, 8, 0x20001313, Fault::MagicNumber, "header magic number does not match expected"},
        {8, 8, uint64_t {1} << 40, Fault::Version, "header version does not match the expected value"},
        {16, 8, 8192, Fault::DataRegionOffset, "hash data offset is invalid: 8192 4096"},
        {48, 4, 7, Fault::HashFunction, "unknown hashing function: 7"},
        {48, 4, 0, Fault::HashFunction, "unknown hashing function: 0"},
        {24, 4, 0, Fault::BlockSize, "block size is invalid: 0"},
        {32, 8, LARGEST, Fault::FileSize, WRONG_SIZE},
        {32, 8, 1000 * BLOCK, Fault::FileSize, WRONG_SIZE},
    };
    create(10);
    const Bytes valid = readFile(path);
    Bytes damaged = valid;
    for (auto fault = std::rbegin(faults); fault != std::rend(faults); ++fault) {
        const auto& [offset, size, value, kind, text] = *fault;
        Bytes single = valid;
        std::memcpy(&single[offset], &value, size);
        std::memcpy(&damaged[offset], &value, size); // on top of all later ones
        EXPECT_EQ(refusalOf(single, kind, offset), text);
        EXPECT_EQ(refusalOf(damaged, kind, offset), text);
        EXPECT_EQ(HashFileInspector::examine(path).isHashFile(), offset != 0);
    }
    Bytes endless = valid; // no file has such sizes, though 33 times this, in 64 bits, is 17
    const uint64_t target = 558992244657865201, block = 1;
    std::memcpy(&endless[32], &target, 8);
    std::memcpy(&endless[24], &block, 4);
    EXPECT_EQ(refusalOf(endless, Fault::FileSize, 32), WRONG_SIZE);
    Bytes bytes = valid;
    for (const std::size_t size : {12288, 56, 55, 0}) {
        bytes.resize(size);
        const bool isShort = size < 56;
        EXPECT_EQ(refusalOf(bytes, isShort ? Fault::Length : Fault::FileSize, isShort ? 0 : 32),
                  isShort ? "file is too small to be valid: " + std::to_string(size) : WRONG_SIZE);
    }
    for (const std::string& other : {directory.file(""), std::string("/dev/null")}) {
        EXPECT_EQ(failureOf([&] { BlockHashStore::open(other, 0); }), "path does not represent a hash file");
        expectFinding(other, {Fault::FileType});
        EXPECT_FALSE(HashFileInspector::examine(other).isHashFile());
    }
}

// As data, besides the texts.
TEST_F(HashFileTest, FailuresOfTheSystemHaveItsErrorNumber)
{
    create(10);
    EXPECT_EQ(HashFileInspector::examine(path).fault, HashFileFault::None);
    expectFinding(directory.file("missing"), {HashFileFault::Status, 0, ENOENT});
    try {
        BlockHashStore::open(directory.file("missing"), 0);
        ADD_FAILURE();
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOENT);
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    }
    for (const auto& [failing, error, fault] :
         {std::tuple(Call::Open, EACCES, HashFileFault::Opening), {Call::ReadAt, EIO, HashFileFault::Reading}}) {
        const CallHook hook([&, call = failing, number = error](const CallRecord& record) {
            return Outcome {record.call == call ? number : 0};
        });
        expectFinding(path, {fault, 0, error});
        EXPECT_FALSE(HashFileInspector::examine(path).isHashFile());
    }
    const CallHook cut([](const CallRecord& call) { return Outcome {0, call.call == Call::ReadAt ? 0 : -1}; });
    expectFinding(path, {HashFileFault::Reading});
}

TEST_F(HashFileTest, ChangesItsSizeWithALogLine)
{
    const std::string prefix
        = "1 resizeIfTargetChangeDetected: hash storage resizing because target changed, expected: ";
    create(10);
    EXPECT_THAT(logOf([&] { open(2000); }), ElementsAre(prefix + "73728, actual: 8192"));
    EXPECT_THAT(logOf([&] { open(2000), open(2001); }), ElementsAre()); // the last page has room
    EXPECT_THAT(logOf([&] { open(0); }), ElementsAre(prefix + "4096, actual: 73728"));
    BlockHashStore::create(path, Blake2dHashFunctionType, 100, 0, 1, false);
    EXPECT_THAT(logOf([&] { BlockHashStore::open(path, LARGEST); }),
                ElementsAre("thrown: target is too large for its block size: 18446744073709551615, 1"));
}

TEST_F(HashFileTest, MovesWithItsStore)
{
    create(10);
    BlockHashStore::create(directory.file("second"), Blake2dHashFunctionType, 5000, 0, 512, false);
    const int descriptors = openDescriptors();
    const auto first = open(10);
    BlockHashStore store = std::move(*BlockHashStore::open(directory.file("second"), 5000));
    MemoryTarget target {randomBytes(10 * BLOCK - 1000, 1), 1000};
    first->get_hash(1000, 9 * BLOCK, target.supplier());
    store = std::move(*first);
    auto& self = store;
    store = std::move(self);
    EXPECT_EQ(openDescriptors(), descriptors + 1);
    EXPECT_EQ(store.getHashFunctionType(), Blake2dHashFunctionType);
    EXPECT_EQ(store.get_hash(1005, 9 * BLOCK, target.supplier()), aggregateDigest(target.bytes, BLOCK, 5, 9 * BLOCK));
}

TEST_F(HashFileTest, IsInspectedWithTheFailuresOfOpening)
{
    create(10);
    const std::string missing = directory.file("missing");
    EXPECT_THAT(logWhileUnwinding([&] { HashFileInspector inspector(missing); }),
                ElementsAre("3 throwWithErrno: failed to stat hash file: 2",
                            "thrown: cannot inspect a hash file while an exception propagates"));
    HashFileInspector inspector(path);
    HashFileInspector other(std::move(inspector));
    inspector = std::move(other);
    EXPECT_EQ(inspector.block_size_in_bytes(), BLOCK);
}

} // namespace
} // namespace kelvane::testing

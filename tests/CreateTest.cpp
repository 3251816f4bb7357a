#include <gmock/gmock.h>

#include <cerrno>
#include <limits>
#include <sstream>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;

constexpr kelvane_size_t GIBIBYTE = 1073741824;

struct CreateTest : ::testing::Test {
    TemporaryDirectory directory;
    std::string path = directory.file("hashes");
};

TEST_F(CreateTest, ReplacesAnyFileByAHeaderAndZeros)
{
    writeFile(path, randomBytes(20000, 1));
    BlockHashStore::create(path, Blake2dHashFunctionType, 10000000, 1048576, 65536, false);
    Bytes expected = {
        0x12, 0x13, 0x00, 0x20, 0, 0, 0, 0, // magic number
        0,    0,    0,    0,    0, 0, 0, 0, // version
        0x00, 0x10, 0,    0,    0, 0, 0, 0, // where the data begins
        0x00, 0x00, 0x01, 0x00, 0, 0, 0, 0, // block size
        0x80, 0x96, 0x98, 0x00, 0, 0, 0, 0, // target size
        0x00, 0x00, 0x10, 0x00, 0, 0, 0, 0, // partition offset
        0x01, 0,    0,    0,    0, 0, 0, 0, // hash function
    };
    expected.resize(4096 + 8192); // 153 entries
    EXPECT_EQ(readFile(path), expected);
}

TEST_F(CreateTest, WritesZerosAndThenTheHeaderThroughSynchronousDescriptors)
{
    const char* const names[] = {"open", "close", "stat", "seek", "read", "pread", "write"};
    std::vector<std::string> calls;
    {
        const CallHook hook([&](const CallRecord& record) {
            std::ostringstream call;
            call << names[static_cast<int>(record.call)] << ' ' << std::hex << record.flags << std::dec << ' '
                 << record.length << ' ' << record.offset;
            calls.push_back(call.str());
            return Outcome();
        });
        BlockHashStore::create(path, Blake2dHashFunctionType, GIBIBYTE, 0, 4096, false);
    }
    std::vector<std::string> expected = {"open 101242 0 0", "seek 0 0 0"};
    expected.insert(expected.end(), 8, "write 0 1048576 0");
    expected.insert(
        expected.end(),
        {"write 0 266240 0", "close 0 0 0", "open 101002 0 0", "seek 0 0 0", "write 0 56 0", "close 0 0 0"});
    EXPECT_EQ(calls, expected);
    EXPECT_EQ(std::filesystem::status(path).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(CreateTest, RefusesBeforeAnythingIsTouched)
{
    constexpr auto LARGEST = std::numeric_limits<kelvane_size_t>::max();
    const struct {
        uint32_t id;
        kelvane_size_t target;
        uint32_t block;
        const char* text;
    } refusals[] = {
        {0, 10000, 4096, "unknown hash id: 0"},
        {2, 10000, 4096, "unknown hash id: 2"},
        {1, 10000, 0, "block size is invalid: 0"},
        {1, LARGEST, 1, "target is too large for its block size: 18446744073709551615, 1"},
        {1, LARGEST - 4096, 65, "target is too large for its block size: 18446744073709547519, 65"},
    };
    for (const auto& item : refusals) {
        const CallCounter counter;
        const auto id = static_cast<HashFunctionType>(item.id);
        EXPECT_THAT(logOf([&] { BlockHashStore::create(path, id, item.target, 0, item.block, true); }),
                    ElementsAre(std::string("thrown: ") + item.text));
        EXPECT_EQ(counter.counts(), CallCounts());
    }
}

TEST_F(CreateTest, MakesNeitherADirectoryNorAFileForTheHeaderAlone)
{
    const std::string inside = directory.file("missing/hashes");
    EXPECT_THAT(logOf([&] { BlockHashStore::create(inside, Blake2dHashFunctionType, 10000, 0, 4096, true); }),
                ElementsAre("thrown: error opening file for writing: 2"));
    EXPECT_FALSE(std::filesystem::exists(directory.file("missing")));
    EXPECT_EQ(failureOf([&] { Peer::initHeader(path, 10000, 0, 4096, 1); }), "error opening file for writing");
    const Bytes before = randomBytes(5000, 2);
    writeFile(path, before);
    Peer::initHeader(path, 10000, 0, 4096, 1);
    Bytes after = readFile(path);
    EXPECT_EQ(after[0], 0x12);
    std::copy_n(before.begin(), 56, after.begin());
    EXPECT_EQ(after, before);
}

TEST(Failures, CarryTheErrorNumberAndAreLoggedWhileAnotherPropagates)
{
    const auto fail = [](const char* message, int error) {
        return [=] {
            errno = error;
            Peer::throwWithErrno(message);
        };
    };
    EXPECT_EQ(failureOf(fail("failed to stat hash file", 2)), "failed to stat hash file: 2");
    EXPECT_EQ(failureOf(fail("message", 0)), "message: 0");
    EXPECT_EQ(failureOf(fail("", 5)), ": 5");
    EXPECT_THAT(logWhileUnwinding(fail("closing", 7)), ElementsAre("3 throwWithErrno: closing: 7"));
}

} // namespace
} // namespace kelvane::testing

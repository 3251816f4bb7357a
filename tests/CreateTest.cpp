#include <fcntl.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <sstream>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::Matcher;
using ::testing::MatchesRegex;

constexpr int ABSENT = -1;
constexpr kelvane_size_t GIBIBYTE = 1073741824;

int sizeOf(const std::string& path)
{
    return std::filesystem::exists(path) ? static_cast<int>(std::filesystem::file_size(path)) : ABSENT;
}

struct CreateTest : ::testing::Test {
    void create(kelvane_size_t target, bool deleteFileOnError = false) const
    {
        BlockHashStore::create(path, Blake2dHashFunctionType, target, 0, 4096, deleteFileOnError);
    }

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

TEST_F(CreateTest, SizesTheFileForItsBlocks)
{
    const std::pair<kelvane_size_t, int> sizes[]
        = {{0, 4096},          {1, 8192},           {4096, 8192},       {10000, 8192},
           {124 * 4096, 8192}, {125 * 4096, 12288}, {GIBIBYTE, 8654848}};
    for (const auto& [target, size] : sizes) {
        create(target);
        EXPECT_EQ(sizeOf(path), size) << target;
        EXPECT_EQ(BlockHashStore::open(path, target)->getBlockSize(), 4096U);
    }
    EXPECT_EQ(std::filesystem::status(path).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
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
        create(GIBIBYTE);
    }
    std::vector<std::string> expected = {"open 101242 0 0", "seek 0 0 0"};
    expected.insert(expected.end(), 8, "write 0 1048576 0");
    expected.insert(
        expected.end(),
        {"write 0 266240 0", "close 0 0 0", "open 101002 0 0", "seek 0 0 0", "write 0 56 0", "close 0 0 0"});
    EXPECT_EQ(calls, expected);
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
    writeFile(path, {1, 2, 3});
    for (const auto& item : refusals) {
        const CallCounter counter;
        EXPECT_THAT(logOf([&] {
                        BlockHashStore::create(path, static_cast<HashFunctionType>(item.id), item.target, 0, item.block,
                                               true);
                    }),
                    ElementsAre(std::string("thrown: ") + item.text));
        EXPECT_EQ(counter[Call::Open] + counter[Call::Unlink], 0U) << item.text;
    }
    EXPECT_EQ(readFile(path), (Bytes {1, 2, 3}));
}

struct CreateFailure {
    Call call;
    int skipped;
    Outcome outcome;
    const char* text;
    int left;    // what the file's size is when it is not deleted
    bool logged; // when an exception is propagating, and thrown otherwise
};

// Of a file of 8192 bytes.
const CreateFailure FAILURES[] = {
    {Call::Open, 0, {EACCES}, "error opening file for writing: 13", ABSENT, true},
    {Call::Seek, 0, {EIO}, "error in seek while trying to grow the file to 8192, errno = 5", 0, false},
    {Call::Write, 0, {ENOSPC}, "failed to write to block hash file", 0, false},
    {Call::Write, 0, {0, 100}, "failed to write to block hash file", 100, false},
    {Call::Close, 0, {EIO}, "failed to close fd while creating the block hash store: 5", 8192, true},
    {Call::Open, 1, {EMFILE}, "error opening file for writing", 8192, false},
    {Call::Seek, 1, {EIO}, "failed to seek to beginning of file to write header.: 5", 8192, true},
    {Call::Write, 1, {ENOSPC}, "failed to initialize header data: 28", 8192, true},
    {Call::Write, 1, {0, 55}, "failed to initialize header data: 0", 8192, true},
    {Call::Close, 1, {EDQUOT}, "failed to close fd while creating the block hash store: 122", 8192, true},
};

TEST_F(CreateTest, ReportsEveryFailureAndDeletesTheFileWhenAskedTo)
{
    for (const CreateFailure& failure : FAILURES) {
        SCOPED_TRACE(failure.text);
        const int descriptors = openDescriptors();
        const auto fails = [&](bool deleteFileOnError) {
            return [&, deleteFileOnError] {
                const Fault fault(failure.call, failure.outcome, failure.skipped);
                errno = 0;
                create(10000, deleteFileOnError);
            };
        };
        const std::string thrown = std::string("thrown: ") + failure.text;
        std::filesystem::remove(path);
        EXPECT_THAT(logOf(fails(false)), ElementsAre(thrown));
        EXPECT_EQ(sizeOf(path), failure.left);

        std::filesystem::remove(path);
        std::vector<Matcher<std::string>> lines(failure.left == ABSENT ? 0 : 1,
                                                MatchesRegex("1 create: deleted hash file due to error: [0-9]+"));
        lines.push_back(thrown);
        EXPECT_THAT(logOf(fails(true)), ElementsAreArray(lines));
        EXPECT_EQ(sizeOf(path), ABSENT);

        EXPECT_THAT(logWhileUnwinding(fails(false)),
                    ElementsAre(failure.logged ? std::string("3 throwWithErrno: ") + failure.text : thrown));
        EXPECT_EQ(sizeOf(path), failure.left);
        EXPECT_EQ(openDescriptors(), descriptors);
    }
}

// A write fails, and then a close or the deletion too.
TEST_F(CreateTest, TheFirstOfTwoFailuresReachesTheCaller)
{
    const std::string notClosed = "3 throwWithErrno: failed to close fd while creating the block hash store: 9";
    const std::string deleted = "1 create: deleted hash file due to error: 9";
    const struct {
        int writesBefore;
        Call second;
        std::vector<std::string> lines;
    } cases[] = {
        {0, Call::Close, {notClosed, deleted, "thrown: failed to write to block hash file"}},
        {1, Call::Close, {notClosed, deleted, "thrown: failed to initialize header data: 28"}},
        {0, Call::Unlink, {"thrown: failed to write to block hash file"}},
    };
    const int descriptors = openDescriptors();
    for (const auto& item : cases) {
        int writes = 0;
        int fired = 0;
        {
            const CallHook hook([&](const CallRecord& record) {
                if (record.call == item.second && writes > item.writesBefore) {
                    ++fired;
                    return Outcome {EBADF};
                }
                return record.call == Call::Write && writes++ == item.writesBefore ? Outcome {ENOSPC} : Outcome();
            });
            EXPECT_EQ(logOf([&] { create(10000, true); }), item.lines);
        }
        EXPECT_EQ(fired, 1);
        EXPECT_EQ(sizeOf(path), item.second == Call::Unlink ? 0 : ABSENT);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(CreateTest, MakesNoDirectory)
{
    path = directory.file("missing/hashes");
    EXPECT_THAT(logOf([&] { create(10000, true); }), ElementsAre("thrown: error opening file for writing: 2"));
    EXPECT_FALSE(std::filesystem::exists(directory.file("missing")));
}

TEST_F(CreateTest, TheHeaderIsWrittenIntoAnExistingFileOnly)
{
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

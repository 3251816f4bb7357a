#include "SimpleCachedReader.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <limits>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;

constexpr kelvane_ssize_t PAGE = 4096;
constexpr auto CACHE = static_cast<kelvane_ssize_t>(SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES);
constexpr kelvane_ssize_t FILE_SIZE = 300000;
constexpr kelvane_ssize_t MAXIMUM = std::numeric_limits<kelvane_ssize_t>::max();

// A reader on a file of random bytes, beside a copy of what the file must hold.
struct SimpleCachedReaderTest : ::testing::Test {
    explicit SimpleCachedReaderTest(std::size_t cacheSize = SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES)
        : reader(cacheSize)
    {
        writeFile(path, content);
        EXPECT_GE(reader.open(path, O_RDWR), 0);
        reader.setOnReadCallback([this](unsigned long bytes) { transfers.push_back(bytes); });
    }

    void seekTo(kelvane_ssize_t offset) { ASSERT_EQ(reader.seek(offset, SEEK_SET), offset); }
    kelvane_ssize_t position() { return reader.seek(0, SEEK_CUR); }

    Bytes expected(kelvane_ssize_t offset, kelvane_ssize_t length) const
    {
        const auto size = static_cast<kelvane_ssize_t>(content.size());
        return {content.begin() + std::min(offset, size), content.begin() + std::min(offset + length, size)};
    }

    void expectReadAt(kelvane_ssize_t offset, kelvane_ssize_t length)
    {
        seekTo(offset);
        Bytes bytes(static_cast<std::size_t>(length));
        ASSERT_EQ(reader.read(bytes.data(), length), length);
        ASSERT_EQ(bytes, expected(offset, length)) << length << " bytes at " << offset;
    }

    Bytes content = randomBytes(FILE_SIZE, 7);
    TemporaryDirectory directory;
    std::string path = directory.file("data");
    SimpleCachedReader reader;
    std::vector<unsigned long> transfers; // their bytes, as the callback for reads got them
    char byte = 0;
};

TEST_F(SimpleCachedReaderTest, OpensExistingFilesOnlyAndNotForOtherPrograms)
{
    std::vector<int> flags;
    {
        const CallHook hook([&](const CallRecord& record) {
            flags.push_back(record.flags);
            return Outcome();
        });
        EXPECT_LT(reader.open(directory.file("missing"), O_RDWR), 0);
        EXPECT_EQ(errno, ENOENT);
    }
    EXPECT_THAT(flags, ElementsAre(O_RDWR | O_CLOEXEC));
    EXPECT_FALSE(std::filesystem::exists(directory.file("missing")));
    expectReadAt(0, 56);
    EXPECT_EQ(reader.read(&byte, -1), -1);
    EXPECT_EQ(errno, EINVAL);
    SimpleCachedReader closed(CACHE);
    const std::function<kelvane_ssize_t()> operations[]
        = {[&] { return closed.seek(0, SEEK_SET); }, [&] { return closed.read(&byte, 1); },
           [&] { return closed.write(&byte, 1); }, [&] { return closed.fsync(); },
           [&] { return closed.sync_file_range(0, 100); }};
    for (const auto& operation : operations) {
        errno = 0;
        EXPECT_EQ(operation(), -1);
        EXPECT_EQ(errno, EBADF);
    }
    EXPECT_EQ(failureOf([&] { closed.truncate(5); }), "failed to truncate file: 9");
    for (const std::size_t length : {static_cast<std::size_t>(INT_MAX) + 1, SIZE_MAX}) { // more than it could report
        EXPECT_EQ(reader.write(nullptr, length), -1);
        EXPECT_EQ(errno, EFBIG);
    }
}

TEST_F(SimpleCachedReaderTest, SeeksInEveryWayButNotBeforeTheStart)
{
    const struct {
        kelvane_ssize_t offset;
        int whence;
        kelvane_ssize_t position;
        int error;
    } cases[]
        = {{0, SEEK_SET, 0, 0},          {MAXIMUM, SEEK_SET, MAXIMUM, 0}, {-1, SEEK_SET, -1, EINVAL},
           {-1000, SEEK_CUR, 0, 0},      {-1001, SEEK_CUR, -1, EINVAL},   {MAXIMUM - 999, SEEK_CUR, -1, EOVERFLOW},
           {-FILE_SIZE, SEEK_END, 0, 0}, {5, SEEK_END, FILE_SIZE + 5, 0}, {-FILE_SIZE - 1, SEEK_END, -1, EINVAL},
           {0, 77, -1, EINVAL}};
    for (const auto& item : cases) {
        seekTo(1000);
        errno = 0;
        EXPECT_EQ(reader.seek(item.offset, item.whence), item.position) << item.offset << " " << item.whence;
        EXPECT_EQ(errno, item.error);
        EXPECT_EQ(position(), item.error == 0 ? item.position : 1000);
    }
    const Fault fault(Call::Seek, {EIO});
    EXPECT_EQ(reader.seek(0, SEEK_END), -1);
    EXPECT_EQ(errno, EIO);
}

TEST_F(SimpleCachedReaderTest, MovesWithItsFile)
{
    const int before = openDescriptors();
    seekTo(5000);
    SimpleCachedReader other(std::move(reader));
    ASSERT_GE(reader.open(path, O_RDWR), 0);
    EXPECT_EQ(openDescriptors(), before + 1);
    reader = std::move(other);
    auto& self = reader;
    reader = std::move(self);
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(position(), 5000);
    expectReadAt(5000, 100);
    EXPECT_THAT(transfers, ElementsAre(PAGE));
    EXPECT_EQ(other.read(&byte, 1), -1); // NOLINT: moved from, and without a file
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SimpleCachedReaderTest, RepeatsInterruptedCallsAndReportsOtherFailures)
{
    const std::pair<Call, std::function<int()>> operations[]
        = {{Call::Open, [&] { return std::min(reader.open(path, O_RDWR), 0); }},
           {Call::SyncFileRange, [&] { return reader.sync_file_range(4096, 8192); }},
           {Call::Fsync, [&] { return reader.fsync(); }},
           {Call::Truncate,
            [&] { return failureOf([&] { reader.truncate(FILE_SIZE); }) == "failed to truncate file: 5" ? -1 : 0; }}};
    for (const auto& [call, operation] : operations) {
        for (const int error : {EINTR, EIO}) {
            const Fault fault(call, {error}, 0, 2);
            EXPECT_EQ(operation(), error == EINTR ? 0 : -1);
            EXPECT_EQ(errno, error);
        }
    }
    const CallHook hook([&](const CallRecord& record) {
        EXPECT_EQ(record.flags, SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
        return Outcome();
    });
    EXPECT_EQ(reader.sync_file_range(4096, 8192), 0);
}

TEST_F(SimpleCachedReaderTest, ForgetsWhatAFailedWriteMayHaveChanged)
{
    expectReadAt(4096, 100);
    seekTo(4096);
    {
        const CallHook hook([&](const CallRecord&) {
            writeFile(path, content = randomBytes(FILE_SIZE, 8)); // nobody knows what becomes of the file
            return Outcome {EIO};
        });
        EXPECT_EQ(reader.write(&byte, 1), -1);
    }
    expectReadAt(4096, 100);
}

TEST_F(SimpleCachedReaderTest, WritesThatLeaveAByteOutDoNotMakeItUp)
{
    for (const std::size_t offset : {200000U, 200011U}) {
        seekTo(static_cast<kelvane_ssize_t>(offset));
        ASSERT_EQ(reader.write(content.data(), 10), 10);
        std::copy_n(content.begin(), 10, &content[offset]);
    }
    expectReadAt(200000, 21);
}

TEST_F(SimpleCachedReaderTest, FetchesPagesOrStraightAndAheadWhereReadsAscend)
{
    for (const kelvane_ssize_t offset : {290000, 200000, 150000, 100000, 8190, 1}) { // scattered
        expectReadAt(offset, 33);
    }
    EXPECT_THAT(transfers, ElementsAre(PAGE, PAGE, PAGE, PAGE, 2 * PAGE, PAGE));
    transfers.clear();
    for (const kelvane_ssize_t length : {CACHE, CACHE + 1, kelvane_ssize_t {200000}}) {
        expectReadAt(1001, length);
    }
    EXPECT_THAT(transfers, ElementsAre(CACHE, CACHE + 1, 200000));
    for (const kelvane_ssize_t gap : {0, 400}) {
        transfers.clear();
        for (kelvane_ssize_t offset = gap; offset < 5 * CACHE; offset += 330 + gap) {
            expectReadAt(offset, 330);
        }
        EXPECT_LE(transfers.size(), 6U) << "gap " << gap;
    }
    transfers.clear();
    for (const kelvane_ssize_t length : {kelvane_ssize_t {1}, kelvane_ssize_t {3300}, CACHE - 1}) { // just written
        seekTo(70000);
        ASSERT_EQ(reader.write(content.data(), static_cast<std::size_t>(length)), length);
        std::copy_n(content.begin(), length, content.begin() + 70000);
        expectReadAt(70000, length);
    }
    EXPECT_THAT(transfers, ElementsAre());
}

// Random operations, with sizes and positions that cluster where pages and the cache end. Transfers are split,
// interrupted or fail now and then, and callbacks throw; the reader must agree with the copy at every step, and
// make no more transfers than one for each operation.
struct ReaderModelTest : SimpleCachedReaderTest, ::testing::WithParamInterface<int> {
    ReaderModelTest()
        : SimpleCachedReaderTest(static_cast<std::size_t>(GetParam()))
    {
        const auto callback = [this](unsigned long bytes) {
            transfers.push_back(bytes);
            if (random(50) == 0) {
                throw 0;
            }
        };
        reader.setOnReadCallback(callback);
        reader.setOnWriteCallback(callback);
    }

    kelvane_ssize_t random(kelvane_ssize_t end) { return static_cast<kelvane_ssize_t>(generator()) % end; }

    kelvane_ssize_t randomSize()
    {
        const kelvane_ssize_t sizes[] = {0, 33, PAGE, PAGE * 3, GetParam(), CACHE, CACHE * 2};
        return std::max<kelvane_ssize_t>(0, sizes[random(std::size(sizes))] + random(5) - 2);
    }

    Outcome disturb(const CallRecord& record)
    {
        const kelvane_ssize_t choice = random(40);
        failed = choice == 0 || (moved > 0 && choice < 10);
        if (failed || choice == 1) {
            return {failed ? EIO : EINTR};
        }
        const auto length = static_cast<kelvane_ssize_t>(record.length);
        const kelvane_ssize_t limit = choice < 20 && length > 1 ? 1 + random(length - 1) : length;
        moved += limit;
        return {0, limit};
    }

    // Runs a transfer that moves `length` bytes unless it is made to fail.
    void transfer(kelvane_ssize_t length, const std::function<kelvane_ssize_t()>& operation)
    {
        const kelvane_ssize_t before = position();
        failed = false;
        moved = 0;
        transfers.clear();
        try {
            const CallHook hook([this](const CallRecord& record) { return disturb(record); });
            const kelvane_ssize_t count = operation();
            EXPECT_EQ(count, failed ? -1 : length);
            EXPECT_TRUE(!failed || errno == EIO);
        } catch (int) {
            ++thrown;
            failed = failed && position() != before + length; // as below: perhaps nothing asked for failed
        }
        failures += failed;
        ASSERT_EQ(position(), before + (failed ? 0 : length));
        ASSERT_LE(transfers.size(), 1U);
    }

    void readSome()
    {
        Bytes bytes(static_cast<std::size_t>(randomSize()));
        const Bytes right = expected(position(), static_cast<kelvane_ssize_t>(bytes.size()));
        const auto size = static_cast<kelvane_ssize_t>(right.size());
        transfer(size, [&] {
            const kelvane_ssize_t count = reader.read(bytes.data(), static_cast<kelvane_ssize_t>(bytes.size()));
            failed = failed && count != size; // only what was read ahead failed
            return count;
        });
        bytes.resize(right.size());
        ASSERT_TRUE(failed || bytes == right);
        ASSERT_TRUE(failed || size < GetParam() || size == 0 || !transfers.empty());
    }

    void writeSome()
    {
        seekTo(std::min<kelvane_ssize_t>(position(), 2 * FILE_SIZE));
        const Bytes bytes = randomBytes(static_cast<std::size_t>(randomSize()), static_cast<unsigned>(generator()));
        const auto start = static_cast<std::size_t>(position());
        transfer(static_cast<kelvane_ssize_t>(bytes.size()), [&] { return reader.write(bytes.data(), bytes.size()); });
        content.resize(std::max(content.size(), moved > 0 ? start + static_cast<std::size_t>(moved) : 0));
        std::copy_n(bytes.begin(), moved,
                    moved > 0 ? content.begin() + static_cast<std::ptrdiff_t>(start) : content.end());
        ASSERT_EQ(transfers,
                  moved > 0 ? std::vector {static_cast<unsigned long>(moved)} : std::vector<unsigned long>());
    }

    void truncateSome()
    {
        const auto size = static_cast<kelvane_ssize_t>(content.size());
        const kelvane_ssize_t length = random(3) == 0 ? random(FILE_SIZE) : std::max(size - randomSize(), size / 2);
        reader.truncate(static_cast<std::size_t>(length));
        content.resize(static_cast<std::size_t>(length));
    }

    void seekSomewhere()
    {
        const auto end = static_cast<kelvane_ssize_t>(content.size()) + PAGE;
        seekTo(random(4) == 0 ? random(end) : std::max<kelvane_ssize_t>(0, position() - randomSize()));
    }

    std::mt19937 generator {static_cast<unsigned>(GetParam())};
    kelvane_ssize_t moved = 0;
    bool failed = false;
    int failures = 0, thrown = 0;
};

TEST_P(ReaderModelTest, AgreesWithACopyInMemory)
{
    for (int i = 0; i < 1500 && !HasFatalFailure(); ++i) {
        const kelvane_ssize_t action = random(10);
        action < 4 ? readSome() : action < 6 ? writeSome() : action < 9 ? seekSomewhere() : truncateSome();
    }
    EXPECT_EQ(readFile(path), content);
    EXPECT_GT(failures, 5);
    EXPECT_GT(thrown, 5);
}

INSTANTIATE_TEST_SUITE_P(CacheSizes, ReaderModelTest, ::testing::Values(0, 1, 5000, 8192, CACHE));

} // namespace
} // namespace kelvane::testing

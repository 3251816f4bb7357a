#include "SimpleCachedReader.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <limits>
#include <numeric>

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

    void writeAt(kelvane_ssize_t offset, kelvane_ssize_t length)
    {
        seekTo(offset);
        ASSERT_EQ(reader.write(content.data(), static_cast<std::size_t>(length)), length);
        std::copy_n(content.begin(), length, content.begin() + offset);
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
    const CallHook hook([](const CallRecord& record) {
        EXPECT_TRUE(record.call != Call::Open || record.flags == (O_RDWR | O_CLOEXEC));
        return Outcome();
    });
    EXPECT_EQ(reader.open(directory.file("missing"), O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    expectReadAt(0, 56); // the file is open still
    SimpleCachedReader closed(CACHE);
    const std::tuple<kelvane_ssize_t, int, int> refusals[]
        = {{closed.seek(0, SEEK_SET), errno, EBADF},
           {closed.read(&byte, 1), errno, EBADF},
           {closed.write(&byte, 1), errno, EBADF},
           {closed.fsync(), errno, EBADF},
           {closed.sync_file_range(0, 100), errno, EBADF},
           {reader.read(&byte, -1), errno, EINVAL},
           {reader.write(nullptr, std::size_t {INT_MAX} + 1), errno, EFBIG}, // more than it could report
           {reader.write(nullptr, SIZE_MAX), errno, EFBIG},
           {reader.seek(MAXIMUM, SEEK_SET) - MAXIMUM + reader.read(&byte, 1), errno, EINVAL}, // where no byte can lie
           {reader.write(&byte, 1), errno, EFBIG}};
    for (const auto& [result, error, expected] : refusals) {
        EXPECT_EQ(std::pair(result, error), std::pair(kelvane_ssize_t {-1}, expected));
    }
    EXPECT_EQ(failureOf([&] { closed.truncate(5); }), "failed to truncate file: 9");
}

TEST_F(SimpleCachedReaderTest, SeeksInEveryWayButNotBeforeTheStart)
{
    const std::tuple<kelvane_ssize_t, int, kelvane_ssize_t, int> cases[]
        = {{0, SEEK_SET, 0, 0},          {MAXIMUM, SEEK_SET, MAXIMUM, 0}, {-1, SEEK_SET, -1, EINVAL},
           {-1000, SEEK_CUR, 0, 0},      {-1001, SEEK_CUR, -1, EINVAL},   {MAXIMUM - 999, SEEK_CUR, -1, EOVERFLOW},
           {-FILE_SIZE, SEEK_END, 0, 0}, {5, SEEK_END, FILE_SIZE + 5, 0}, {-FILE_SIZE - 1, SEEK_END, -1, EINVAL},
           {0, 77, -1, EINVAL}};
    for (const auto& [offset, whence, end, error] : cases) {
        seekTo(1000);
        errno = 0;
        EXPECT_EQ(reader.seek(offset, whence), end) << offset << " " << whence;
        EXPECT_EQ(errno, error);
        EXPECT_EQ(position(), error == 0 ? end : 1000);
    }
    const CallHook failing([](const CallRecord&) { return Outcome {EIO}; });
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
    EXPECT_EQ(other.read(&byte, 1), -1); // moved from, and without a file
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
    writeAt(200000, 10);
    writeAt(200011, 10);
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
        writeAt(70000, length);
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
        const kelvane_ssize_t limit = choice < 20 ? 1 + random(length) : length;
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
        if (moved > 0) {
            content.resize(std::max(content.size(), start + static_cast<std::size_t>(moved)));
            std::copy_n(bytes.begin(), moved, &content[start]);
        }
        ASSERT_EQ(std::accumulate(transfers.begin(), transfers.end(), 0L), moved);
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

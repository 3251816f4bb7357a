#include "SimpleCachedReader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using Size = kelvane_ssize_t;

constexpr Size PAGE = 4096;
constexpr Size CACHE = SimpleCachedReader::CACHE_BUFFER_SIZE_IN_BYTES;

// A reader on a file of random bytes, beside a copy of what the file must hold, with which all operations are
// compared. In a random run transfers are split, interrupted or fail now and then, and callbacks throw.
struct Model {
    explicit Model(Size cacheSize)
        : reader(static_cast<std::size_t>(cacheSize))
    {
        writeFile(path, content);
        EXPECT_GE(reader.open(path, O_RDWR), 0);
        const auto callback = [this](unsigned long bytes) {
            transfers.push_back(static_cast<Size>(bytes));
            errno = 0;
            if (isRandom && random.chance(2)) {
                throw 0;
            }
        };
        reader.setOnReadCallback(callback);
        reader.setOnWriteCallback(callback);
    }

    Size size() const { return std::ssize(content); }
    Size position() { return reader.seek(0, SEEK_CUR); }

    Outcome disturb(const CallRecord& record)
    {
        const Size choice = isRandom ? random.below(40) : 40;
        const bool fails = choice == 0 || (moved > 0 && choice < 10);
        failed = fails && record.offset < end;       // else it is what was read ahead
        if (fails && record.call == Call::WriteAt) { // nobody knows what it leaves in the file
            EXPECT_GT(::pwrite(record.fd, record.buffer, record.length, record.offset), 0);
        }
        if (fails || choice == 1) {
            return {fails ? EIO : EINTR};
        }
        const auto limit
            = choice < 20 ? 1 + random.below(static_cast<Size>(record.length)) : static_cast<Size>(record.length);
        moved += std::clamp<Size>(size() - record.offset, 0, limit);
        return {0, limit};
    }

    void transfer(Call kind, Size start, Size length)
    {
        const Size bases[] = {0, position(), size()}; // of SEEK_SET, SEEK_CUR and SEEK_END
        const auto whence = static_cast<int>(random.below(3));
        EXPECT_EQ(reader.seek(start - bases[whence], whence), start);
        Bytes bytes = randomBytes(static_cast<std::size_t>(length), static_cast<unsigned>(random.generator()));
        const bool isWrite = kind == Call::WriteAt;
        if (isWrite && length > 0) {
            content.resize(static_cast<std::size_t>(std::max(size(), start + length)));
            std::ranges::copy(bytes, content.begin() + start);
        }
        const auto right = content.begin() + std::min(start, size());
        const Size available = std::min(length, content.end() - right);
        const auto before = std::ssize(transfers);
        end = start + length;
        moved = 0;
        failed = false;
        try {
            const CallHook hook([this](const CallRecord& record) { return disturb(record); });
            const Size count = isWrite ? reader.write(bytes.data(), bytes.size()) : reader.read(bytes.data(), length);
            EXPECT_EQ(count, failed ? -1 : available);
            EXPECT_TRUE(!failed || errno == EIO);
        } catch (int) {
            ++thrown;
        }
        failures += failed;
        EXPECT_EQ(position(), start + (failed ? 0 : available));
        EXPECT_TRUE(failed || (isWrite ? moved == length : std::equal(right, right + available, bytes.begin())));
        EXPECT_EQ(std::vector(transfers.begin() + before, transfers.end()), std::vector(moved > 0 ? 1U : 0U, moved));
    }

    void truncate(Size length)
    {
        reader.truncate(static_cast<std::size_t>(length));
        content.resize(static_cast<std::size_t>(length));
    }

    // Away and back, while another file takes the place, without cache and callbacks.
    void move()
    {
        const Size start = position();
        SimpleCachedReader other(std::move(reader));
        EXPECT_GE(reader.open("/dev/zero", O_RDWR), 0);
        char byte = 1;
        EXPECT_EQ(reader.read(&byte, 1) + byte, 1);
        reader = std::move(other);
        auto& self = reader;
        reader = std::move(self);
        EXPECT_EQ(position(), start);
    }

    void openAnother()
    {
        content = randomBytes(static_cast<std::size_t>(size()), static_cast<unsigned>(random.generator()));
        path = directory.file(std::to_string(size()));
        writeFile(path, content);
        EXPECT_GE(reader.open(path, O_RDWR), 0);
        EXPECT_EQ(position(), 0);
    }

    void runAtRandom(Size cacheSize)
    {
        isRandom = true;
        for (int i = 0; i < 1500 && !::testing::Test::HasFailure(); ++i) {
            const Size sizes[] = {0, 33, PAGE, PAGE * 3, cacheSize, CACHE, CACHE * 2}; // where pages and the cache end
            const Size some = std::max<Size>(0, sizes[random.below(std::ssize(sizes))] + random.below(5) - 2);
            const Size near = std::max<Size>(0, position() + random.below(3) - random.below(2) * some);
            const Size place = random.chance(10) ? random.below(size() + PAGE) : random.chance(50) ? near : position();
            const Size choice = random.below(100);
            choice < 50       ? transfer(Call::ReadAt, place, some)
                : choice < 85 ? transfer(Call::WriteAt, place, some)
                : choice < 94 ? truncate(place)
                : choice < 99 ? move()
                              : openAnother();
        }
        EXPECT_EQ(readFile(path), content);
        EXPECT_GT(std::min(failures, thrown), 5);
    }

    Bytes content = randomBytes(300000, 7);
    TemporaryDirectory directory;
    std::string path = directory.file("data");
    SimpleCachedReader reader;
    Random random {std::mt19937_64(8)};
    std::vector<Size> transfers; // their bytes, as the callbacks got them
    bool isRandom = false, failed = false;
    Size end = 0, moved = 0, failures = 0, thrown = 0;
};

TEST(SimpleCachedReaderTest, AgreesWithACopyInMemory)
{
    const int descriptors = openDescriptors();
    for (const Size cacheSize : {Size {0}, Size {1}, Size {5000}, 2 * PAGE, CACHE}) {
        SCOPED_TRACE(cacheSize);
        Model(cacheSize).runAtRandom(cacheSize);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(SimpleCachedReaderTest, FetchesPagesOrStraightAndAheadWhereReadsAscend)
{
    Model model(CACHE);
    for (const Size offset : {1, 299990, 200000, 150000, 100000, 8190}) {
        model.transfer(Call::ReadAt, offset, 33);
    }
    for (const Size length : {CACHE, CACHE, CACHE + 1}) {
        model.transfer(Call::ReadAt, 20001, length);
    }
    const std::vector<Size> scattered = {PAGE, 300000 % PAGE, PAGE, PAGE, PAGE, 2 * PAGE, CACHE, CACHE, CACHE + 1};
    EXPECT_EQ(std::exchange(model.transfers, {}), scattered);
    for (const Size gap : {0, 400}) {
        for (Size offset = gap; offset < 5 * CACHE; offset += 330 + gap) {
            model.transfer(Call::ReadAt, offset, 330);
            model.move();
        }
        EXPECT_LE(std::exchange(model.transfers, {}).size(), 6U) << "gap " << gap;
    }
    for (const Size length : {Size {1}, Size {3300}, CACHE - 1}) {
        model.transfer(Call::WriteAt, 70000, length);
        model.move();
        model.transfer(Call::ReadAt, 70000, length);
    }
    EXPECT_EQ(model.transfers, (std::vector<Size> {1, 3300, CACHE - 1})); // only the writes
}

TEST(SimpleCachedReaderTest, RepeatsInterruptedCalls)
{
    Model model(CACHE);
    std::vector<int> flags; // of the calls
    const CallHook hook([&](const CallRecord& record) {
        flags.push_back(record.flags);
        return Outcome {flags.size() % 3 == 0 ? 0 : EINTR};
    });
    EXPECT_GE(model.reader.open(model.path, O_RDWR), 0); // closes the old file in the fourth call
    EXPECT_EQ(model.reader.fsync() + model.reader.sync_file_range(4096, 8192), 0);
    model.reader.truncate(5);
    EXPECT_EQ(model.reader.seek(1, SEEK_END), -1); // the only one that fails for good
    const int opening = O_RDWR | O_CLOEXEC;
    const int syncing = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    EXPECT_EQ(flags, (std::vector {opening, opening, opening, 0, 0, 0, syncing, syncing, syncing, 0, 0, 0, 0}));
}

TEST(SimpleCachedReaderTest, RefusesWhatCannotBe)
{
    Model model(CACHE);
    SimpleCachedReader &reader = model.reader, closed(CACHE);
    const auto fails = [&](Size result, int error) {
        EXPECT_TRUE(result == -1 && std::exchange(errno, 0) == error) << result << ", not with " << error;
    };
    reader.seek(1000, SEEK_SET);
    fails(reader.open(model.directory.file("missing"), O_RDWR), ENOENT);
    fails(reader.seek(-model.size() - 1, SEEK_END), EINVAL);
    fails(reader.seek(INT64_MAX - 999, SEEK_CUR), EOVERFLOW);
    fails(reader.seek(0, 77), EINVAL);
    fails(reader.read(nullptr, -1), EINVAL);
    fails(reader.write(nullptr, std::size_t {1} << 31), EFBIG); // more than it could report
    fails(reader.write(nullptr, SIZE_MAX), EFBIG);
    fails(closed.seek(0, SEEK_SET), EBADF);
    fails(closed.read(nullptr, 1), EBADF);
    fails(closed.write(nullptr, 1), EBADF);
    fails(closed.fsync(), EBADF);
    for (const Size length : {Size {10}, CACHE - 1}) { // no page that is fetched reaches beyond the largest position
        char bytes[CACHE];
        reader.seek(INT64_MAX - length, SEEK_SET);
        EXPECT_EQ(reader.read(bytes, length), 0);
    }
    reader.seek(1000, SEEK_SET);
    EXPECT_EQ(reader.seek(INT64_MAX - 1000, SEEK_CUR), INT64_MAX);
    fails(reader.read(nullptr, 1), EINVAL); // behind which no byte can lie
    fails(reader.write(nullptr, 1), EFBIG);
}

} // namespace
} // namespace kelvane::testing

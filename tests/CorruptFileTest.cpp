// Damaged hash files: opening accepts exactly what an independent reading of the format accepts, and leaves
// what it refuses as it is.

#include <cstring>
#include <iostream>
#include <limits>

#include "Support.h"

namespace kelvane::testing {

namespace {

constexpr uint64_t TARGET = 200 * 4096;

template <class T>
T fieldAt(const Bytes& file, std::size_t offset)
{
    T value;
    std::memcpy(&value, file.data() + offset, sizeof(value));
    return value;
}

template <class T>
void setField(Bytes& file, std::size_t offset, T value)
{
    std::memcpy(file.data() + offset, &value, sizeof(value));
}

// The format's rules, in arithmetic that does not overflow.
bool isValid(const Bytes& file)
{
    if (file.size() < 56 || fieldAt<uint64_t>(file, 0) != 0x20001312 || fieldAt<uint64_t>(file, 8) != 0
        || fieldAt<uint64_t>(file, 16) != 4096 || fieldAt<uint32_t>(file, 24) == 0
        || fieldAt<uint32_t>(file, 48) != 1) {
        return false;
    }
    __extension__ using Wide = unsigned __int128;
    const Wide blockSize = fieldAt<uint32_t>(file, 24);
    const Wide entries = (Wide {fieldAt<uint64_t>(file, 32)} + blockSize - 1) / blockSize * 33;
    return 4096 + (entries + 4095) / 4096 * 4096 == file.size();
}

class CorruptFileTest : public ::testing::Test {
protected:
    CorruptFileTest()
    {
        BlockHashStore::create(path, Blake2dHashFunctionType, TARGET, 0, 4096, false);
        Bytes data = randomBytes(TARGET, 5);
        BlockHashStore::open(path, TARGET)->update_hashes(0, data.data(), TARGET);
        good = readFile(path);
    }

    ~CorruptFileTest() override
    {
        std::cout << cases << " damaged files, " << accepted << " accepted, " << wrong << " wrong\n";
    }

    // Opens the file for the target size that it records, or for the one that it had.
    void check(const Bytes& file)
    {
        std::filesystem::remove(path); // a file that is cut to nothing and written again is flushed by some systems
        writeFile(path, file);
        const uint64_t recorded = file.size() < 40 ? TARGET : fieldAt<uint64_t>(file, 32);
        const bool opened = failureOf([&] { BlockHashStore::open(path, recorded); }) == "(none)";
        if (!isValid(file)) {
            EXPECT_NE(failureOf([&] { BlockHashStore::open(path, TARGET); }), "(none)");
        }
        const bool right = opened == isValid(file) && readFile(path) == file;
        ++cases;
        accepted += opened ? 1 : 0;
        wrong += right ? 0 : 1;
        ASSERT_TRUE(right) << "case " << cases;
    }

    TemporaryDirectory directory;
    std::string path = directory.file("hashes");
    Bytes good;
    int cases = 0, accepted = 0, wrong = 0;
};

TEST_F(CorruptFileTest, EverySingleByteOfTheHeader)
{
    for (std::size_t offset = 0; offset < 56; ++offset) {
        for (int change = 1; change < 256; ++change) {
            Bytes file = good;
            file[offset] = static_cast<unsigned char>(file[offset] ^ change);
            check(file);
        }
    }
    EXPECT_GT(accepted, 8 * 255); // at least those of the gaps
}

TEST_F(CorruptFileTest, ExtremeFieldsAndSizes)
{
    const uint64_t extremes[] = {0,
                                 1,
                                 4095,
                                 4096,
                                 TARGET,
                                 uint64_t {1} << 31,
                                 uint64_t {1} << 32,
                                 uint64_t {1} << 63,
                                 std::numeric_limits<uint64_t>::max() - 4095,
                                 std::numeric_limits<uint64_t>::max()};
    for (const uint64_t target : extremes) {
        for (const uint64_t block : extremes) {
            for (const uint64_t partition : extremes) {
                Bytes file = good;
                setField(file, 24, static_cast<uint32_t>(block));
                setField(file, 32, target);
                setField(file, 40, partition);
                check(file);
            }
        }
    }
    for (std::size_t size = 0; size <= good.size() + 8192; size += size < 128 || size % 4096 > 4000 ? 1 : 13) {
        Bytes file = good;
        file.resize(size);
        check(file);
    }
}

} // namespace
} // namespace kelvane::testing

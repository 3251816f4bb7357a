// Damaged hash files, and the stored inputs of the fuzzer: opening accepts exactly what an independent reading of
// the format accepts, leaves what it refuses as it is, and holds no more memory than it may.

#include "../fuzz/CorruptFile.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <limits>

#include "Support.h"

namespace kelvane::testing {

namespace {

constexpr uint64_t TARGET = 200 * 4096;

template <class T>
void setField(Bytes& file, std::size_t offset, T value)
{
    std::memcpy(file.data() + offset, &value, sizeof(value));
}

class CorruptFileTest : public ::testing::Test {
protected:
    CorruptFileTest()
    {
        Logger::setLowestLevel(KELVANE_WARNING); // sizes change often here
        MemoryStore memory(TARGET, 0, 4096);
        memory->update_hashes(0, memory.target.bytes.data(), TARGET);
        good = memory.file();
    }

    ~CorruptFileTest() override
    {
        std::cout << what << ": " << files << " files, " << accepted << " accepted, " << wrong << " wrong, at most "
                  << peak << " bytes held\n";
        Logger::setLowestLevel(KELVANE_DEBUG);
    }

    void count(const CorruptFileResult& result, const std::string& name = {})
    {
        ++files;
        accepted += result.accepted ? 1 : 0;
        wrong += result.problem.empty() ? 0 : 1;
        peak = std::max(peak, result.peak);
        ASSERT_EQ(result.problem, "") << what << ' ' << files << ' ' << name;
    }

    void check(const Bytes& file, uint64_t otherTarget = 2 * TARGET) { count(checkCorruptFile(file, otherTarget)); }

    const char* what = "corrupt files";
    Bytes good;
    int files = 0, accepted = 0, wrong = 0;
    std::size_t peak = 0;
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
    EXPECT_EQ(files, 56 * 255);
    EXPECT_GT(accepted, 16 * 255); // those of the gaps and of the partition offset
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
        check(good, target);
    }
    Bytes huge = good; // one block of 4 GiB, for which there is no memory
    huge.resize(8192);
    setField(huge, 24, std::numeric_limits<uint32_t>::max());
    check(huge);
    for (std::size_t size = 0; size <= good.size() + 8192; size += size < 128 || size % 4096 > 4000 ? 1 : 13) {
        Bytes file = good;
        file.resize(size);
        check(file);
    }
    EXPECT_GT(accepted, 10);
}

TEST_F(CorruptFileTest, WhatTheFuzzerFound)
{
    what = "corpus replay";
    for (const auto& entry : std::filesystem::directory_iterator(KELVANE_CORPUS)) {
        const Bytes input = readFile(entry.path().string());
        count(checkCorruptFileFrom(input.data(), input.size()), entry.path().filename().string());
    }
    EXPECT_GT(files, 20);
    EXPECT_GT(accepted, 5);
}

} // namespace
} // namespace kelvane::testing

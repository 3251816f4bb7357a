// Damaged hash files, and the stored inputs of the fuzzer: opening accepts exactly what an independent reading of
// the format accepts, leaves what it refuses as it is, and holds no more memory than it may.

#include "../fuzz/CorruptFile.h"

#include <algorithm>
#include <cstring>
#include <iostream>

#include "Support.h"

namespace kelvane::testing {

namespace {

constexpr uint64_t TARGET = 200 * 4096;

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

    void count(const CorruptFileResult& result)
    {
        ++files;
        accepted += result.accepted ? 1 : 0;
        wrong += result.problem.empty() ? 0 : 1;
        peak = std::max(peak, result.peak);
        ASSERT_EQ(result.problem, "") << what << ' ' << files;
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
    constexpr uint64_t ONE = 1;
    const uint64_t extremes[]
        = {0, 1, 4095, 4096, TARGET, ONE << 31, (ONE << 32) - 1, ONE << 32, ONE << 63, UINT64_MAX - 4095, UINT64_MAX};
    for (const uint64_t target : extremes) {
        for (const uint64_t block : extremes) {
            for (const uint64_t partition : extremes) {
                for (const std::size_t size :
                     {good.size(), std::size_t {8192}}) { // that of a block at most 4 GiB large
                    Bytes file = good;
                    file.resize(size);
                    std::memcpy(&file[24], &block, 4);
                    std::memcpy(&file[32], &target, 8);
                    std::memcpy(&file[40], &partition, 8);
                    check(file);
                }
            }
        }
        check(good, target);
    }
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
        SCOPED_TRACE(entry.path().filename());
        count(checkCorruptFileFrom(input.data(), input.size()));
    }
    EXPECT_GT(files, 20);
    EXPECT_GT(accepted, 5);
}

} // namespace
} // namespace kelvane::testing

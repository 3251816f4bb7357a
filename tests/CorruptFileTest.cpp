// Damaged hash files, and the stored inputs of the fuzzer: opening accepts exactly what an independent reading of
// the format accepts, leaves what it refuses as it is, and holds no more memory than it may.

#include "../fuzz/CorruptFile.h"

#include <iostream>

namespace kelvane::testing {

namespace {

constexpr uint64_t TARGET = 200 * 4096;

class CorruptFileTest : public ::testing::Test {
protected:
    CorruptFileTest()
    {
        MemoryStore memory(TARGET, 0, 4096);
        memory->update_hashes(0, memory.target.bytes.data(), TARGET);
        good = memory.file();
    }

    ~CorruptFileTest() override
    {
        const auto* const test = ::testing::UnitTest::GetInstance()->current_test_info();
        std::cout << what << ": " << files << " files, " << accepted << " accepted, "
                  << test->result()->total_part_count() << " wrong\n";
    }

    void check(const Bytes& file, uint64_t otherTarget = 2 * TARGET)
    {
        ++files;
        SCOPED_TRACE(files);
        accepted += checkCorruptFile(file, otherTarget) ? 1 : 0;
    }

    QuietLog quiet;
    const char* what = "corrupt files";
    Bytes good;
    int files = 0, accepted = 0;
};

TEST_F(CorruptFileTest, EverySingleByteOfTheHeader)
{
    for (int change = 0; change < 56 * 255; ++change) {
        Bytes file = good;
        file[static_cast<std::size_t>(change / 255)] ^= static_cast<unsigned char>(1 + change % 255);
        check(file);
    }
    EXPECT_GT(accepted, 16 * 255); // those of the gaps and of the partition offset
}

TEST_F(CorruptFileTest, ExtremeFieldsAndSizes)
{
    const Bytes small = withHeader(good, {.blockSize = 1, .target = 200});
    const uint64_t extremes[]
        = {0, 1, 4095, 4096, TARGET, 1UL << 31, 1UL << 32, 1UL << 63, UINT64_MAX - 4095, UINT64_MAX};
    for (const uint64_t target : extremes) {
        for (const uint64_t block : extremes) {
            for (const uint64_t partition : extremes) {
                const auto blockSize = static_cast<uint32_t>(block);
                check(withHeader(good, {.blockSize = blockSize, .target = target, .partition = partition}));
            }
        }
        check(good, target);
        check(small, target);
    }
    Bytes huge = withHeader(good, {.blockSize = UINT32_MAX, .target = TARGET}); // there is no memory for its block
    huge.resize(8192);
    check(huge);
    for (std::size_t size = 0; size <= good.size() + 8192; size += size <= good.size() ? 1 : 4095) {
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
        SCOPED_TRACE(entry.path());
        const Bytes input = readFile(entry.path().string());
        ++files;
        accepted += checkCorruptFileFrom(input.data(), input.size()) ? 1 : 0;
    }
    EXPECT_GT(files, 20);
    EXPECT_GT(accepted, 5);
}

} // namespace
} // namespace kelvane::testing

#include <limits>

#include "Support.h"

namespace kelvane::testing {
namespace {

constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
constexpr int64_t HIGHEST = std::numeric_limits<int64_t>::max();
constexpr int64_t INTERESTING[]
    = {LOWEST, LOWEST + 1, -4096, -1, 0, 1, 999, 1000, 1001, 7192, 7193, 8191, 8192, 8193, HIGHEST - 1, HIGHEST};

TEST(Geometry, SizesAreRoundedUpToPages)
{
    EXPECT_EQ(Peer::computeHeaderSize(), 4096U);
    EXPECT_EQ(Peer::computeFileSize(0, 4096, 32), 4096U);
    EXPECT_EQ(Peer::computeFileSize(124, 1, 32), 8192U); // as many entries as a page holds
    EXPECT_EQ(Peer::computeFileSize(125, 1, 32), 12288U);
    EXPECT_EQ(Peer::computeFileSize(1073741824, 4096, 32), 8654848U);
    EXPECT_EQ(Peer::computeFileSize(UINT64_MAX, UINT32_MAX, 32), 141733928960U);
    EXPECT_TRUE(Peer::validReadWrite(56, 56) && Peer::validReadWrite(0, 0));
    EXPECT_FALSE(Peer::validReadWrite(56, 55) || Peer::validReadWrite(55, 56) || Peer::validReadWrite(-1, -1));
}

// What an access ends with, by numbers that cannot wrap around.
std::string violation(uint64_t target, uint64_t partition, int64_t offset, int64_t length)
{
    const __int128 end = std::min<__int128>(target, HIGHEST); // offsets beyond do not exist
    const bool accepted
        = offset >= static_cast<__int128>(partition) && offset < end && static_cast<__int128>(offset) + length <= end;
    return accepted ? "(none)"
                    : "tag: offset is out of bounds: " + std::to_string(offset) + ", "
            + std::to_string(static_cast<int64_t>(target - partition));
}

TEST(Geometry, AcceptsTheAccessesInsideTheTargetOnly)
{
    const MemoryStore store(1, 0, 1);
    const auto check = [&](uint64_t target, uint64_t partition, int64_t offset, int64_t length) {
        Peer::header(*store.store).targetSizeInBytes = target;
        Peer::header(*store.store).partitionOffset = partition;
        EXPECT_EQ(Peer::toInternalOffset(*store.store, Peer::fromInternalOffset(*store.store, offset)), offset);
        return failureOf([&] { store->throwOnAccessViolation("tag", offset, length); });
    };
    EXPECT_EQ(check(8192, 0, 0, 8192), "(none)");
    EXPECT_EQ(check(8192, 0, 8192, 0), "tag: offset is out of bounds: 8192, 8192");
    EXPECT_EQ(check(8192, 1000, 1000, 7193), "tag: offset is out of bounds: 1000, 7192");
    for (const int64_t target : INTERESTING) {
        for (const int64_t partition : INTERESTING) {
            for (const int64_t offset : INTERESTING) {
                for (const int64_t length : INTERESTING) {
                    const auto [t, p] = std::pair(static_cast<uint64_t>(target), static_cast<uint64_t>(partition));
                    ASSERT_EQ(check(t, p, offset, length), violation(t, p, offset, length))
                        << t << " " << p << " " << offset << " " << length;
                }
            }
        }
    }
}

} // namespace
} // namespace kelvane::testing

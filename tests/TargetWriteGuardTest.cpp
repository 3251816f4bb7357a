#include "TargetWriteGuard.h"

#include <gmock/gmock.h>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;

constexpr int64_t BLOCK = 100;

struct TargetWriteGuardTest : ::testing::Test {
    TargetWriteGuardTest() { memory->get_hash(0, 10 * BLOCK, memory.target.supplier()); }

    MemoryStore memory {10 * BLOCK, 0, BLOCK};
    const void* const written = &memory.target.bytes[2 * BLOCK];
};

TEST_F(TargetWriteGuardTest, MakesTheRangeUnknownAgainWhenItsHashesCannotBeStored)
{
    TargetWriteGuard guard(*memory.store, 2 * BLOCK, 3 * BLOCK);
    const Bytes unknown = memory.file();
    int writes = 0;
    memory->setOnWriteCallback([&](auto) { throw std::logic_error(std::to_string(++writes)); });
    const CallCounter calls;
    EXPECT_EQ(failureOf([&] { guard.commit(written); }), "1");
    EXPECT_EQ(calls.counts(), (CallCounts {{Call::WriteAt, 2}, {Call::Fsync, 1}}));
    EXPECT_EQ(memory.file(), unknown);
}

TEST_F(TargetWriteGuardTest, RefusesToWorkWhileAnExceptionPropagates)
{
    const Bytes known = memory.file();
    EXPECT_THAT(logWhileUnwinding([&] { TargetWriteGuard(*memory.store, 2 * BLOCK, 3 * BLOCK); }),
                ElementsAre("thrown: cannot guard a target write while an exception propagates"));
    EXPECT_EQ(memory.file(), known);
    TargetWriteGuard guard(*memory.store, 2 * BLOCK, 3 * BLOCK);
    EXPECT_THAT(logWhileUnwinding([&] { guard.commit(written); }),
                ElementsAre("thrown: cannot commit a target write while an exception propagates"));
    EXPECT_NE(memory.file(), known);
}

} // namespace
} // namespace kelvane::testing

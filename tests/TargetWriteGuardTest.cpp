#include "TargetWriteGuard.h"

#include <gmock/gmock.h>

#include <optional>

#include "Support.h"
#include "SystemCalls.h"

namespace kelvane::testing {
namespace {

using ::testing::ElementsAre;

constexpr int64_t BLOCK = 100;

struct TargetWriteGuardTest : ::testing::Test {
    TargetWriteGuardTest()
        : memory(10 * BLOCK, 0, BLOCK)
    {
        memory->get_hash(0, 10 * BLOCK, memory.target.supplier());
        unknown = known = memory.file();
        for (const int64_t block : {2, 3, 4}) {
            setEntry(unknown, block, {});
        }
    }

    void guard() { m_guard.emplace(*memory.store, 2 * BLOCK, 3 * BLOCK); }
    void commit() { m_guard->commit(static_cast<const void*>(&memory.target.bytes[2 * BLOCK])); }

    MemoryStore memory;
    Bytes known, unknown; // the hash file

private:
    std::optional<TargetWriteGuard> m_guard;
};

TEST_F(TargetWriteGuardTest, MakesTheRangeUnknownAgainWhenItsHashesCannotBeStored)
{
    guard();
    int writes = 0;
    memory->setOnWriteCallback([&](auto) { throw std::logic_error(std::to_string(++writes)); });
    const CallCounter calls;
    EXPECT_EQ(failureOf([&] { commit(); }), "1");
    EXPECT_EQ(calls.counts(), (CallCounts {{Call::WriteAt, 2}, {Call::Fsync, 1}}));
    EXPECT_EQ(memory.file(), unknown);
}

TEST_F(TargetWriteGuardTest, RefusesToWorkWhileAnExceptionPropagates)
{
    EXPECT_THAT(logWhileUnwinding([&] { guard(); }),
                ElementsAre("thrown: cannot guard a target write while an exception propagates"));
    EXPECT_EQ(memory.file(), known);
    guard();
    EXPECT_THAT(logWhileUnwinding([&] { commit(); }),
                ElementsAre("thrown: cannot commit a target write while an exception propagates"));
    EXPECT_EQ(memory.file(), unknown);
}

} // namespace
} // namespace kelvane::testing

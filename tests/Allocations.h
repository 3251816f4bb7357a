// The test program's allocations, of which a test can make one fail.
#pragma once

namespace kelvane::testing {

#if defined(__SANITIZE_ADDRESS__) // which brings an allocator of its own
constexpr bool ALLOCATIONS_CAN_FAIL = false;
#else
constexpr bool ALLOCATIONS_CAN_FAIL = true;
#endif

// How many allocations of this thread succeed before one fails; negative when none is to fail.
extern thread_local long allocationsUntilFailure;

// Makes the allocation after `successes` others fail while it lives, and tells at its end whether it did.
class FailingAllocation {
public:
    FailingAllocation(int successes, int& fired)
        : m_fired(fired)
    {
        allocationsUntilFailure = successes;
    }
    ~FailingAllocation()
    {
        m_fired = allocationsUntilFailure < 0 ? 1 : 0;
        allocationsUntilFailure = -1;
    }
    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

private:
    int& m_fired;
};

} // namespace kelvane::testing

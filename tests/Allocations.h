// The test program's allocations, of which a test can make one fail, and which it can limit and measure.
#pragma once

#include <cstddef>

namespace kelvane::testing {

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

// While it lives, this thread's allocations of more than `largest` bytes fail. One at a time.
class AllocationLimit {
public:
    explicit AllocationLimit(std::size_t largest);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;

    // The most that was held at a time beyond what was held at the start.
    std::size_t peak() const;

private:
    std::ptrdiff_t m_heldAtStart;
};

} // namespace kelvane::testing

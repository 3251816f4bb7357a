// The test program's allocations, of which a test can make one fail, and which it can limit and measure.
#pragma once

#include <cstddef>
#include <functional>

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

// The most bytes that `operation`, which must not throw, held at a time beyond those held before. This thread's
// allocations of more than `largest` bytes fail meanwhile.
std::size_t peakOf(std::size_t largest, const std::function<void()>& operation);

} // namespace kelvane::testing

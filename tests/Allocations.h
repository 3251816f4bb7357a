// The test program's allocations, of which a test can make one fail, and which it can limit and measure.
#pragma once

#include <cstddef>
#include <functional>

namespace kelvane::testing {

// Makes this thread's allocation after `successes` others fail while it lives; none where that is negative.
struct FailingAllocation {
    explicit FailingAllocation(int successes);
    ~FailingAllocation();
    FailingAllocation(FailingAllocation&&) = delete;

    static bool hasFailed(); // the allocation that the last one was for
};

// The most bytes that `operation`, which must not throw, held at a time beyond those held before. This thread's
// allocations of more than `largest` bytes fail meanwhile.
std::size_t peakOf(std::size_t largest, const std::function<void()>& operation);

} // namespace kelvane::testing

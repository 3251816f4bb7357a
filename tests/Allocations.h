// The test program's allocations, of which a test can make some fail, and which it can measure.
#pragma once

#include <cstddef>

namespace kelvane::testing {

// While it lives, those of this thread's allocations fail that are larger than `largest` bytes, and, unless
// `successes` is negative, the one after so many others. One at a time.
class AllocationLimit {
public:
    explicit AllocationLimit(std::size_t largest, long successes = -1);
    ~AllocationLimit();
    AllocationLimit(const AllocationLimit&) = delete;
    AllocationLimit& operator=(const AllocationLimit&) = delete;

    // The most that was held at a time beyond what was held at the start.
    std::size_t peak() const;

private:
    std::ptrdiff_t m_heldAtStart;
};

bool hasAllocationFailed(); // the one after the `successes` of the last limit

} // namespace kelvane::testing

// The test program's allocations, of which a test can make one fail.
#pragma once

namespace kelvane::testing {

// How many allocations of this thread succeed before one fails; negative when none is to fail.
extern thread_local long allocationsUntilFailure;

} // namespace kelvane::testing

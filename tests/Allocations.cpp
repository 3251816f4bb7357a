#include "Allocations.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace kelvane::testing {

namespace {

thread_local long successesLeft = -1;
thread_local bool failed = false;
thread_local std::size_t limit = SIZE_MAX;
thread_local std::ptrdiff_t held = 0, peakHeld = 0; // negative where other threads' memory was freed

} // namespace

FailingAllocation::FailingAllocation(int successes)
{
    successesLeft = successes;
    failed = false;
}

FailingAllocation::~FailingAllocation()
{
    successesLeft = -1;
}

bool FailingAllocation::hasFailed()
{
    return failed;
}

std::size_t peakOf(std::size_t largest, const std::function<void()>& operation)
{
    const std::ptrdiff_t heldBefore = peakHeld = held;
    limit = largest;
    operation();
    limit = SIZE_MAX;
    return static_cast<std::size_t>(peakHeld - heldBefore);
}

} // namespace kelvane::testing

using namespace kelvane::testing;

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    failed = failed || successesLeft == 0;
    const bool granted = size <= limit && successesLeft-- != 0;
    void* const memory = granted ? std::malloc(size != 0 ? size : 1) : nullptr;
    held += static_cast<std::ptrdiff_t>(::malloc_usable_size(memory));
    peakHeld = std::max(peakHeld, held);
    errno = EOWNERDEAD; // as any allocation may change it
    return memory;
}

void* operator new(std::size_t size)
{
    void* const memory = operator new(size, std::nothrow);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    held -= static_cast<std::ptrdiff_t>(::malloc_usable_size(memory));
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

// The forms for arrays too, because the address sanitizer's own do not call these as the library's do.
void* operator new[](std::size_t) __attribute__((alias("_Znwm")));
void operator delete[](void*) noexcept __attribute__((alias("_ZdlPv")));
void operator delete[](void*, std::size_t) noexcept __attribute__((alias("_ZdlPvm")));

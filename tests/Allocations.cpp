#include "Allocations.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>

namespace kelvane::testing {

namespace {

constexpr std::size_t NO_LIMIT = std::numeric_limits<std::size_t>::max();

thread_local std::size_t limit = NO_LIMIT;
thread_local long successesLeft = -1;
thread_local bool hasFailed = false;
thread_local std::ptrdiff_t held = 0; // negative where other threads' memory was freed
thread_local std::ptrdiff_t peakHeld = 0;

void* allocate(std::size_t size) noexcept
{
    hasFailed = hasFailed || successesLeft == 0;
    const bool granted = size <= limit && successesLeft-- != 0;
    void* const memory = granted ? std::malloc(size != 0 ? size : 1) : nullptr;
    held += static_cast<std::ptrdiff_t>(::malloc_usable_size(memory));
    peakHeld = std::max(peakHeld, held);
    return memory;
}

} // namespace

AllocationLimit::AllocationLimit(std::size_t largest, long successes)
    : m_heldAtStart(held)
{
    limit = largest;
    successesLeft = successes;
    hasFailed = false;
    peakHeld = held;
}

AllocationLimit::~AllocationLimit()
{
    limit = NO_LIMIT;
    successesLeft = -1;
}

std::size_t AllocationLimit::peak() const
{
    return static_cast<std::size_t>(peakHeld - m_heldAtStart);
}

bool hasAllocationFailed()
{
    return hasFailed;
}

} // namespace kelvane::testing

using namespace kelvane::testing;

// All forms that are in use, because the address sanitizer's own do not call each other as the library's do.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void* operator new(std::size_t size)
{
    void* const memory = allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void* operator new[](std::size_t size)
{
    return operator new(size);
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

void operator delete[](void* memory) noexcept
{
    operator delete(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

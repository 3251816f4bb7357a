#include "Allocations.h"

#include <cstdlib>
#include <new>

namespace kelvane::testing {

thread_local long allocationsUntilFailure = -1;

} // namespace kelvane::testing

using kelvane::testing::allocationsUntilFailure;

#if !defined(__SANITIZE_ADDRESS__) // which brings its own

void* operator new(std::size_t size)
{
    if (allocationsUntilFailure >= 0 && allocationsUntilFailure-- == 0) {
        throw std::bad_alloc();
    }
    if (void* const memory = std::malloc(size != 0 ? size : 1)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

#endif

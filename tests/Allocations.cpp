#include "Allocations.h"

#include <cstdlib>
#include <new>

namespace kelvane::testing {

thread_local long allocationsUntilFailure = -1;

} // namespace kelvane::testing

#if !defined(__SANITIZE_ADDRESS__)

// The library's other forms of these call the two.
void* operator new(std::size_t size)
{
    long& left = kelvane::testing::allocationsUntilFailure;
    void* const memory = left < 0 || left-- > 0 ? std::malloc(size != 0 ? size : 1) : nullptr;
    return memory != nullptr ? memory : throw std::bad_alloc();
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

#endif

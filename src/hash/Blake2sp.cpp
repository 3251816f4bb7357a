#include "hash/Blake2sp.h"

#include <cstring>

// The scalable vector targets are left out: the kernel keeps vectors in arrays, which those forbid.
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)
#endif

// Everything down to HWY_AFTER_NAMESPACE is compiled once per instruction set.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "hash/Blake2sp.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "hash/Leaves-inl.h"
#include "hash/Roots-inl.h"

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

void hashMany(const uint8_t* const* messages, size_t count, size_t length, uint8_t* const* digests)
{
    const hn::CappedTag<uint32_t, 16> widest;
    const hn::CappedTag<uint32_t, LEAVES> oneMessage;
    constexpr size_t LANES = hn::MaxLanes(widest);
    constexpr size_t MESSAGES_AT_ONCE = LANES > LEAVES ? LANES / LEAVES : 1;
    while (count != 0) {
        const size_t batch = smaller(count, LANES);
        uint8_t leafDigests[LANES * ROOT_MESSAGE];
        const size_t wide = batch - batch % MESSAGES_AT_ONCE;
        hashLeaves(widest, messages, wide, length, leafDigests);
        hashLeaves(oneMessage, messages + wide, batch - wide, length, leafDigests + wide * ROOT_MESSAGE);
        if (batch == 1) {
            hashRoot(leafDigests, digests[0]);
        } else if (batch > hn::MaxLanes(oneMessage)) {
            hashRoots(widest, leafDigests, batch, digests);
        } else {
            hashRoots(oneMessage, leafDigests, batch, digests);
        }
        messages += batch;
        digests += batch;
        count -= batch;
    }
}

const char* targetName()
{
    return hwy::TargetName(HWY_TARGET);
}

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace kelvane {

HWY_EXPORT(hashMany);
HWY_EXPORT(targetName);

void blake2spMany(const void* const* messages, size_t count, size_t length, unsigned char* const* digests)
{
    HWY_DYNAMIC_DISPATCH(hashMany)(reinterpret_cast<const uint8_t* const*>(messages), count, length, digests);
}

void blake2sp(const void* message, size_t length, unsigned char* digest)
{
    blake2spMany(&message, 1, length, &digest);
}

const char* blake2spInstructionSet()
{
    return HWY_DYNAMIC_DISPATCH(targetName)();
}

} // namespace kelvane
#endif

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

#include "hash/LeafPairs-inl.h"
#include "hash/Roots-inl.h"

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

void hashMany(const uint8_t* const* messages, size_t count, size_t length, uint8_t* const* digests)
{
    while (count != 0) {
        const size_t batch = smaller(count, LEAF_BATCH);
        uint8_t leafDigests[LEAF_BATCH * ROOT_MESSAGE];
        hashAllLeaves(messages, batch, length, leafDigests);
        hashAllRoots(leafDigests, batch, digests);
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

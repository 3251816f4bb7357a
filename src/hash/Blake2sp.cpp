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
#include "hash/Pieces-inl.h"
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

void begin(Blake2spLeaves& leaves)
{
    beginLeaves(leaves);
}

void absorb(Blake2spLeaves& leaves, const uint8_t* bytes, size_t stripes)
{
    absorbStripes(leaves, bytes, stripes);
}

void finish(const Blake2spLeaves& leaves, const uint8_t* rest, size_t length, uint8_t* digest)
{
    finishMessage(leaves, rest, length, digest);
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
HWY_EXPORT(begin);
HWY_EXPORT(absorb);
HWY_EXPORT(finish);
HWY_EXPORT(targetName);

void blake2spMany(const void* const* messages, size_t count, size_t length, unsigned char* const* digests)
{
    HWY_DYNAMIC_DISPATCH(hashMany)(reinterpret_cast<const uint8_t* const*>(messages), count, length, digests);
}

void blake2sp(const void* message, size_t length, unsigned char* digest)
{
    blake2spMany(&message, 1, length, &digest);
}

Blake2spLeaves::Blake2spLeaves()
{
    HWY_DYNAMIC_DISPATCH(begin)(*this);
}

void Blake2spMessage::add(const void* bytes, size_t length)
{
    constexpr size_t STRIPE = sizeof(m_rest) / 2;
    const auto* next = static_cast<const uint8_t*>(bytes);
    const auto keep = [&](size_t count) {
        if (count != 0) {
            memcpy(m_rest + m_restLength, next, count);
        }
        m_restLength += count;
        next += count;
        length -= count;
    };
    const auto absorb = [&](const uint8_t* stripes, size_t count) {
        if (count != 0) {
            HWY_DYNAMIC_DISPATCH(absorb)(m_leaves, stripes, count);
        }
    };
    if (m_restLength + length >= 2 * STRIPE) {
        keep((2 * STRIPE - m_restLength) % STRIPE); // up to whole stripes
        const size_t kept = length < STRIPE ? 1 : m_restLength / STRIPE;
        absorb(m_rest, kept);
        m_restLength -= kept * STRIPE;
        memcpy(m_rest, m_rest + STRIPE, m_restLength);
        const size_t whole = length < STRIPE ? 0 : length / STRIPE - 1;
        absorb(next, whole);
        next += whole * STRIPE;
        length -= whole * STRIPE;
    }
    keep(length);
}

void Blake2spMessage::finish(unsigned char* digest)
{
    HWY_DYNAMIC_DISPATCH(finish)(m_leaves, m_rest, m_restLength, digest);
}

const char* blake2spInstructionSet()
{
    return HWY_DYNAMIC_DISPATCH(targetName)();
}

} // namespace kelvane
#endif

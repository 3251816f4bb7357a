// All leaves of a batch. With 32 registers, those of messages of whole stripes go side by side in pairs of messages.
// Compiled once per instruction set, as a part of Blake2sp.cpp.

#if defined(KELVANE_HASH_LEAF_PAIRS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef KELVANE_HASH_LEAF_PAIRS_INL_H
#undef KELVANE_HASH_LEAF_PAIRS_INL_H
#else
#define KELVANE_HASH_LEAF_PAIRS_INL_H
#endif

#include "hash/Leaves-inl.h"
#include "hash/Stream-inl.h"
#include <hwy/cache_control.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

#if HWY_TARGET <= HWY_AVX3

constexpr size_t LEAF_BATCH = 64; // messages: long streams on both sides of the pairs

// One stripe for every eight lanes.
template <class D>
struct Stripes : Blocks<D, NODE_BLOCK> {
    HWY_INLINE void prefetch() const
    {
        for (const uint8_t* const stripe : this->start) {
            for (size_t line = 0; line < STRIPE; line += NODE_BLOCK) {
                hwy::Prefetch(stripe + line);
            }
        }
    }
};

// The road of a batch: message `group`, and with sixteen lanes message `group` + distance beside it, stripe by stripe.
template <class D>
struct Road {
    const uint8_t* const* messages;
    size_t groups;
    size_t distance;
    size_t length;

    HWY_INLINE Stripes<D> at(size_t group, size_t offset) const
    {
        Stripes<D> stripes;
        for (size_t i = 0; i < Stripes<D>::COUNT; ++i) {
            stripes.start[i] = messages[group + i * distance] + offset;
        }
        return stripes;
    }

    // The stripe behind one; at the end, any that is there.
    HWY_INLINE Stripes<D> next(size_t group, size_t offset) const
    {
        const bool isLast = offset + STRIPE == length;
        return isLast ? at(group + 1 < groups ? group + 1 : group, 0) : at(group, offset + STRIPE);
    }

    // What lies a page further on, for processors do not fetch ahead behind its end. Behind the last message, the next
    // one to be hashed often lies; nothing is read there.
    HWY_INLINE void prefetchAhead(size_t group, size_t offset) const
    {
        constexpr size_t PAGE = 4096;
        const size_t further = offset + PAGE;
        const bool isHere = further < length || group + 1 == groups;
        (isHere ? at(group, further) : at(group + 1, smaller(further - length, length - STRIPE))).prefetch();
    }
};

// Leaves of messages of whole stripes, at least one, to root messages of 256 bytes each.
template <class D>
KELVANE_AS_WRITTEN HWY_NOINLINE void hashLeafGroups(D d, const Road<D>& road, uint8_t* digests, Workspace<D>& memory)
{
    constexpr size_t LANES = hn::MaxLanes(D());
    const auto leaves = hn::And(hn::Iota(d, 0), hn::Set(d, uint32_t {LEAVES - 1}));
    const auto lastLeaf = hn::VecFromMask(d, hn::Eq(leaves, hn::Set(d, uint32_t {LEAVES - 1})));
    Stream<D> stream(memory, road.at(0, 0));
    for (size_t group = 0; group < road.groups; ++group) {
        stream.begin(leaves, PARAMETER_LEAF);
        for (size_t offset = 0; offset < road.length; offset += STRIPE) {
            const auto isLast = offset + STRIPE == road.length ? hn::Set(d, ALL_ONES) : hn::Zero(d);
            road.prefetchAhead(group, offset);
            stream.compress((offset + STRIPE) / LEAVES, isLast, hn::And(isLast, lastLeaf), road.next(group, offset));
        }
        uint8_t* rows[LANES];
        for (size_t lane = 0; lane < LANES; ++lane) {
            rows[lane] = digests + ROOT_MESSAGE * (group + lane / LEAVES * road.distance) + DIGEST * (lane % LEAVES);
        }
        storeDigests(d, stream.v, rows);
    }
}

// Whole stripes of one message, behind which it goes on.
template <class D>
KELVANE_AS_WRITTEN HWY_NOINLINE void absorbStream(D d, const Road<D>& road, Blake2spLeaves& leaves,
                                                  Workspace<D>& memory)
{
    Stream<D> stream(memory, road.at(0, 0));
    stream.load(leaves);
    for (size_t offset = 0; offset < road.length; offset += STRIPE) {
        road.prefetchAhead(0, offset);
        leaves.absorbed += STRIPE;
        stream.compress(leaves.absorbed / LEAVES, hn::Zero(d), hn::Zero(d), road.next(0, offset));
    }
    stream.store(leaves);
}

// Leaves of at most LEAF_BATCH messages, to root messages of 256 bytes each.
HWY_INLINE void hashAllLeaves(const uint8_t* const* messages, size_t count, size_t length, uint8_t* digests)
{
    const size_t pairs = count / 2;
    const uint8_t* const* const rest = messages + 2 * pairs;
    uint8_t* const digestsOfRest = digests + 2 * pairs * ROOT_MESSAGE;
    if (length == 0 || length % STRIPE != 0) {
        hashLeaves(Widest(), messages, 2 * pairs, length, digests);
        hashLeaves(OneMessage(), rest, count - 2 * pairs, length, digestsOfRest);
        return;
    }
    if (pairs != 0) {
        Workspace<Widest> memory;
        hashLeafGroups(Widest(), {messages, pairs, pairs, length}, digests, memory);
    }
    if (count != 2 * pairs) {
        Workspace<OneMessage> memory;
        hashLeafGroups(OneMessage(), {rest, 1, 0, length}, digestsOfRest, memory);
    }
}

#else

constexpr size_t LEAF_BATCH = hn::MaxLanes(Widest());

HWY_INLINE void hashAllLeaves(const uint8_t* const* messages, size_t count, size_t length, uint8_t* digests)
{
    hashLeaves(OneMessage(), messages, count, length, digests);
}

#endif

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

#endif

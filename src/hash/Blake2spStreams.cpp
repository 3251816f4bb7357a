// The part of the kernel that streams, for instruction sets with 32 registers. It is a file of its own because
// compilers must keep to the order in which it is written: GCC's schedulers move the loads away from the work that
// hides them.

#include "hash/Blake2sp.h"

#include <cstring>

#include "hash/Targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "hash/Blake2spStreams.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "hash/Stream-inl.h"
#include <hwy/cache_control.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

#if HWY_TARGET <= HWY_AVX3

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
HWY_NOINLINE void hashLeafGroups(D d, const Road<D>& road, uint8_t* digests, Workspace<D>& memory)
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

void streamLeaves(const uint8_t* const* messages, size_t count, size_t length, uint8_t* digests)
{
    const size_t pairs = count / 2;
    if (pairs != 0) {
        Workspace<Widest> memory;
        hashLeafGroups(Widest(), {messages, pairs, pairs, length}, digests, memory);
    }
    if (count != 2 * pairs) {
        Workspace<OneMessage> memory;
        hashLeafGroups(OneMessage(), {messages + 2 * pairs, 1, 0, length}, digests + 2 * pairs * ROOT_MESSAGE, memory);
    }
}

// Whole stripes of one message, behind which it goes on.
template <class D>
HWY_NOINLINE void absorbStripes(D d, const Road<D>& road, Blake2spLeaves& leaves, Workspace<D>& memory)
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

void streamStripes(Blake2spLeaves& leaves, const uint8_t* bytes, size_t stripes)
{
    Workspace<OneMessage> memory;
    absorbStripes(OneMessage(), {&bytes, 1, 0, stripes * STRIPE}, leaves, memory);
}

template <class D>
HWY_NOINLINE void hashRootGroups(D d, const uint8_t* leafDigests, size_t groups, uint8_t* const* digests,
                                 Workspace<D>& memory)
{
    constexpr size_t LANES = hn::MaxLanes(D());
    const auto at = [=](size_t group, size_t offset) HWY_ATTR {
        Blocks<D, ROOT_MESSAGE> blocks;
        for (size_t i = 0; i < blocks.COUNT; ++i) {
            blocks.start[i] = leafDigests + (group * LANES + i * LEAVES) * ROOT_MESSAGE + offset;
        }
        return blocks;
    };
    Stream<D> stream(memory, at(0, 0));
    for (size_t group = 0; group < groups; ++group) {
        stream.begin(hn::Zero(d), PARAMETER_ROOT);
        for (size_t offset = 0; offset < ROOT_MESSAGE; offset += NODE_BLOCK) {
            const bool ends = offset + NODE_BLOCK == ROOT_MESSAGE;
            const auto isLast = hn::Set(d, ends ? ALL_ONES : 0);
            const auto next = ends ? at(group + 1 < groups ? group + 1 : group, 0) : at(group, offset + NODE_BLOCK);
            stream.compress(offset + NODE_BLOCK, isLast, isLast, next);
        }
        storeDigests(d, stream.v, digests + group * LANES);
    }
}

size_t streamRoots(const uint8_t* leafDigests, size_t count, uint8_t* const* digests)
{
    constexpr size_t LANES = hn::MaxLanes(Widest());
    if (count >= LANES) {
        Workspace<Widest> memory;
        hashRootGroups(Widest(), leafDigests, count / LANES, digests, memory);
    }
    return count / LANES * LANES;
}

#endif

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

// All leaves of a batch. With 32 registers, those of messages of whole stripes go side by side in pairs of messages.
// While one stripe is compressed, the next one is loaded, transposed and stored as words, a part in each round; the
// additions of its own compression read these words from memory.
// Compiled once per instruction set, as a part of Blake2sp.cpp.

#if defined(KELVANE_HASH_LEAF_PAIRS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef KELVANE_HASH_LEAF_PAIRS_INL_H
#undef KELVANE_HASH_LEAF_PAIRS_INL_H
#else
#define KELVANE_HASH_LEAF_PAIRS_INL_H
#endif

#include "hash/Leaves-inl.h"
#include <hwy/cache_control.h>
#include <hwy/highway.h>

// GCC's schedulers move the loads away from the work that hides them.
#undef KELVANE_AS_WRITTEN
#if HWY_COMPILER_GCC_ACTUAL
#define KELVANE_AS_WRITTEN __attribute__((optimize("no-schedule-insns", "no-schedule-insns2")))
#else
#define KELVANE_AS_WRITTEN
#endif

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

#if HWY_TARGET <= HWY_AVX3

constexpr size_t LEAF_BATCH = 64; // messages: long streams on both sides of the pairs

// Word i of one block of each lane's leaf.
template <class D>
struct Words {
    alignas(64) uint32_t lanes[16][hn::MaxLanes(D())];

    HWY_INLINE Vector<D> operator[](int i) const { return hn::Load(D(), lanes[i]); }
};

// One stripe for every eight lanes.
template <class D>
struct Stripes {
    static constexpr size_t COUNT = hn::MaxLanes(D()) / LEAVES;
    static constexpr size_t PARTS = 4 * COUNT;

    const uint8_t* start[COUNT];

    HWY_INLINE void prefetch() const
    {
        for (size_t i = 0; i < COUNT; ++i) {
            for (size_t line = 0; line < STRIPE; line += NODE_BLOCK) {
                hwy::Prefetch(start[i] + line);
            }
        }
    }
};

// A part of the stripes: four words of the eight blocks of one of them.
struct Part {
    Vector<OneMessage> rows[4];

    template <class D>
    HWY_INLINE void load(const Stripes<D>& from, size_t number)
    {
        const hn::Half<OneMessage> four;
        const uint8_t* const block = from.start[number / 4] + 16 * (number % 4);
        for (size_t i = 0; i < 4; ++i) {
            const auto* const low = reinterpret_cast<const uint32_t*>(block + NODE_BLOCK * i);
            const auto* const high = reinterpret_cast<const uint32_t*>(block + NODE_BLOCK * (i + 4));
            rows[i] = hn::Combine(OneMessage(), hn::LoadU(four, high), hn::LoadU(four, low));
        }
    }

    template <class D>
    HWY_INLINE void store(Words<D>& to, size_t number) const
    {
        Vector<OneMessage> words[4];
        transpose(OneMessage(), rows, words);
        for (size_t i = 0; i < 4; ++i) {
            hn::Store(words[i], OneMessage(), to.lanes[4 * (number % 4) + i] + LEAVES * (number / 4));
        }
    }
};

// One of the ten steps of a mixing; none before and after.
template <int Step, class D>
HWY_INLINE void mixStep(D d, Vector<D>& a, Vector<D>& b, Vector<D>& c, Vector<D>& e, const Words<D>& m, int m0, int m1)
{
    if constexpr (Step == 0) {
        a = hn::Add(a, m[m0]);
    } else if constexpr (Step == 1 || Step == 6) {
        a = hn::Add(a, b);
    } else if constexpr (Step == 2) {
        e = xorRotated<16>(d, e, a);
    } else if constexpr (Step == 3 || Step == 8) {
        c = hn::Add(c, e);
    } else if constexpr (Step == 4) {
        b = xorRotated<12>(d, b, c);
    } else if constexpr (Step == 5) {
        a = hn::Add(a, m[m1]);
    } else if constexpr (Step == 7) {
        e = xorRotated<8>(d, e, a);
    } else if constexpr (Step == 9) {
        b = xorRotated<7>(d, b, c);
    }
}

// Half a round: two mixings in step, and two that follow behind, for then rotations of the ones meet additions of the
// others. Half is 0 for the columns, 1 for the diagonals.
template <int Round, int Half, int Step, class D>
HWY_INLINE void mixFrom(D d, Vector<D>* v, const Words<D>& m)
{
    constexpr int BEHIND = 2;
    constexpr auto& s = SIGMA[Round];
    constexpr int M = 8 * Half;
    const auto b = [=](int i) HWY_ATTR -> Vector<D>& { return v[4 + (i + Half) % 4]; };
    const auto c = [=](int i) HWY_ATTR -> Vector<D>& { return v[8 + (i + 2 * Half) % 4]; };
    const auto e = [=](int i) HWY_ATTR -> Vector<D>& { return v[12 + (i + 3 * Half) % 4]; };
    mixStep<Step>(d, v[0], b(0), c(0), e(0), m, s[M + 0], s[M + 1]);
    mixStep<Step>(d, v[1], b(1), c(1), e(1), m, s[M + 2], s[M + 3]);
    mixStep<Step - BEHIND>(d, v[2], b(2), c(2), e(2), m, s[M + 4], s[M + 5]);
    mixStep<Step - BEHIND>(d, v[3], b(3), c(3), e(3), m, s[M + 6], s[M + 7]);
    if constexpr (Step < 9 + BEHIND) {
        mixFrom<Round, Half, Step + 1>(d, v, m);
    }
}

template <int Round, class D>
HWY_INLINE void roundsFrom(D d, Vector<D>* v, const Words<D>& m, const Stripes<D>& from, Words<D>& next)
{
    constexpr int EVERY = 8 / static_cast<int>(Stripes<D>::PARTS);
    constexpr bool BRINGS_IN = Round < 8 && Round % EVERY == 0;
    Part part;
    if constexpr (BRINGS_IN) {
        part.load(from, Round / EVERY);
    }
    mixFrom<Round, 0, 0>(d, v, m);
    if constexpr (BRINGS_IN) {
        part.store(next, Round / EVERY);
    }
    mixFrom<Round, 1, 0>(d, v, m);
    if constexpr (Round < 9) {
        roundsFrom<Round + 1>(d, v, m, from, next);
    }
}

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

// Starts from the state v[0] to v[7], which `chain` holds too, and leaves the next one in both.
template <class D>
HWY_INLINE void compressStripes(D d, Vector<D>* v, Words<D>& chain, const Words<D>& m, uint64_t counter,
                                Vector<D> lastBlock, Vector<D> lastNode, const Stripes<D>& from, Words<D>& next)
{
    v[8] = hn::Set(d, IV[0]);
    v[9] = hn::Set(d, IV[1]);
    v[10] = hn::Set(d, IV[2]);
    v[11] = hn::Set(d, IV[3]);
    v[12] = hn::Set(d, IV[4] ^ static_cast<uint32_t>(counter));
    v[13] = hn::Set(d, IV[5] ^ static_cast<uint32_t>(counter >> 32));
    v[14] = hn::Xor(hn::Set(d, IV[6]), lastBlock);
    v[15] = hn::Xor(hn::Set(d, IV[7]), lastNode);
    roundsFrom<0>(d, v, m, from, next);
    for (int i = 0; i < 8; ++i) {
        v[i] = hn::Xor3(v[i], v[i + 8], chain[i]);
        hn::Store(v[i], d, chain.lanes[i]);
    }
}

// Leaves of messages of whole stripes, at least one, to root messages of 256 bytes each.
template <class D>
KELVANE_AS_WRITTEN HWY_NOINLINE void hashLeafGroups(D d, const Road<D>& road, uint8_t* digests)
{
    constexpr size_t LANES = hn::MaxLanes(D());
    Words<D> words[2];
    for (size_t i = 0; i < Stripes<D>::PARTS; ++i) {
        Part part;
        part.load(road.at(0, 0), i);
        part.store(words[0], i);
    }
    const auto leaves = hn::And(hn::Iota(d, 0), hn::Set(d, uint32_t {LEAVES - 1}));
    const auto lastLeaf = hn::VecFromMask(d, hn::Eq(leaves, hn::Set(d, uint32_t {LEAVES - 1})));
    size_t current = 0; // of the words
    for (size_t group = 0; group < road.groups; ++group) {
        Words<D> chain;
        Vector<D> v[16];
        initialState(d, leaves, PARAMETER_LEAF, v);
        for (size_t i = 0; i < 8; ++i) {
            hn::Store(v[i], d, chain.lanes[i]);
        }
        for (size_t offset = 0; offset < road.length; offset += STRIPE) {
            const auto isLast = hn::Set(d, offset + STRIPE == road.length ? ALL_ONES : 0);
            road.prefetchAhead(group, offset);
            compressStripes(d, v, chain, words[current], (offset + STRIPE) / LEAVES, isLast, hn::And(isLast, lastLeaf),
                            road.next(group, offset), words[1 - current]);
            current = 1 - current;
        }
        uint8_t* rows[LANES];
        for (size_t lane = 0; lane < LANES; ++lane) {
            rows[lane] = digests + ROOT_MESSAGE * (group + lane / LEAVES * road.distance) + DIGEST * (lane % LEAVES);
        }
        storeDigests(d, v, rows);
    }
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
        hashLeafGroups(Widest(), {messages, pairs, pairs, length}, digests);
    }
    if (count != 2 * pairs) {
        hashLeafGroups(OneMessage(), {rest, 1, 0, length}, digestsOfRest);
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

// Roots: many side by side, or a single one by the rows of its state.
// Compiled once per instruction set, as a part of Blake2sp.cpp.

#if defined(KELVANE_HASH_ROOTS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef KELVANE_HASH_ROOTS_INL_H
#undef KELVANE_HASH_ROOTS_INL_H
#else
#define KELVANE_HASH_ROOTS_INL_H
#endif

#include "hash/Leaves-inl.h"
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

// Hashes `count` root messages of 256 bytes each, side by side; `count` is at most the lanes' number.
template <class D>
HWY_NOINLINE void hashRoots(D d, const uint8_t* leafDigests, size_t count, uint8_t* const* digests)
{
    constexpr size_t LANES = hn::MaxLanes(D());
    const uint8_t* rows[LANES];
    uint8_t* outputs[LANES];
    uint8_t unused[DIGEST];
    for (size_t lane = 0; lane < LANES; ++lane) {
        rows[lane] = leafDigests + (lane < count ? lane * ROOT_MESSAGE : 0);
        outputs[lane] = lane < count ? digests[lane] : unused;
    }
    Vector<D> h[8];
    initialState(d, hn::Zero(d), PARAMETER_ROOT, h);
    for (size_t offset = 0; offset < ROOT_MESSAGE; offset += NODE_BLOCK) {
        const uint32_t last = offset + NODE_BLOCK == ROOT_MESSAGE ? ALL_ONES : 0;
        compress(d, h, rows, offset, sameTweak(d, offset + NODE_BLOCK, last, last));
    }
    storeDigests(d, h, outputs);
}

#if HWY_TARGET == HWY_SCALAR

HWY_INLINE void hashRoot(const uint8_t* leafDigests, uint8_t* digest)
{
    hashRoots(hn::CappedTag<uint32_t, 1>(), leafDigests, 1, &digest);
}

#else

using Row = hn::Full128<uint32_t>;

template <int Step = 0>
HWY_INLINE void mixRows(Vector<Row>& a, Vector<Row>& b, Vector<Row>& c, Vector<Row>& e, const Vector<Row>* m)
{
    mixStep<Step>(Row(), a, b, c, e, m, 0, 1);
    if constexpr (Step < 9) {
        mixRows<Step + 1>(a, b, c, e, m);
    }
}

template <int A, int B, int C, int E>
HWY_INLINE Vector<Row> pick(const uint32_t* m)
{
    alignas(16) const uint32_t words[4] = {m[A], m[B], m[C], m[E]};
    return hn::Load(Row(), words);
}

// A single root has no companions to share vectors with: here a vector holds one row of the state, and
// the four mixings of a half round run side by side. Row b stays in place between the half rounds, for
// it is the last to be ready; the others turn around it.
template <int Round>
HWY_INLINE void rowRoundsFrom(Vector<Row>& a, Vector<Row>& b, Vector<Row>& c, Vector<Row>& e, const uint32_t* m)
{
    constexpr auto& s = SIGMA[Round];
    const Vector<Row> columns[2] = {pick<s[0], s[2], s[4], s[6]>(m), pick<s[1], s[3], s[5], s[7]>(m)};
    mixRows(a, b, c, e, columns);
    a = hn::Shuffle2103(a);
    c = hn::Shuffle0321(c);
    e = hn::Shuffle1032(e);
    const Vector<Row> diagonals[2] = {pick<s[14], s[8], s[10], s[12]>(m), pick<s[15], s[9], s[11], s[13]>(m)};
    mixRows(a, b, c, e, diagonals);
    a = hn::Shuffle0321(a);
    c = hn::Shuffle2103(c);
    e = hn::Shuffle1032(e);
    if constexpr (Round < 9) {
        rowRoundsFrom<Round + 1>(a, b, c, e, m);
    }
}

HWY_NOINLINE void hashRoot(const uint8_t* leafDigests, uint8_t* digest)
{
    const Row d;
    Vector<Row> low = hn::LoadU(d, IV);
    Vector<Row> high = hn::LoadU(d, IV + 4);
    const uint32_t parameters[4] = {PARAMETER_TREE, 0, 0, PARAMETER_ROOT};
    low = hn::Xor(low, hn::LoadU(d, parameters));
    for (size_t offset = 0; offset < ROOT_MESSAGE; offset += NODE_BLOCK) {
        const uint32_t last = offset + NODE_BLOCK == ROOT_MESSAGE ? ALL_ONES : 0;
        const uint32_t tweak[4] = {static_cast<uint32_t>(offset + NODE_BLOCK), 0, last, last};
        uint32_t m[16];
        memcpy(m, leafDigests + offset, sizeof(m));
        Vector<Row> a = low;
        Vector<Row> b = high;
        Vector<Row> c = hn::LoadU(d, IV);
        Vector<Row> e = hn::Xor(hn::LoadU(d, IV + 4), hn::LoadU(d, tweak));
        rowRoundsFrom<0>(a, b, c, e, m);
        low = hn::Xor(low, hn::Xor(a, c));
        high = hn::Xor(high, hn::Xor(b, e));
    }
    const hn::Repartition<uint8_t, Row> d8;
    hn::StoreU(hn::BitCast(d8, low), d8, digest);
    hn::StoreU(hn::BitCast(d8, high), d8, digest + 16);
}

#endif

HWY_INLINE void hashAllRoots(const uint8_t* leafDigests, size_t count, uint8_t* const* digests)
{
    constexpr size_t WIDEST = hn::MaxLanes(Widest());
    size_t done = 0;
#if HWY_TARGET <= HWY_AVX3
    done = streamRoots(leafDigests, count, digests);
#endif
    for (; done < count; done += WIDEST) {
        const uint8_t* const roots = leafDigests + done * ROOT_MESSAGE;
        const size_t some = smaller(count - done, WIDEST);
        if (some == 1) {
            hashRoot(roots, digests[done]);
        } else if (some > hn::MaxLanes(OneMessage())) {
            hashRoots(Widest(), roots, some, digests + done);
        } else {
            hashRoots(OneMessage(), roots, some, digests + done);
        }
    }
}

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

#endif

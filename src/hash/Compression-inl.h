// BLAKE2s: its constants, its rounds, and the compression of one block per lane.
// Compiled once per instruction set, as a part of Blake2sp.cpp.

#if defined(KELVANE_HASH_COMPRESSION_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef KELVANE_HASH_COMPRESSION_INL_H
#undef KELVANE_HASH_COMPRESSION_INL_H
#else
#define KELVANE_HASH_COMPRESSION_INL_H
#endif

#include "hash/Vectors-inl.h"
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

constexpr uint32_t ALL_ONES = 0xFFFFFFFFu;

constexpr uint32_t IV[8]
    = {0x6A09E667u, 0xBB67AE85u, 0x3C6EF372u, 0xA54FF53Au, 0x510E527Fu, 0x9B05688Cu, 0x1F83D9ABu, 0x5BE0CD19u};

// Parameter words: digest length 32, fanout 8, depth 2; the node's offset; its depth, inner length 32.
constexpr uint32_t PARAMETER_TREE = 0x02080020u;
constexpr uint32_t PARAMETER_LEAF = 0x20000000u;
constexpr uint32_t PARAMETER_ROOT = 0x20010000u;

constexpr int SIGMA[10][16]
    = {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}, {14, 10, 4, 8, 9, 15, 13, 6, 1, 12, 0, 2, 11, 7, 5, 3},
       {11, 8, 12, 0, 5, 2, 15, 13, 10, 14, 3, 6, 7, 1, 9, 4}, {7, 9, 3, 1, 13, 12, 11, 14, 2, 6, 5, 10, 4, 0, 15, 8},
       {9, 0, 5, 7, 2, 4, 10, 15, 14, 1, 11, 12, 6, 8, 3, 13}, {2, 12, 6, 10, 0, 11, 8, 3, 4, 13, 7, 5, 15, 14, 1, 9},
       {12, 5, 1, 15, 14, 13, 4, 10, 0, 7, 6, 3, 9, 2, 8, 11}, {13, 11, 7, 14, 12, 1, 3, 9, 5, 0, 15, 4, 8, 6, 2, 10},
       {6, 15, 14, 9, 11, 3, 0, 8, 12, 2, 13, 7, 1, 4, 10, 5}, {10, 2, 8, 4, 7, 6, 1, 5, 15, 11, 9, 14, 3, 12, 13, 0}};

// How a block enters the compression: the byte counter and the finalisation flags, per lane.
template <class D>
struct Tweak {
    Vector<D> counterLow, counterHigh, lastBlock, lastNode;
};

template <class D>
HWY_INLINE Tweak<D> sameTweak(D d, uint64_t counter, uint32_t lastBlock, uint32_t lastNode)
{
    return {hn::Set(d, static_cast<uint32_t>(counter)), hn::Set(d, static_cast<uint32_t>(counter >> 32)),
            hn::Set(d, lastBlock), hn::Set(d, lastNode)};
}

template <int Bits, class D, class V>
HWY_INLINE V xorRotated(D d, V a, V b)
{
    const V v = hn::Xor(a, b);
    if constexpr (Bits == 16) {
        return rotateRight16(d, v);
    } else if constexpr (Bits == 8) {
        return rotateRight8(d, v);
    } else {
        return hn::RotateRight<Bits>(v);
    }
}

// Four words of the state, or of the message.
template <class V>
struct Four {
    V& v0;
    V& v1;
    V& v2;
    V& v3;
};

template <class V, class W>
HWY_INLINE void add(Four<V> a, Four<W> b)
{
    a.v0 = hn::Add(a.v0, b.v0);
    a.v1 = hn::Add(a.v1, b.v1);
    a.v2 = hn::Add(a.v2, b.v2);
    a.v3 = hn::Add(a.v3, b.v3);
}

template <int Bits, class D, class V>
HWY_INLINE void turn(D d, Four<V> a, Four<V> b)
{
    a.v0 = xorRotated<Bits>(d, a.v0, b.v0);
    a.v1 = xorRotated<Bits>(d, a.v1, b.v1);
    a.v2 = xorRotated<Bits>(d, a.v2, b.v2);
    a.v3 = xorRotated<Bits>(d, a.v3, b.v3);
}

// Half a round: four mixings, step by step side by side, for each alone is one long chain.
template <class D, class V>
HWY_INLINE void mixFour(D d, Four<V> a, Four<V> b, Four<V> c, Four<V> e, Four<const V> m0, Four<const V> m1)
{
    add(a, m0);
    add(a, b);
    turn<16>(d, e, a);
    add(c, e);
    turn<12>(d, b, c);
    add(a, m1);
    add(a, b);
    turn<8>(d, e, a);
    add(c, e);
    turn<7>(d, b, c);
}

template <int Round, class D, class V>
HWY_INLINE void round(D d, V* v, const V* m)
{
    constexpr auto& s = SIGMA[Round];
    mixFour<D, V>(d, {v[0], v[1], v[2], v[3]}, {v[4], v[5], v[6], v[7]}, {v[8], v[9], v[10], v[11]},
                  {v[12], v[13], v[14], v[15]}, {m[s[0]], m[s[2]], m[s[4]], m[s[6]]},
                  {m[s[1]], m[s[3]], m[s[5]], m[s[7]]});
    mixFour<D, V>(d, {v[0], v[1], v[2], v[3]}, {v[5], v[6], v[7], v[4]}, {v[10], v[11], v[8], v[9]},
                  {v[15], v[12], v[13], v[14]}, {m[s[8]], m[s[10]], m[s[12]], m[s[14]]},
                  {m[s[9]], m[s[11]], m[s[13]], m[s[15]]});
}

// BLAKE2s compression of the block at rows[lane] + offset into the state h, for every lane.
template <class D>
HWY_NOINLINE void compress(D d, Vector<D>* h, const uint8_t* const* rows, size_t offset, const Tweak<D>& tweak)
{
    Vector<D> m[16];
    loadBlocks(d, rows, offset, m);
    Vector<D> v[16] = {h[0],
                       h[1],
                       h[2],
                       h[3],
                       h[4],
                       h[5],
                       h[6],
                       h[7],
                       hn::Set(d, IV[0]),
                       hn::Set(d, IV[1]),
                       hn::Set(d, IV[2]),
                       hn::Set(d, IV[3]),
                       hn::Xor(hn::Set(d, IV[4]), tweak.counterLow),
                       hn::Xor(hn::Set(d, IV[5]), tweak.counterHigh),
                       hn::Xor(hn::Set(d, IV[6]), tweak.lastBlock),
                       hn::Xor(hn::Set(d, IV[7]), tweak.lastNode)};
    round<0>(d, v, m);
    round<1>(d, v, m);
    round<2>(d, v, m);
    round<3>(d, v, m);
    round<4>(d, v, m);
    round<5>(d, v, m);
    round<6>(d, v, m);
    round<7>(d, v, m);
    round<8>(d, v, m);
    round<9>(d, v, m);
    for (size_t i = 0; i < 8; ++i) {
        h[i] = hn::Xor(h[i], hn::Xor(v[i], v[i + 8]));
    }
}

template <class D>
HWY_INLINE void initialState(D d, Vector<D> nodeOffset, uint32_t depthParameter, Vector<D>* h)
{
    for (size_t i = 0; i < 8; ++i) {
        h[i] = hn::Set(d, IV[i]);
    }
    h[0] = hn::Xor(h[0], hn::Set(d, PARAMETER_TREE));
    h[2] = hn::Xor(h[2], nodeOffset);
    h[3] = hn::Xor(h[3], hn::Set(d, depthParameter));
}

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

#endif

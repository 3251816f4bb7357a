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

// One of the ten steps of a mixing; none before and after. `m` gives the message's words as vectors, by their number.
template <int Step, class D, class Message>
HWY_INLINE void mixStep(D d, Vector<D>& a, Vector<D>& b, Vector<D>& c, Vector<D>& e, const Message& m, int m0, int m1)
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

// Half a round, from a step on: four mixings side by side, for each alone is one long chain. Two of them are so many
// steps behind the others. Half is 0 for the columns, 1 for the diagonals.
template <int Round, int Half, int Behind, int Step = 0, class D, class Message>
HWY_INLINE void mixFour(D d, Vector<D>* v, const Message& m)
{
    constexpr auto& s = SIGMA[Round];
    constexpr int M = 8 * Half;
    const auto b = [=](int i) HWY_ATTR -> Vector<D>& { return v[4 + (i + Half) % 4]; };
    const auto c = [=](int i) HWY_ATTR -> Vector<D>& { return v[8 + (i + 2 * Half) % 4]; };
    const auto e = [=](int i) HWY_ATTR -> Vector<D>& { return v[12 + (i + 3 * Half) % 4]; };
    mixStep<Step>(d, v[0], b(0), c(0), e(0), m, s[M + 0], s[M + 1]);
    mixStep<Step - Behind>(d, v[1], b(1), c(1), e(1), m, s[M + 2], s[M + 3]);
    mixStep<Step>(d, v[2], b(2), c(2), e(2), m, s[M + 4], s[M + 5]);
    mixStep<Step - Behind>(d, v[3], b(3), c(3), e(3), m, s[M + 6], s[M + 7]);
    if constexpr (Step < 9 + Behind) {
        mixFour<Round, Half, Behind, Step + 1>(d, v, m);
    }
}

template <int Round, class D>
HWY_INLINE void roundsFrom(D d, Vector<D>* v, const Vector<D>* m)
{
    constexpr int BEHIND = HWY_TARGET <= HWY_AVX3 ? 1 : 0;
    mixFour<Round, 0, BEHIND>(d, v, m);
    mixFour<Round, 1, BEHIND>(d, v, m);
    if constexpr (Round < 9) {
        roundsFrom<Round + 1>(d, v, m);
    }
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
    roundsFrom<0>(d, v, m);
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

#include "Blake2sp.h"

#include <cstring>

// The scalable vector targets are left out: the kernel keeps vectors in arrays, which those forbid.
#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128 | HWY_RVV)
#endif

// Everything down to HWY_AFTER_NAMESPACE is compiled once per instruction set.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "Blake2sp.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <hwy/cache_control.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Standard library templates stay out of this namespace: compiled here, one made for a wide
// instruction set could be linked into code that runs on a narrow one.

constexpr size_t LEAVES = 8;
constexpr size_t NODE_BLOCK = 64;
constexpr size_t STRIPE = LEAVES * NODE_BLOCK;
constexpr size_t DIGEST = BLAKE2SP_DIGEST_SIZE_IN_BYTES;
constexpr size_t ROOT_MESSAGE = LEAVES * DIGEST;
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

HWY_INLINE size_t smaller(size_t a, size_t b)
{
    return a < b ? a : b;
}

// ---------------------------------------------------------------------------------------------------
// One vector per word, one lane per node.

template <class D>
using Vector = hn::Vec<D>;

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

#if HWY_TARGET == HWY_SCALAR

template <class D>
HWY_INLINE Vector<D> rotateRight16(D /*d*/, Vector<D> v)
{
    return hn::RotateRight<16>(v);
}

template <class D>
HWY_INLINE Vector<D> rotateRight8(D /*d*/, Vector<D> v)
{
    return hn::RotateRight<8>(v);
}

template <class D>
HWY_INLINE void loadBlocks(D d, const uint8_t* const* rows, size_t offset, Vector<D>* m)
{
    uint32_t words[16];
    memcpy(words, rows[0] + offset, sizeof(words));
    for (size_t i = 0; i < 16; ++i) {
        m[i] = hn::Set(d, words[i]);
    }
}

template <class D>
HWY_INLINE void storeDigests(D /*d*/, const Vector<D>* h, uint8_t* const* rows)
{
    for (size_t i = 0; i < 8; ++i) {
        const uint32_t word = hn::GetLane(h[i]);
        memcpy(rows[0] + 4 * i, &word, sizeof(word));
    }
}

#else

template <class D>
HWY_INLINE Vector<D> rotateRight16(D d, Vector<D> v)
{
#if HWY_TARGET <= HWY_AVX3
    (void)d;
    return hn::RotateRight<16>(v);
#else
    const hn::Repartition<uint8_t, D> d8;
    alignas(16) static constexpr uint8_t order[16] = {2, 3, 0, 1, 6, 7, 4, 5, 10, 11, 8, 9, 14, 15, 12, 13};
    return hn::BitCast(d, hn::TableLookupBytes(hn::BitCast(d8, v), hn::LoadDup128(d8, order)));
#endif
}

template <class D>
HWY_INLINE Vector<D> rotateRight8(D d, Vector<D> v)
{
#if HWY_TARGET <= HWY_AVX3
    (void)d;
    return hn::RotateRight<8>(v);
#else
    const hn::Repartition<uint8_t, D> d8;
    alignas(16) static constexpr uint8_t order[16] = {1, 2, 3, 0, 5, 6, 7, 4, 9, 10, 11, 8, 13, 14, 15, 12};
    return hn::BitCast(d, hn::TableLookupBytes(hn::BitCast(d8, v), hn::LoadDup128(d8, order)));
#endif
}

// Four words of every fourth row, one row per 128-bit block of the vector.
template <class D>
HWY_INLINE Vector<D> loadPiece(D d, const uint8_t* const* rows, size_t offset)
{
    if constexpr (hn::MaxLanes(D()) == 4) {
        return hn::BitCast(d, hn::LoadU(hn::Repartition<uint8_t, D>(), rows[0] + offset));
    } else {
        const hn::Half<D> half;
        return hn::Combine(d, loadPiece(half, rows + hn::MaxLanes(half), offset), loadPiece(half, rows, offset));
    }
}

template <class D>
HWY_INLINE void storePiece([[maybe_unused]] D d, Vector<D> v, uint8_t* const* rows, size_t offset)
{
    if constexpr (hn::MaxLanes(D()) == 4) {
        const hn::Repartition<uint8_t, D> d8;
        hn::StoreU(hn::BitCast(d8, v), d8, rows[0] + offset);
    } else {
        const hn::Half<D> half;
        storePiece(half, hn::LowerHalf(half, v), rows, offset);
        storePiece(half, hn::UpperHalf(half, v), rows + hn::MaxLanes(half), offset);
    }
}

// Transposes the 4 x 4 words that each 128-bit block of the four vectors holds.
template <class D>
HWY_INLINE void transpose(D d, const Vector<D>* in, Vector<D>* out)
{
    const hn::Repartition<uint64_t, D> d64;
    const auto low01 = hn::BitCast(d64, hn::InterleaveLower(d, in[0], in[1]));
    const auto low23 = hn::BitCast(d64, hn::InterleaveLower(d, in[2], in[3]));
    const auto high01 = hn::BitCast(d64, hn::InterleaveUpper(d, in[0], in[1]));
    const auto high23 = hn::BitCast(d64, hn::InterleaveUpper(d, in[2], in[3]));
    out[0] = hn::BitCast(d, hn::InterleaveLower(d64, low01, low23));
    out[1] = hn::BitCast(d, hn::InterleaveUpper(d64, low01, low23));
    out[2] = hn::BitCast(d, hn::InterleaveLower(d64, high01, high23));
    out[3] = hn::BitCast(d, hn::InterleaveUpper(d64, high01, high23));
}

// m[i] receives word i of the 64-byte block at rows[lane] + offset, for every lane.
template <class D>
HWY_INLINE void loadBlocks(D d, const uint8_t* const* rows, size_t offset, Vector<D>* m)
{
    for (size_t piece = 0; piece < 4; ++piece) {
        const Vector<D> in[4]
            = {loadPiece(d, rows + 0, offset + 16 * piece), loadPiece(d, rows + 1, offset + 16 * piece),
               loadPiece(d, rows + 2, offset + 16 * piece), loadPiece(d, rows + 3, offset + 16 * piece)};
        transpose(d, in, m + 4 * piece);
    }
}

// Writes the eight words of every lane to the 32 bytes at rows[lane].
template <class D>
HWY_INLINE void storeDigests(D d, const Vector<D>* h, uint8_t* const* rows)
{
    for (size_t piece = 0; piece < 2; ++piece) {
        Vector<D> out[4];
        transpose(d, h + 4 * piece, out);
        for (size_t i = 0; i < 4; ++i) {
            storePiece(d, out[i], rows + i, 16 * piece);
        }
    }
}

#endif

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

// ---------------------------------------------------------------------------------------------------
// Leaves. Lane by lane they take the message's 64-byte blocks in turn, so one stripe of 512 bytes
// gives every leaf one block.

template <class D>
struct LeafGroup {
    static constexpr size_t LANES = hn::MaxLanes(D());

    D d;
    const uint8_t* const* messages;
    size_t firstLeaf;
    const uint8_t* rows[LANES]; // where each leaf's first block lies; null for messages shorter than a stripe
    Vector<D> h[8];

    HWY_INLINE LeafGroup(const uint8_t* const* allMessages, size_t first, size_t length)
        : messages(allMessages)
        , firstLeaf(first)
    {
        for (size_t lane = 0; lane < LANES; ++lane) {
            rows[lane] = length < STRIPE ? nullptr : blockOf(lane, 0);
        }
        initialState(d, leaves(), PARAMETER_LEAF, h);
    }

    // Absorbs a whole stripe at `offset` that is the message's last: the way of every usual block size.
    HWY_INLINE void absorbLastStripe(size_t offset)
    {
        Tweak<D> tweak = sameTweak(d, (offset + STRIPE) / LEAVES, ALL_ONES, 0);
        tweak.lastNode = hn::IfThenElseZero(hn::Eq(leaves(), hn::Set(d, uint32_t {LEAVES - 1})), tweak.lastBlock);
        compress(d, h, rows, offset, tweak);
    }

    // Absorbs the last stripes, `remaining` bytes (below 1024) from `offset` on. Leaves run out of
    // data at different places there, so counters and flags differ from lane to lane.
    HWY_NOINLINE void absorbTail(size_t offset, size_t remaining)
    {
        const size_t first = smaller(remaining, STRIPE);
        const size_t second = remaining - first;
        absorbLast(offset, first, second);
        if (second != 0) {
            Vector<D> before[8];
            for (size_t i = 0; i < 8; ++i) {
                before[i] = h[i];
            }
            absorbLast(offset + STRIPE, second, 0);
            uint32_t reached[LANES];
            for (size_t lane = 0; lane < LANES; ++lane) {
                reached[lane] = bytesOf(lane, second) != 0 ? ALL_ONES : 0;
            }
            const auto mask = hn::Ne(hn::LoadU(d, reached), hn::Zero(d));
            for (size_t i = 0; i < 8; ++i) {
                h[i] = hn::IfThenElse(mask, h[i], before[i]);
            }
        }
    }

private:
    HWY_INLINE size_t leaf(size_t lane) const { return (firstLeaf + lane) % LEAVES; }

    // The lane's block of the stripe at `offset`.
    HWY_INLINE const uint8_t* blockOf(size_t lane, size_t offset) const
    {
        return messages[(firstLeaf + lane) / LEAVES] + (offset + NODE_BLOCK * leaf(lane));
    }

    HWY_INLINE Vector<D> leaves() const
    {
        const auto numbers = hn::Iota(d, static_cast<uint32_t>(firstLeaf));
        return hn::And(numbers, hn::Set(d, uint32_t {LEAVES - 1}));
    }

    // How much of a stripe that holds `bytes` bytes falls to the lane's leaf.
    HWY_INLINE size_t bytesOf(size_t lane, size_t bytes) const
    {
        const size_t start = NODE_BLOCK * leaf(lane);
        return bytes <= start ? 0 : smaller(bytes - start, NODE_BLOCK);
    }

    // Absorbs a stripe of `bytes` bytes after which `following` are left, fewer than a stripe.
    HWY_INLINE void absorbLast(size_t offset, size_t bytes, size_t following)
    {
        uint8_t padded[LANES][NODE_BLOCK] = {};
        const uint8_t* paddedRows[LANES];
        uint32_t low[LANES], high[LANES], lastBlock[LANES], lastNode[LANES];
        for (size_t lane = 0; lane < LANES; ++lane) {
            const size_t own = bytesOf(lane, bytes);
            const uint64_t counter = offset / LEAVES + own;
            if (own != 0) {
                memcpy(padded[lane], blockOf(lane, offset), own);
            }
            paddedRows[lane] = padded[lane];
            low[lane] = static_cast<uint32_t>(counter);
            high[lane] = static_cast<uint32_t>(counter >> 32);
            lastBlock[lane] = bytesOf(lane, following) == 0 ? ALL_ONES : 0;
            lastNode[lane] = leaf(lane) == LEAVES - 1 ? lastBlock[lane] : 0;
        }
        compress(d, h, paddedRows, 0,
                 Tweak<D> {hn::LoadU(d, low), hn::LoadU(d, high), hn::LoadU(d, lastBlock), hn::LoadU(d, lastNode)});
    }
};

// Hashes as many leaves as the vector has lanes, from leaf `firstLeaf` of messages[0] on, and writes
// their digests side by side to `digests`.
template <class D>
HWY_INLINE void hashLeafGroup(D d, const uint8_t* const* messages, size_t firstLeaf, size_t length, uint8_t* digests)
{
    constexpr size_t LANES = hn::MaxLanes(D());
    LeafGroup<D> group(messages, firstLeaf, length);
    size_t offset = 0;
    for (; length - offset >= 2 * STRIPE; offset += STRIPE) {
        compress(d, group.h, group.rows, offset, sameTweak(d, (offset + STRIPE) / LEAVES, 0, 0));
    }
    if (length - offset == STRIPE) {
        group.absorbLastStripe(offset);
    } else {
        group.absorbTail(offset, length - offset);
    }
    uint8_t* rows[LANES];
    for (size_t lane = 0; lane < LANES; ++lane) {
        rows[lane] = digests + DIGEST * lane;
    }
    storeDigests(d, group.h, rows);
}

// Processors fetch ahead within a page, but a message of a page's size lies on one of its own.
HWY_INLINE void prefetchStart(const uint8_t* message, size_t length)
{
    for (size_t offset = 0; offset < smaller(length, 2 * STRIPE); offset += NODE_BLOCK) {
        hwy::Prefetch(message + offset);
    }
}

// Leaves of `count` messages, to `count` root messages of 256 bytes each.
template <class D>
HWY_INLINE void hashLeaves(D d, const uint8_t* const* messages, size_t count, size_t length, uint8_t* digests)
{
    constexpr size_t LANES = hn::MaxLanes(D());
    for (size_t leaf = 0; leaf < count * LEAVES; leaf += LANES) {
        const size_t next = (leaf + LANES) / LEAVES;
        if (next < count) {
            prefetchStart(messages[next], length);
        }
        hashLeafGroup(d, messages + leaf / LEAVES, leaf % LEAVES, length, digests + DIGEST * leaf);
    }
}

// ---------------------------------------------------------------------------------------------------
// Roots.

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

HWY_INLINE void mix(Vector<Row>& a, Vector<Row>& b, Vector<Row>& c, Vector<Row>& e, Vector<Row> m0, Vector<Row> m1)
{
    const Row d;
    a = hn::Add(hn::Add(a, m0), b);
    e = xorRotated<16>(d, e, a);
    c = hn::Add(c, e);
    b = xorRotated<12>(d, b, c);
    a = hn::Add(hn::Add(a, m1), b);
    e = xorRotated<8>(d, e, a);
    c = hn::Add(c, e);
    b = xorRotated<7>(d, b, c);
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
HWY_INLINE void rowRound(Vector<Row>& a, Vector<Row>& b, Vector<Row>& c, Vector<Row>& e, const uint32_t* m)
{
    constexpr auto& s = SIGMA[Round];
    mix(a, b, c, e, pick<s[0], s[2], s[4], s[6]>(m), pick<s[1], s[3], s[5], s[7]>(m));
    a = hn::Shuffle2103(a);
    c = hn::Shuffle0321(c);
    e = hn::Shuffle1032(e);
    mix(a, b, c, e, pick<s[14], s[8], s[10], s[12]>(m), pick<s[15], s[9], s[11], s[13]>(m));
    a = hn::Shuffle0321(a);
    c = hn::Shuffle2103(c);
    e = hn::Shuffle1032(e);
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
        rowRound<0>(a, b, c, e, m);
        rowRound<1>(a, b, c, e, m);
        rowRound<2>(a, b, c, e, m);
        rowRound<3>(a, b, c, e, m);
        rowRound<4>(a, b, c, e, m);
        rowRound<5>(a, b, c, e, m);
        rowRound<6>(a, b, c, e, m);
        rowRound<7>(a, b, c, e, m);
        rowRound<8>(a, b, c, e, m);
        rowRound<9>(a, b, c, e, m);
        low = hn::Xor(low, hn::Xor(a, c));
        high = hn::Xor(high, hn::Xor(b, e));
    }
    const hn::Repartition<uint8_t, Row> d8;
    hn::StoreU(hn::BitCast(d8, low), d8, digest);
    hn::StoreU(hn::BitCast(d8, high), d8, digest + 16);
}

#endif

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

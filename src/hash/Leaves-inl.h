// Leaves. Lane by lane they take the message's 64-byte blocks in turn, so one stripe of 512 bytes gives every
// leaf one block.
// Compiled once per instruction set, as a part of Blake2sp.cpp.

#if defined(KELVANE_HASH_LEAVES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef KELVANE_HASH_LEAVES_INL_H
#undef KELVANE_HASH_LEAVES_INL_H
#else
#define KELVANE_HASH_LEAVES_INL_H
#endif

#include "hash/Blake2sp.h"
#include "hash/Compression-inl.h"
#include <hwy/cache_control.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

constexpr size_t LEAVES = 8;
constexpr size_t NODE_BLOCK = 64;
constexpr size_t STRIPE = LEAVES * NODE_BLOCK;
constexpr size_t DIGEST = BLAKE2SP_DIGEST_SIZE_IN_BYTES;
constexpr size_t ROOT_MESSAGE = LEAVES * DIGEST;

using Widest = hn::CappedTag<uint32_t, 2 * LEAVES>;
using OneMessage = hn::CappedTag<uint32_t, LEAVES>;

HWY_INLINE size_t smaller(size_t a, size_t b)
{
    return a < b ? a : b;
}

template <class D>
struct LeafGroup {
    static constexpr size_t LANES = hn::MaxLanes(D());

    D d;
    const uint8_t* const* messages;
    size_t firstLeaf;
    const uint8_t* rows[LANES]; // where each leaf's first block lies; null for messages shorter than a stripe
    uint64_t earlier = 0;       // bytes of the message in front of those
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

    // Goes on with the leaves of a message of which a part has come.
    HWY_INLINE void load(const Blake2spLeaves& from)
    {
        earlier = from.absorbed;
        for (size_t i = 0; i < 8; ++i) {
            h[i] = hn::LoadU(d, from.words[i] + firstLeaf);
        }
    }

    HWY_INLINE void store(Blake2spLeaves& to) const
    {
        for (size_t i = 0; i < 8; ++i) {
            hn::StoreU(h[i], d, to.words[i] + firstLeaf);
        }
    }

    // Absorbs a whole stripe at `offset` behind which there is another one.
    HWY_INLINE void absorbStripe(size_t offset)
    {
        compress(d, h, rows, offset, sameTweak(d, (earlier + offset + STRIPE) / LEAVES, 0, 0));
    }

    // Absorbs all that is left from `offset` on, `remaining` bytes (below 1024), and writes the digests of the leaves.
    HWY_INLINE void finish(size_t offset, size_t remaining, uint8_t* digests)
    {
        if (remaining == STRIPE) {
            absorbLastStripe(offset);
        } else {
            absorbTail(offset, remaining);
        }
        uint8_t* places[LANES];
        for (size_t lane = 0; lane < LANES; ++lane) {
            places[lane] = digests + DIGEST * lane;
        }
        storeDigests(d, h, places);
    }

private:
    // Absorbs a whole stripe at `offset` that is the message's last: the way of every usual block size.
    HWY_INLINE void absorbLastStripe(size_t offset)
    {
        Tweak<D> tweak = sameTweak(d, (earlier + offset + STRIPE) / LEAVES, ALL_ONES, 0);
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
            const uint64_t counter = (earlier + offset) / LEAVES + own;
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
HWY_INLINE void hashLeafGroup(D /*d*/, const uint8_t* const* messages, size_t firstLeaf, size_t length,
                              uint8_t* digests)
{
    LeafGroup<D> group(messages, firstLeaf, length);
    size_t offset = 0;
    for (; length - offset >= 2 * STRIPE; offset += STRIPE) {
        group.absorbStripe(offset);
    }
    group.finish(offset, length - offset, digests);
}

#if HWY_TARGET <= HWY_AVX3

// Blake2spStreams.cpp has these. Lengths are those of whole stripes, at least one.
void streamLeaves(const uint8_t* const* messages, size_t count, size_t length, uint8_t* digests); // as hashAllLeaves
void streamStripes(Blake2spLeaves& leaves, const uint8_t* bytes, size_t stripes);                 // as absorbStripes
size_t streamRoots(const uint8_t* leafDigests, size_t count, uint8_t* const* digests); // of the first so many, returned

#endif

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

// Leaves of messages, to root messages of 256 bytes each.
HWY_INLINE void hashAllLeaves(const uint8_t* const* messages, size_t count, size_t length, uint8_t* digests)
{
#if HWY_TARGET <= HWY_AVX3
    if (length != 0 && length % STRIPE == 0) {
        streamLeaves(messages, count, length, digests);
        return;
    }
    const size_t inPairs = count / 2 * 2;
    hashLeaves(Widest(), messages, inPairs, length, digests);
    messages += inPairs;
    digests += inPairs * ROOT_MESSAGE;
    count -= inPairs;
#endif
    hashLeaves(OneMessage(), messages, count, length, digests);
}

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

#endif

// A message that comes in pieces: its leaves, kept in memory from one piece to the next.
// Compiled once per instruction set, as a part of Blake2sp.cpp.

#if defined(KELVANE_HASH_PIECES_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef KELVANE_HASH_PIECES_INL_H
#undef KELVANE_HASH_PIECES_INL_H
#else
#define KELVANE_HASH_PIECES_INL_H
#endif

#include "hash/LeafPairs-inl.h"
#include "hash/Roots-inl.h"
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

HWY_INLINE void beginLeaves(Blake2spLeaves& leaves)
{
    const uint8_t* const nothing = nullptr;
    for (size_t leaf = 0; leaf < LEAVES; leaf += hn::MaxLanes(OneMessage())) {
        LeafGroup<OneMessage>(&nothing, leaf, 0).store(leaves);
    }
}

#if HWY_TARGET <= HWY_AVX3

// Absorbs whole stripes, at least one, behind which the message goes on.
HWY_INLINE void absorbStripes(Blake2spLeaves& leaves, const uint8_t* bytes, size_t stripes)
{
    Workspace<OneMessage> memory;
    absorbStream(OneMessage(), {&bytes, 1, 0, stripes * STRIPE}, leaves, memory);
}

#else

HWY_INLINE void absorbStripes(Blake2spLeaves& leaves, const uint8_t* bytes, size_t stripes)
{
    for (size_t leaf = 0; leaf < LEAVES; leaf += hn::MaxLanes(OneMessage())) {
        LeafGroup<OneMessage> group(&bytes, leaf, STRIPE);
        group.load(leaves);
        for (size_t i = 0; i < stripes; ++i) {
            group.absorbStripe(i * STRIPE);
        }
        group.store(leaves);
    }
    leaves.absorbed += stripes * STRIPE;
}

#endif

// The message ends with the `length` bytes of the rest, fewer than two stripes.
HWY_INLINE void finishMessage(const Blake2spLeaves& leaves, const uint8_t* rest, size_t length, uint8_t* digest)
{
    uint8_t leafDigests[ROOT_MESSAGE];
    for (size_t leaf = 0; leaf < LEAVES; leaf += hn::MaxLanes(OneMessage())) {
        LeafGroup<OneMessage> group(&rest, leaf, length);
        group.load(leaves);
        group.finish(0, length, leafDigests + DIGEST * leaf);
    }
    hashRoot(leafDigests, digest);
}

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

#endif

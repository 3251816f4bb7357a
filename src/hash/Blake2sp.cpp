// Which path serves what. A stripe is 512 bytes: a block of 64 for each of a message's eight leaves, which are the
// lanes of a vector.
//
//                                   | 32 registers: AVX-512            | fewer: AVX2, SSE4, ..., NEON, none
//   --------------------------------+----------------------------------+-----------------------------------------
//   leaves, whole stripes           | streamLeaves: pairs of messages, | hashLeaves: a message, or as much of one
//                                   | 16 lanes; a last one alone       | as there are lanes
//   leaves, other lengths           | hashLeaves: pairs of messages    | the same
//   a message in pieces             | streamStripes                    | absorbStripes: LeafGroup
//   its end                         | finishMessage: LeafGroup         | the same
//   roots, whole vectors of them    | streamRoots                      | hashRoots
//   the other roots                 | hashRoots                        | hashRoots
//   one root                        | hashRoot: the rows of its state  | the same; with one lane, hashRoots
//
// What streams is in Blake2spStreams.cpp. All of it mixes with mixStep, of Compression-inl.h, and all but hashRoot with
// mixFour.

#include "hash/Blake2sp.h"

#include <cstring>

#include "hash/Targets.h"

// Everything down to HWY_AFTER_NAMESPACE is compiled once per instruction set.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "hash/Blake2sp.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include "hash/Roots-inl.h"

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

void hashMany(const uint8_t* const* messages, size_t count, size_t length, uint8_t* const* digests)
{
    uint8_t leafDigests[BLAKE2SP_BATCH * ROOT_MESSAGE];
    hashAllLeaves(messages, count, length, leafDigests);
    hashAllRoots(leafDigests, count, digests);
}

void beginLeaves(Blake2spLeaves& leaves)
{
    const uint8_t* const nothing = nullptr;
    for (size_t leaf = 0; leaf < LEAVES; leaf += hn::MaxLanes(OneMessage())) {
        LeafGroup<OneMessage>(&nothing, leaf, 0).store(leaves);
    }
}

// Absorbs whole stripes, at least one, behind which the message goes on.
void absorbStripes(Blake2spLeaves& leaves, const uint8_t* bytes, size_t stripes)
{
#if HWY_TARGET <= HWY_AVX3
    streamStripes(leaves, bytes, stripes);
#else
    for (size_t leaf = 0; leaf < LEAVES; leaf += hn::MaxLanes(OneMessage())) {
        LeafGroup<OneMessage> group(&bytes, leaf, STRIPE);
        group.load(leaves);
        for (size_t i = 0; i < stripes; ++i) {
            group.absorbStripe(i * STRIPE);
        }
        group.store(leaves);
    }
    leaves.absorbed += stripes * STRIPE;
#endif
}

// The message ends with the `length` bytes of the rest, fewer than two stripes.
void finishMessage(const Blake2spLeaves& leaves, const uint8_t* rest, size_t length, uint8_t* digest)
{
    uint8_t leafDigests[ROOT_MESSAGE];
    for (size_t leaf = 0; leaf < LEAVES; leaf += hn::MaxLanes(OneMessage())) {
        LeafGroup<OneMessage> group(&rest, leaf, length);
        group.load(leaves);
        group.finish(0, length, leafDigests + DIGEST * leaf);
    }
    hashRoot(leafDigests, digest);
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
HWY_EXPORT(beginLeaves);
HWY_EXPORT(absorbStripes);
HWY_EXPORT(finishMessage);
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
    HWY_DYNAMIC_DISPATCH(beginLeaves)(*this);
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
            HWY_DYNAMIC_DISPATCH(absorbStripes)(m_leaves, stripes, count);
        }
    };
    if (m_restLength + length >= 2 * STRIPE) {
        keep(-m_restLength % STRIPE); // up to whole stripes
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
    HWY_DYNAMIC_DISPATCH(finishMessage)(m_leaves, m_rest, m_restLength, digest);
}

const char* blake2spInstructionSet()
{
    return HWY_DYNAMIC_DISPATCH(targetName)();
}

} // namespace kelvane
#endif

// A stream of blocks: while one block of each lane is compressed, the next one is loaded, transposed and stored as
// words, a part in each round; the additions read the words of the present one from memory. For instruction sets with
// 32 registers: the words of the parts need some of them. Compiled once per instruction set, as a part of
// Blake2spStreams.cpp.

#if defined(KELVANE_HASH_STREAM_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef KELVANE_HASH_STREAM_INL_H
#undef KELVANE_HASH_STREAM_INL_H
#else
#define KELVANE_HASH_STREAM_INL_H
#endif

#include "hash/Leaves-inl.h"
#include <hwy/cache_control.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

#if HWY_TARGET <= HWY_AVX3

// Word i of one block of each lane's node.
template <class D>
struct Words {
    alignas(64) uint32_t lanes[16][hn::MaxLanes(D())];

    HWY_INLINE Vector<D> operator[](int i) const { return hn::Load(D(), lanes[i]); }
};

// What a stream keeps in memory. It is the caller's, for of local variables compilers keep copies in registers, which
// then are too few for the state.
template <class D>
struct Workspace {
    Words<D> words[2];
    Words<D> chain; // the first eight
};

// Where one block of every lane lies: that of each eighth lane, which those of the next seven follow.
template <class D, size_t Distance>
struct Blocks {
    static constexpr size_t COUNT = hn::MaxLanes(D()) / LEAVES;
    static constexpr size_t PARTS = 4 * COUNT;

    const uint8_t* start[COUNT];
};

// A part of the blocks: four words of those of eight lanes.
struct Part {
    Vector<OneMessage> rows[4];

    template <class D, size_t Distance>
    HWY_INLINE void load(const Blocks<D, Distance>& from, size_t number)
    {
        const hn::Half<OneMessage> four;
        const uint8_t* const block = from.start[number / 4] + 16 * (number % 4);
        for (size_t i = 0; i < 4; ++i) {
            const auto* const low = reinterpret_cast<const uint32_t*>(block + Distance * i);
            const auto* const high = reinterpret_cast<const uint32_t*>(block + Distance * (i + 4));
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

// All rounds on the words m, and on the way the blocks `from` become the words `next`.
template <int Round, class D, class From>
HWY_INLINE void roundsFrom(D d, Vector<D>* v, const Words<D>& m, const From& from, Words<D>& next)
{
    constexpr int EVERY = 8 / static_cast<int>(From::PARTS);
    constexpr bool BRINGS_IN = Round < 8 && Round % EVERY == 0;
    Part part;
    if constexpr (BRINGS_IN) {
        part.load(from, Round / EVERY);
    }
    mixFour<Round, 0, 1>(d, v, m);
    if constexpr (BRINGS_IN) {
        part.store(next, Round / EVERY);
    }
    mixFour<Round, 1, 1>(d, v, m); // one step behind, for then rotations of the ones meet additions of the others
    if constexpr (Round < 9) {
        roundsFrom<Round + 1>(d, v, m, from, next);
    }
}

template <class D>
struct Stream {
    Words<D>& chain;
    Words<D>* present;
    Words<D>* coming;
    Vector<D> v[16]; // the first eight are the chaining value, which `chain` holds too

    // Brings in the first blocks of all.
    template <class From>
    HWY_INLINE Stream(Workspace<D>& memory, const From& first)
        : chain(memory.chain)
        , present(&memory.words[0])
        , coming(&memory.words[1])
    {
        for (size_t i = 0; i < From::PARTS; ++i) {
            Part part;
            part.load(first, i);
            part.store(*present, i);
        }
    }

    // Begins new nodes.
    HWY_INLINE void begin(Vector<D> nodeOffset, uint32_t depthParameter)
    {
        initialState(D(), nodeOffset, depthParameter, v);
        for (int i = 0; i < 8; ++i) {
            hn::Store(v[i], D(), chain.lanes[i]);
        }
    }

    // Goes on with the leaves of a message of which a part has come.
    HWY_INLINE void load(const Blake2spLeaves& from)
    {
        for (int i = 0; i < 8; ++i) {
            v[i] = hn::LoadU(D(), from.words[i]);
            hn::Store(v[i], D(), chain.lanes[i]);
        }
    }

    HWY_INLINE void store(Blake2spLeaves& to) const
    {
        for (int i = 0; i < 8; ++i) {
            hn::StoreU(v[i], D(), to.words[i]);
        }
    }

    // Compresses the blocks that were brought in, and brings in the next ones.
    template <class From>
    HWY_INLINE void compress(uint64_t counter, Vector<D> lastBlock, Vector<D> lastNode, const From& next)
    {
        const D d;
        v[8] = hn::Set(d, IV[0]);
        v[9] = hn::Set(d, IV[1]);
        v[10] = hn::Set(d, IV[2]);
        v[11] = hn::Set(d, IV[3]);
        v[12] = hn::Set(d, IV[4] ^ static_cast<uint32_t>(counter));
        v[13] = hn::Set(d, IV[5] ^ static_cast<uint32_t>(counter >> 32));
        v[14] = hn::Xor(hn::Set(d, IV[6]), lastBlock);
        v[15] = hn::Xor(hn::Set(d, IV[7]), lastNode);
        roundsFrom<0>(d, v, *present, next, *coming);
        Words<D>* const used = present;
        present = coming;
        coming = used;
        for (int i = 0; i < 8; ++i) {
            v[i] = hn::Xor3(v[i], v[i + 8], chain[i]);
            hn::Store(v[i], d, chain.lanes[i]);
        }
    }
};

#endif

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

#endif

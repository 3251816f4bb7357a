// One vector per word, one lane per node: loading and storing with transposition, and rotations.
// Compiled once per instruction set, as a part of Blake2sp.cpp.

#if defined(KELVANE_HASH_VECTORS_INL_H) == defined(HWY_TARGET_TOGGLE)
#ifdef KELVANE_HASH_VECTORS_INL_H
#undef KELVANE_HASH_VECTORS_INL_H
#else
#define KELVANE_HASH_VECTORS_INL_H
#endif

#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace kelvane {
namespace HWY_NAMESPACE {

namespace hn = hwy::HWY_NAMESPACE;

// Standard library templates stay out of this namespace: compiled here, one made for a wide
// instruction set could be linked into code that runs on a narrow one.

template <class D>
using Vector = hn::Vec<D>;

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

} // namespace HWY_NAMESPACE
} // namespace kelvane
HWY_AFTER_NAMESPACE();

#endif

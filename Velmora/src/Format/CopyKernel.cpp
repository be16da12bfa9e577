#include "Format/CopyKernel.h"

#include <cstring>

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <immintrin.h>
#define VELMORA_AVX2_KERNELS 1
#endif

namespace VELMORA {

namespace {

constexpr std::size_t groupBytes = 4;

// Each byte of a word with its bits in reverse order, in three swaps of
// halves: the form compilers turn into vector code, where a table lookup
// per byte would not be.
constexpr std::uint32_t reverseBitsPerByte(std::uint32_t word) {
    word = ((word >> 4) & 0x0F0F0F0Fu) | ((word & 0x0F0F0F0Fu) << 4);
    word = ((word >> 2) & 0x33333333u) | ((word & 0x33333333u) << 2);
    return ((word >> 1) & 0x55555555u) | ((word & 0x55555555u) << 1);
}
static_assert(reverseBitsPerByte(0x01804C00u) == 0x80013200u);

// One loop for every form, over whole groups of four bytes; `flip` is 0 or
// all ones, so inversion costs one XOR and no branch. A byte swap and a bit
// reversal within bytes give the same bytes whatever the word's byte order.
template <bool swapped, bool reversed, std::uint32_t flip>
void copyGroupsPortable(std::uint8_t* destination, const std::uint8_t* source, std::size_t groups) {
    for (std::size_t i = 0; i < groups; ++i) {
        std::uint32_t word;
        std::memcpy(&word, source + i * groupBytes, groupBytes);
        if constexpr (swapped) word = __builtin_bswap32(word);
        if constexpr (reversed) word = reverseBitsPerByte(word);
        word ^= flip;
        std::memcpy(destination + i * groupBytes, &word, groupBytes);
    }
}

#ifdef VELMORA_AVX2_KERNELS
// 32 bytes a step where the processor has AVX2: the byte swap is one
// shuffle. Where it also has GFNI, one affine step reverses the bits of every
// byte (its matrix is the identity mirrored); without GFNI the reversing
// kernels stay with the portable loop.
template <bool swapped, std::uint32_t flip>
__attribute__((target("avx2"), always_inline)) inline __m256i swapAndFlip(__m256i v) {
    if constexpr (swapped) {
        const __m256i order = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12, 3, 2, 1,
                                               0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
        v = _mm256_shuffle_epi8(v, order);
    }
    return _mm256_xor_si256(v, _mm256_set1_epi32(int(flip)));
}

__attribute__((target("avx2,gfni"), always_inline)) inline __m256i reverseBits(__m256i v) {
    return _mm256_gf2p8affine_epi64_epi8(v, _mm256_set1_epi64x(0x8040201008040201), 0);
}

// Each loop takes two vectors a step, then one, and leaves the rest to the
// portable loop; it returns the groups done.
template <bool swapped, std::uint32_t flip>
__attribute__((target("avx2"))) std::size_t copyGroupsAvx2(std::uint8_t* destination,
                                                           const std::uint8_t* source, std::size_t groups) {
    const auto* in = reinterpret_cast<const __m256i*>(source);
    auto* out = reinterpret_cast<__m256i*>(destination);
    std::size_t vectors = groups * groupBytes / 32;
    std::size_t i = 0;
    for (; i + 2 <= vectors; i += 2) {
        __m256i first = swapAndFlip<swapped, flip>(_mm256_loadu_si256(in + i));
        __m256i second = swapAndFlip<swapped, flip>(_mm256_loadu_si256(in + i + 1));
        _mm256_storeu_si256(out + i, first);
        _mm256_storeu_si256(out + i + 1, second);
    }
    if (i < vectors) _mm256_storeu_si256(out + i, swapAndFlip<swapped, flip>(_mm256_loadu_si256(in + i)));
    return vectors * 32 / groupBytes;
}

template <bool swapped, std::uint32_t flip>
__attribute__((target("avx2,gfni"))) std::size_t copyReversedGfni(std::uint8_t* destination,
                                                                  const std::uint8_t* source,
                                                                  std::size_t groups) {
    const auto* in = reinterpret_cast<const __m256i*>(source);
    auto* out = reinterpret_cast<__m256i*>(destination);
    std::size_t vectors = groups * groupBytes / 32;
    std::size_t i = 0;
    for (; i + 2 <= vectors; i += 2) {
        __m256i first = swapAndFlip<swapped, flip>(reverseBits(_mm256_loadu_si256(in + i)));
        __m256i second = swapAndFlip<swapped, flip>(reverseBits(_mm256_loadu_si256(in + i + 1)));
        _mm256_storeu_si256(out + i, first);
        _mm256_storeu_si256(out + i + 1, second);
    }
    if (i < vectors) {
        _mm256_storeu_si256(out + i, swapAndFlip<swapped, flip>(reverseBits(_mm256_loadu_si256(in + i))));
    }
    return vectors * 32 / groupBytes;
}

// The inverting copy as a plain loop, which the compiler turns into 64-byte
// steps where AVX-512 is there: as wide as the library's memcpy.
__attribute__((target("avx512f,avx512bw"))) void invertAvx512(std::uint8_t* destination,
                                                              const std::uint8_t* source,
                                                              std::size_t byteCount) {
    for (std::size_t i = 0; i < byteCount; ++i) destination[i] = static_cast<std::uint8_t>(~source[i]);
}

// Read while statics are made, which may come before the run-time library's
// own look at the processor: hence the explicit init.
const bool haveAvx2 = (__builtin_cpu_init(), __builtin_cpu_supports("avx2"));
const bool haveGfni = haveAvx2 && __builtin_cpu_supports("gfni");
const bool haveAvx512 = __builtin_cpu_supports("avx512bw");
#endif

template <bool swapped, bool reversed, std::uint32_t flip>
void copyGroups(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    std::size_t groups = byteCount / groupBytes;
    std::size_t done = 0;
#ifdef VELMORA_AVX2_KERNELS
    if constexpr (reversed) {
        if (haveGfni) done = copyReversedGfni<swapped, flip>(destination, source, groups);
    } else {
        if (haveAvx2) done = copyGroupsAvx2<swapped, flip>(destination, source, groups);
    }
#endif
    copyGroupsPortable<swapped, reversed, flip>(destination + done * groupBytes, source + done * groupBytes,
                                                groups - done);
}

struct KernelPair {
    CopyKernel plain;
    CopyKernel inverted;
};

constexpr KernelPair kernels[] = {
    {copyPlain, copyInvert},
    {copySwap, copySwapInvert},
    {copyReverse, copyReverseInvert},
    {copyReverseSwap, copyReverseSwapInvert},
};

}  // namespace

void copyPlain(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    if (byteCount != 0) std::memcpy(destination, source, byteCount);
}

void copyInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
#ifdef VELMORA_AVX2_KERNELS
    if (haveAvx512) return invertAvx512(destination, source, byteCount);
#endif
    copyGroups<false, false, ~0u>(destination, source, byteCount);
    for (std::size_t i = byteCount / groupBytes * groupBytes; i < byteCount; ++i) {
        destination[i] = static_cast<std::uint8_t>(~source[i]);
    }
}

void copySwap(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    copyGroups<true, false, 0u>(destination, source, byteCount);
}

void copySwapInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    copyGroups<true, false, ~0u>(destination, source, byteCount);
}

void copyReverse(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    copyGroups<false, true, 0u>(destination, source, byteCount);
}

void copyReverseInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    copyGroups<false, true, ~0u>(destination, source, byteCount);
}

void copyReverseSwap(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    copyGroups<true, true, 0u>(destination, source, byteCount);
}

void copyReverseSwapInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    copyGroups<true, true, ~0u>(destination, source, byteCount);
}

CopyKernel kernelFor(KernelForm form, bool invert) {
    const KernelPair& pair = kernels[static_cast<std::size_t>(form)];
    return invert ? pair.inverted : pair.plain;
}

}  // namespace VELMORA

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
// shuffle, the bit reversal two table lookups of a nibble each.
template <bool swapped, bool reversed, std::uint32_t flip>
__attribute__((target("avx2"), always_inline)) inline __m256i convertAvx2(__m256i v) {
    if constexpr (swapped) {
        const __m256i order = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12, 3, 2, 1,
                                               0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
        v = _mm256_shuffle_epi8(v, order);
    }
    if constexpr (reversed) {
        // Nibble n reversed, placed in the high nibble and in the low one.
        const __m256i toHigh =
            _mm256_setr_epi8(0x00, char(0x80), 0x40, char(0xC0), 0x20, char(0xA0), 0x60, char(0xE0), 0x10,
                             char(0x90), 0x50, char(0xD0), 0x30, char(0xB0), 0x70, char(0xF0), 0x00,
                             char(0x80), 0x40, char(0xC0), 0x20, char(0xA0), 0x60, char(0xE0), 0x10,
                             char(0x90), 0x50, char(0xD0), 0x30, char(0xB0), 0x70, char(0xF0));
        const __m256i toLow =
            _mm256_setr_epi8(0x0, 0x8, 0x4, 0xC, 0x2, 0xA, 0x6, 0xE, 0x1, 0x9, 0x5, 0xD, 0x3, 0xB, 0x7, 0xF,
                             0x0, 0x8, 0x4, 0xC, 0x2, 0xA, 0x6, 0xE, 0x1, 0x9, 0x5, 0xD, 0x3, 0xB, 0x7, 0xF);
        const __m256i nibble = _mm256_set1_epi8(0x0F);
        __m256i low = _mm256_and_si256(v, nibble);
        __m256i high = _mm256_and_si256(_mm256_srli_epi16(v, 4), nibble);
        v = _mm256_or_si256(_mm256_shuffle_epi8(toHigh, low), _mm256_shuffle_epi8(toLow, high));
    }
    return _mm256_xor_si256(v, _mm256_set1_epi32(int(flip)));
}

// Two vectors a step, so that one's lookups overlap the other's.
template <bool swapped, bool reversed, std::uint32_t flip>
__attribute__((target("avx2"))) std::size_t copyGroupsAvx2(std::uint8_t* destination,
                                                           const std::uint8_t* source, std::size_t groups) {
    constexpr std::size_t step = 64 / groupBytes;
    std::size_t done = 0;
    for (; done + step <= groups; done += step) {
        const auto* in = reinterpret_cast<const __m256i*>(source + done * groupBytes);
        auto* out = reinterpret_cast<__m256i*>(destination + done * groupBytes);
        __m256i first = convertAvx2<swapped, reversed, flip>(_mm256_loadu_si256(in));
        __m256i second = convertAvx2<swapped, reversed, flip>(_mm256_loadu_si256(in + 1));
        _mm256_storeu_si256(out, first);
        _mm256_storeu_si256(out + 1, second);
    }
    return done;
}

const bool haveAvx2 = __builtin_cpu_supports("avx2");
#endif

template <bool swapped, bool reversed, std::uint32_t flip>
void copyGroups(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    std::size_t groups = byteCount / groupBytes;
    std::size_t done = 0;
#ifdef VELMORA_AVX2_KERNELS
    if (haveAvx2) done = copyGroupsAvx2<swapped, reversed, flip>(destination, source, groups);
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

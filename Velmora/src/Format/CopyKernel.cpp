#include "Format/CopyKernel.h"

#include <cstring>

namespace VELMORA {

namespace {

constexpr std::size_t groupBytes = 4;

// `flip` is 0 or 0xFF, so inversion costs one XOR and no branch.
template <std::uint8_t flip>
void swapGroups(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    for (std::size_t groups = byteCount / groupBytes; groups > 0; --groups) {
        destination[0] = source[3] ^ flip;
        destination[1] = source[2] ^ flip;
        destination[2] = source[1] ^ flip;
        destination[3] = source[0] ^ flip;
        destination += groupBytes;
        source += groupBytes;
    }
}

template <bool swapped>
void reverseGroups(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount,
                   const ByteTable& table) {
    for (std::size_t groups = byteCount / groupBytes; groups > 0; --groups) {
        for (std::size_t i = 0; i < groupBytes; ++i) {
            destination[i] = table[source[swapped ? groupBytes - 1 - i : i]];
        }
        destination += groupBytes;
        source += groupBytes;
    }
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
    std::size_t done = 0;
    for (; byteCount - done >= sizeof(std::uint64_t); done += sizeof(std::uint64_t)) {
        std::uint64_t word;
        std::memcpy(&word, source + done, sizeof word);
        word = ~word;
        std::memcpy(destination + done, &word, sizeof word);
    }
    for (; done < byteCount; ++done) destination[done] = static_cast<std::uint8_t>(~source[done]);
}

void copySwap(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    swapGroups<0x00>(destination, source, byteCount);
}

void copySwapInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    swapGroups<0xFF>(destination, source, byteCount);
}

void copyReverse(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    reverseGroups<false>(destination, source, byteCount, bitReverse);
}

void copyReverseInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    reverseGroups<false>(destination, source, byteCount, bitReverseNot);
}

void copyReverseSwap(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    reverseGroups<true>(destination, source, byteCount, bitReverse);
}

void copyReverseSwapInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount) {
    reverseGroups<true>(destination, source, byteCount, bitReverseNot);
}

CopyKernel kernelFor(KernelForm form, bool invert) {
    const KernelPair& pair = kernels[static_cast<std::size_t>(form)];
    return invert ? pair.inverted : pair.plain;
}

}  // namespace VELMORA

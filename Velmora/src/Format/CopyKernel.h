// The copy from a ring slot into a packet's payload, with any DSD bit or
// word reordering and any polarity inversion done in the same pass.
//
// Kernels run on the stream worker's cycle: they hold no state, allocate
// nothing and never fail. `byteCount` is a whole number of frames; the
// four-byte forms handle byteCount / 4 whole groups and leave the last
// byteCount % 4 bytes of the destination untouched.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VELMORA {

using CopyKernel = void (*)(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);

void copyPlain(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);
void copyInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);
// Each group of four bytes in reverse byte order.
void copySwap(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);
void copySwapInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);
// Each byte bit-reversed, byte order kept.
void copyReverse(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);
void copyReverseInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);
// Each byte bit-reversed and each group of four in reverse byte order.
void copyReverseSwap(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);
void copyReverseSwapInvert(std::uint8_t* destination, const std::uint8_t* source, std::size_t byteCount);

// The four reorderings; each has a plain and an inverted kernel.
enum class KernelForm { plain, swap, reverse, reverseSwap };

CopyKernel kernelFor(KernelForm form, bool invert);

}  // namespace VELMORA

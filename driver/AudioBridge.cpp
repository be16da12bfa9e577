#include "AudioBridge.h"

#include <cstring>

namespace {

// One sample: `Out` bytes in the slot, of which the first `Pad` are zero and
// the rest come from the host's sample of `In` bytes, from byte `From` on.
template <std::uint32_t In, std::uint32_t Out, std::uint32_t From, std::uint32_t Pad>
void interleaveAs(const std::uint8_t* const* halves, std::uint32_t channels, std::uint32_t frames,
                  std::uint8_t* slot) {
    static_assert(From + Out - Pad <= In);
    const std::size_t stride = std::size_t(channels) * Out;
    for (std::uint32_t c = 0; c < channels; ++c) {
        const std::uint8_t* from = halves[c] + From;
        std::uint8_t* to = slot + std::size_t(c) * Out;
        for (std::uint32_t k = 0; k < frames; ++k, from += In, to += stride) {
            if constexpr (Pad != 0) std::memset(to, 0, Pad);
            std::memcpy(to + Pad, from, Out - Pad);
        }
    }
}

}  // namespace

BridgeForm bridgeFormFor(bool dsd, std::uint32_t dsdWordBytes, std::int32_t sampleWidth, bool covertS32,
                         std::uint64_t formatMode) {
    if (dsd) return dsdWordBytes == 4 ? BridgeForm::copy4 : BridgeForm::copy1;
    switch (sampleWidth) {
        case 8:
            return BridgeForm::copy8;
        case 3:
            return BridgeForm::copy3;
        case 2:
            return BridgeForm::copy2;
        default:
            break;
    }
    if (!covertS32) return BridgeForm::copy4;
    switch (formatMode) {
        case 0x1000:
            return BridgeForm::pad32to64;
        case 0x400:
            return BridgeForm::cut32to24;
        case 0x200:
            return BridgeForm::cut32to16;
        default:
            return BridgeForm::copy4;
    }
}

std::uint32_t hostSampleBytes(BridgeForm form) {
    switch (form) {
        case BridgeForm::copy1:
            return 1;
        case BridgeForm::copy2:
            return 2;
        case BridgeForm::copy3:
            return 3;
        case BridgeForm::copy8:
            return 8;
        default:
            return 4;
    }
}

std::uint32_t slotSampleBytes(BridgeForm form) {
    switch (form) {
        case BridgeForm::cut32to16:
            return 2;
        case BridgeForm::cut32to24:
            return 3;
        case BridgeForm::pad32to64:
            return 8;
        default:
            return hostSampleBytes(form);
    }
}

void interleave(BridgeForm form, const std::uint8_t* const* halves, std::uint32_t channels,
                std::uint32_t frames, std::uint8_t* slot) {
    // Samples are little-endian: the high bytes of a 32-bit sample are its last.
    switch (form) {
        case BridgeForm::copy1:
            return interleaveAs<1, 1, 0, 0>(halves, channels, frames, slot);
        case BridgeForm::copy2:
            return interleaveAs<2, 2, 0, 0>(halves, channels, frames, slot);
        case BridgeForm::copy3:
            return interleaveAs<3, 3, 0, 0>(halves, channels, frames, slot);
        case BridgeForm::copy4:
            return interleaveAs<4, 4, 0, 0>(halves, channels, frames, slot);
        case BridgeForm::copy8:
            return interleaveAs<8, 8, 0, 0>(halves, channels, frames, slot);
        case BridgeForm::cut32to16:
            return interleaveAs<4, 2, 2, 0>(halves, channels, frames, slot);
        case BridgeForm::cut32to24:
            return interleaveAs<4, 3, 1, 0>(halves, channels, frames, slot);
        case BridgeForm::pad32to64:
            return interleaveAs<4, 8, 0, 4>(halves, channels, frames, slot);
    }
}

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

namespace {

// Host and slot bytes of a sample, in the order of BridgeForm.
constexpr std::uint8_t sampleBytes[][2] = {{1, 1}, {2, 2}, {3, 3}, {4, 4}, {8, 8}, {4, 2}, {4, 3}, {4, 8}};

}  // namespace

std::uint32_t hostSampleBytes(BridgeForm form) {
    return sampleBytes[std::size_t(form)][0];
}

std::uint32_t slotSampleBytes(BridgeForm form) {
    return sampleBytes[std::size_t(form)][1];
}

void interleave(BridgeForm form, const std::uint8_t* const* halves, std::uint32_t channels,
                std::uint32_t frames, std::uint8_t* slot) {
    using Loop = void (*)(const std::uint8_t* const*, std::uint32_t, std::uint32_t, std::uint8_t*);
    // In the order of BridgeForm. Samples are little-endian: the high bytes
    // of a 32-bit sample are its last.
    static constexpr Loop loops[] = {
        interleaveAs<1, 1, 0, 0>, interleaveAs<2, 2, 0, 0>, interleaveAs<3, 3, 0, 0>,
        interleaveAs<4, 4, 0, 0>, interleaveAs<8, 8, 0, 0>, interleaveAs<4, 2, 2, 0>,
        interleaveAs<4, 3, 1, 0>, interleaveAs<4, 8, 0, 4>,
    };
    loops[std::size_t(form)](halves, channels, frames, slot);
}

// The copy from the host's channel-by-channel double buffers into one ring
// slot, where the channels are interleaved frame by frame.
//
// Each form is one loop of its own, chosen once per start, so that no test
// of the case stands inside the sample loop. The copies move bytes only:
// cutting a 32-bit sample drops its low bytes, with no rounding or dither.
#pragma once

#include <cstdint>

enum class BridgeForm : std::uint8_t {
    copy1,      // one byte of DSD
    copy2,      // 16-bit samples
    copy3,      // 24-bit samples
    copy4,      // 32-bit samples and floats, or four bytes of DSD
    copy8,      // 64-bit floats
    cut32to16,  // the two high bytes of a 32-bit sample
    cut32to24,  // the three high bytes
    pad32to64,  // the sample as the high half of a 64-bit integer
};

// The form for a stream: DSD (`dsd`, with `dsdWordBytes` per group of the
// source format) or PCM of `sampleWidth` bytes in the host's buffers, cut to
// the `formatMode` bit when the host writes 32-bit integers (`covertS32`).
BridgeForm bridgeFormFor(bool dsd, std::uint32_t dsdWordBytes, std::int32_t sampleWidth, bool covertS32,
                         std::uint64_t formatMode);

// Bytes of one sample in the host's buffer, and of one element in the slot.
std::uint32_t hostSampleBytes(BridgeForm form);
std::uint32_t slotSampleBytes(BridgeForm form);

// Sample k of channel c (of `channels`, each from its own `halves[c]`) goes to
// element channels x k + c of `slot`, for k below `frames`.
void interleave(BridgeForm form, const std::uint8_t* const* halves, std::uint32_t channels,
                std::uint32_t frames, std::uint8_t* slot);

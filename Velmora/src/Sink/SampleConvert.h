// The PCM sample forms a device takes, and the conversion of one sample
// from the stream's form to the device's. Integers are widened or cut
// through a left-aligned 32-bit value; a 16- or 24-bit sample becomes a
// float exactly (x / 2^15, x / 2^23), a 32-bit one is rounded to float's
// 24 bits. Floats out of [-1, 1) saturate on their way to integers.
#pragma once

#include <cstdint>

#include "Format/FormatID.h"

namespace VELMORA {

enum class SampleForm : std::uint8_t { none, s16, s24, s32, f32 };

// Little-endian PCM forms of the format word; `none` for others.
SampleForm sampleFormOf(FormatID format);
// The format word's sample bit of a form (0x200, 0x400, 0x800, 0x2000).
std::uint32_t sampleBitOf(SampleForm form);
unsigned sampleBytes(SampleForm form);

float sampleToFloat(const std::uint8_t* sample, SampleForm form);
void convertSample(const std::uint8_t* from, SampleForm fromForm, std::uint8_t* to, SampleForm toForm);

// Interleaved frames to interleaved frames of another form and channel
// count: channels beyond the source's are silent, those beyond the
// destination's are left out.
void convertFrames(const std::uint8_t* from, SampleForm fromForm, unsigned fromChannels, std::uint8_t* to,
                   SampleForm toForm, unsigned toChannels, std::size_t frames);

}  // namespace VELMORA

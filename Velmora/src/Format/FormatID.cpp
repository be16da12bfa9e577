#include "Format/FormatID.h"

#include <bit>

namespace VELMORA {

namespace {

struct SampleForm {
    std::uint32_t bit;
    std::uint32_t bits;
};

// Greatest first, so that a mask finds its greatest form by the first hit.
constexpr SampleForm sampleForms[] = {
    {0x4000, 64}, {0x1000, 64}, {0x2000, 32}, {0x800, 32},  {0x400, 24},
    {0x200, 16},  {0x100, 8},   {0x20000, 4}, {0x10000, 1},
};

struct ChannelBit {
    std::uint32_t bit;
    std::uint32_t count;
};

constexpr ChannelBit channelBits[] = {{0x20, 16}, {0x10, 8}, {0x08, 6}, {0x04, 4}, {0x02, 2}, {0x01, 1}};

constexpr std::uint32_t greatestMultiplierExponent = 12;

std::uint32_t baseRate(std::uint32_t baseBits) {
    switch (baseBits) {
        case FormatID::base8000:
            return 8000;
        case FormatID::base44100:
            return 44100;
        case FormatID::base48000:
            return 48000;
        default:
            return 0;
    }
}

}  // namespace

std::uint32_t FormatID::bitsPerSample() const {
    std::uint32_t form = low() & sampleMask;
    for (const SampleForm& entry : sampleForms) {
        if (entry.bit == form) return entry.bits;
    }
    return 16;
}

std::uint32_t FormatID::bytesPerSample() const {
    std::uint32_t form = low() & sampleMask;
    if (form == dsdOneBit || form == dsdFourBit) return (low() & wordSizeMask) == dsdWord32 ? 4 : 2;
    return bitsPerSample() / 8;
}

std::uint32_t FormatID::channelCount() const {
    std::uint32_t channels = low() & channelMask;
    for (const ChannelBit& entry : channelBits) {
        if (entry.bit == channels) return entry.count;
    }
    return 2;
}

std::uint32_t FormatID::rate() const {
    std::uint32_t base = baseRate(high() & baseMask);
    std::uint32_t multiplier = (high() & multiplierMask) >> multiplierShift;
    if (base == 0 || !std::has_single_bit(multiplier)) return 0;
    return base * multiplier;
}

std::uint32_t FormatID::frameBytes() const {
    return bytesPerSample() * channelCount();
}

std::uint32_t FormatID::byteRate() const {
    std::uint64_t bytes = std::uint64_t{bitsPerSample()} * channelCount() * rate() / 8;
    return bytes > UINT32_MAX ? 0 : static_cast<std::uint32_t>(bytes);
}

bool FormatID::setRate(std::uint32_t hz) {
    std::uint32_t fields = 0;
    if (hz == 8000) {
        fields = base8000;
    } else {
        for (std::uint32_t exponent = 0; exponent <= greatestMultiplierExponent && fields == 0; ++exponent) {
            std::uint32_t multiplierBit = 1u << (exponent + multiplierShift);
            if (hz == 44100u << exponent) fields = base44100 | multiplierBit;
            if (hz == 48000u << exponent) fields = base48000 | multiplierBit;
        }
    }
    if (fields == 0) return false;
    replace(0, fields);
    return true;
}

void FormatID::replace(std::uint32_t newLow, std::uint32_t newHigh) {
    std::uint32_t lowFields = 0;
    if ((newLow & channelMask) != 0) lowFields |= channelMask;
    if ((newLow & ~channelMask) != 0) lowFields |= ~channelMask;
    std::uint32_t highFields = (newHigh & 0xFFFF) != 0 ? 0xFFFF : 0;
    *this = FormatID((low() & ~lowFields) | (newLow & lowFields),
                     (high() & ~highFields) | (newHigh & highFields));
}

std::uint8_t FormatID::muteByte() const {
    if (!isDsd()) return 0;
    return (low() & dsdLsbFirst) != 0 ? 0x69 : 0x96;
}

std::uint32_t FormatID::greatestBits() const {
    for (const SampleForm& entry : sampleForms) {
        if ((low() & entry.bit) != 0) return entry.bits;
    }
    return 0;
}

std::uint32_t FormatID::greatestChannels() const {
    for (const ChannelBit& entry : channelBits) {
        if ((low() & entry.bit) != 0) return entry.count;
    }
    return 0;
}

std::uint32_t FormatID::leastMultiplier() const {
    std::uint32_t multipliers = (high() & multiplierMask) >> multiplierShift;
    return multipliers == 0 ? 0 : multipliers & (~multipliers + 1);
}

}  // namespace VELMORA

#include "Sink/SampleConvert.h"

#include <cmath>
#include <cstring>

namespace VELMORA {

namespace {

std::int32_t leftAligned(const std::uint8_t* p, SampleForm form) {
    switch (form) {
        case SampleForm::s16:
            return std::int32_t(std::uint32_t(p[0]) << 16 | std::uint32_t(p[1]) << 24);
        case SampleForm::s24:
            return std::int32_t(std::uint32_t(p[0]) << 8 | std::uint32_t(p[1]) << 16 |
                                std::uint32_t(p[2]) << 24);
        case SampleForm::s32:
            return std::int32_t(std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 |
                                std::uint32_t(p[3]) << 24);
        case SampleForm::f32: {
            float value = sampleToFloat(p, form);
            double scaled = std::round(double(value) * 2147483648.0);
            if (!(scaled < 2147483647.0)) return INT32_MAX;  // NaN too
            if (scaled < -2147483648.0) return INT32_MIN;
            return std::int32_t(scaled);
        }
        default:
            return 0;
    }
}

void putLeftAligned(std::int32_t value, std::uint8_t* p, SampleForm form) {
    auto bits = std::uint32_t(value);
    switch (form) {
        case SampleForm::s16:
            p[0] = std::uint8_t(bits >> 16);
            p[1] = std::uint8_t(bits >> 24);
            break;
        case SampleForm::s24:
            p[0] = std::uint8_t(bits >> 8);
            p[1] = std::uint8_t(bits >> 16);
            p[2] = std::uint8_t(bits >> 24);
            break;
        case SampleForm::s32:
            for (int i = 0; i < 4; ++i) p[i] = std::uint8_t(bits >> (8 * i));
            break;
        default:
            break;
    }
}

}  // namespace

SampleForm sampleFormOf(FormatID format) {
    switch (format.low() & FormatID::sampleMask) {
        case 0x200:
            return SampleForm::s16;
        case 0x400:
            return SampleForm::s24;
        case 0x800:
            return SampleForm::s32;
        case 0x2000:
            return SampleForm::f32;
        default:
            return SampleForm::none;
    }
}

std::uint32_t sampleBitOf(SampleForm form) {
    switch (form) {
        case SampleForm::s16:
            return 0x200;
        case SampleForm::s24:
            return 0x400;
        case SampleForm::s32:
            return 0x800;
        case SampleForm::f32:
            return 0x2000;
        default:
            return 0;
    }
}

unsigned sampleBytes(SampleForm form) {
    switch (form) {
        case SampleForm::s16:
            return 2;
        case SampleForm::s24:
            return 3;
        case SampleForm::s32:
        case SampleForm::f32:
            return 4;
        default:
            return 0;
    }
}

float sampleToFloat(const std::uint8_t* sample, SampleForm form) {
    if (form == SampleForm::f32) {
        float value;
        std::uint32_t bits = std::uint32_t(sample[0]) | std::uint32_t(sample[1]) << 8 |
                             std::uint32_t(sample[2]) << 16 | std::uint32_t(sample[3]) << 24;
        std::memcpy(&value, &bits, 4);
        return value;
    }
    return float(leftAligned(sample, form)) * (1.0f / 2147483648.0f);
}

void convertSample(const std::uint8_t* from, SampleForm fromForm, std::uint8_t* to, SampleForm toForm) {
    if (fromForm == toForm) {
        std::memcpy(to, from, sampleBytes(toForm));
    } else if (toForm == SampleForm::f32) {
        float value = sampleToFloat(from, fromForm);
        std::uint32_t bits;
        std::memcpy(&bits, &value, 4);
        for (int i = 0; i < 4; ++i) to[i] = std::uint8_t(bits >> (8 * i));
    } else {
        putLeftAligned(leftAligned(from, fromForm), to, toForm);
    }
}

void convertFrames(const std::uint8_t* from, SampleForm fromForm, unsigned fromChannels, std::uint8_t* to,
                   SampleForm toForm, unsigned toChannels, std::size_t frames) {
    unsigned fromBytes = sampleBytes(fromForm), toBytes = sampleBytes(toForm);
    unsigned shared = fromChannels < toChannels ? fromChannels : toChannels;
    for (std::size_t f = 0; f < frames; ++f) {
        for (unsigned c = 0; c < shared; ++c)
            convertSample(from + c * fromBytes, fromForm, to + c * toBytes, toForm);
        std::memset(to + shared * toBytes, 0, (toChannels - shared) * toBytes);
        from += fromChannels * fromBytes;
        to += toChannels * toBytes;
    }
}

}  // namespace VELMORA

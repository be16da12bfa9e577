#include "HostSource.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <numbers>

namespace {

// Beyond this the source would not fit a 32-bit host comfortably.
constexpr std::uint64_t sourceLimitBytes = 1ull << 30;

std::uint32_t nextNoise(std::uint32_t& state) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
}

}  // namespace

unsigned HostSource::sampleBits(ASIOSampleType type) {
    switch (type) {
        case ASIOSTInt16LSB:
            return 16;
        case ASIOSTInt24LSB:
            return 24;
        case ASIOSTInt32LSB:
        case ASIOSTFloat32LSB:
            return 32;
        case ASIOSTFloat64LSB:
            return 64;
        case ASIOSTDSDInt8LSB1:
        case ASIOSTDSDInt8MSB1:
            return 1;
        default:
            return 0;
    }
}

const char* HostSource::typeName(ASIOSampleType type) {
    switch (type) {
        case ASIOSTInt16LSB:
            return "Int16LSB";
        case ASIOSTInt24LSB:
            return "Int24LSB";
        case ASIOSTInt32LSB:
            return "Int32LSB";
        case ASIOSTFloat32LSB:
            return "Float32LSB";
        case ASIOSTFloat64LSB:
            return "Float64LSB";
        case ASIOSTDSDInt8LSB1:
            return "DSDInt8LSB1";
        case ASIOSTDSDInt8MSB1:
            return "DSDInt8MSB1";
        default:
            return "other";
    }
}

bool HostSource::prepare(ASIOSampleType type, unsigned channels, std::uint64_t frames, std::string& error) {
    unsigned bits = sampleBits(type);
    if (bits == 0) {
        error =
            "the driver asks for sample type " + std::to_string(type) + ", which velmora-play doesn't write";
        return false;
    }
    sampleType = type;
    width = bits == 1 ? 1 : bits / 8;
    // DSD silence alternates its bits; the pattern depends on the bit order.
    silence = type == ASIOSTDSDInt8LSB1 ? 0x69 : type == ASIOSTDSDInt8MSB1 ? 0x96 : 0;
    length = bits == 1 ? frames / 8 : frames * width;
    if (length * channels > sourceLimitBytes) {
        error = "the source would take more than 1 GiB: play fewer seconds";
        return false;
    }
    channelData.assign(channels, std::vector<std::uint8_t>(length, silence));
    return true;
}

void HostSource::encode(double value, std::uint8_t* out) const {
    auto integer = [&](int bits) {
        double scale = std::ldexp(1.0, bits - 1);
        double rounded = std::clamp(std::nearbyint(value * scale), -scale, scale - 1);
        std::uint32_t raw = std::uint32_t(std::int32_t(std::int64_t(rounded)));
        for (int i = 0; i < bits / 8; ++i) out[i] = std::uint8_t(raw >> (8 * i));
    };
    switch (sampleType) {
        case ASIOSTFloat32LSB: {
            float single = float(value);
            std::memcpy(out, &single, 4);
            break;
        }
        case ASIOSTFloat64LSB:
            std::memcpy(out, &value, 8);
            break;
        default:
            integer(int(width * 8));
            break;
    }
}

bool HostSource::makeSignal(const SignalSpec& signal, ASIOSampleType type, unsigned channels, double rate,
                            std::uint64_t frames, std::string& error) {
    if (!prepare(type, channels, frames, error)) return false;
    std::uint32_t noise = 0x9E3779B9u;
    for (unsigned c = 0; c < channels; ++c) {
        std::uint8_t* out = channelData[c].data();
        // A phase of its own per channel: a swap of channels shows, and no
        // channel starts on a zero sample.
        double phase = (c + 1) * std::numbers::pi / 7;
        double step = 2 * std::numbers::pi * signal.frequency / rate;
        if (isDsd(type)) {
            // First-order sigma-delta of the sine at half scale.
            double integrator = 0;
            for (std::uint64_t byte = 0; byte < length; ++byte) {
                std::uint8_t packed = 0;
                for (int bit = 0; bit < 8; ++bit) {
                    std::uint64_t n = byte * 8 + std::uint64_t(bit);
                    double x = signal.kind == SignalSpec::sine ? 0.5 * std::sin(phase + step * double(n))
                                                               : (nextNoise(noise) & 1 ? 0.5 : -0.5);
                    bool one = integrator >= 0;
                    integrator += x - (one ? 1.0 : -1.0);
                    if (one) packed |= std::uint8_t(type == ASIOSTDSDInt8LSB1 ? 1u << bit : 0x80u >> bit);
                }
                out[byte] = packed;
            }
            continue;
        }
        for (std::uint64_t n = 0; n < frames; ++n, out += width) {
            if (signal.kind == SignalSpec::sine) {
                encode(0.5 * std::sin(phase + step * double(n)), out);
            } else {
                // Every bit pattern of the width, floats kept within [-1, 1).
                encode(std::int32_t(nextNoise(noise)) / 2147483648.0, out);
            }
        }
    }
    return true;
}

bool HostSource::fromWav(const WavData& wav, ASIOSampleType type, std::uint64_t frames, std::string& error) {
    if (isDsd(type)) {
        error = "a WAV file can't feed a DSD stream; use a generated signal";
        return false;
    }
    if (!prepare(type, wav.channels, std::min(frames, wav.frames()), error)) return false;
    for (unsigned c = 0; c < wav.channels; ++c) {
        std::uint8_t* out = channelData[c].data();
        for (std::uint64_t n = 0; n < length / width; ++n, out += width) encode(wav.sample(n, c), out);
    }
    return true;
}

void HostSource::fill(unsigned channel, std::uint64_t offset, std::uint8_t* out, std::uint32_t size) const {
    std::uint32_t part = offset >= length ? 0 : std::uint32_t(std::min<std::uint64_t>(size, length - offset));
    if (part != 0) std::memcpy(out, channelData[channel].data() + offset, part);
    if (part < size) std::memset(out + part, silence, size - part);
}

bool HostSource::writeGiven(const std::string& path, std::uint64_t bytesGiven, double rate,
                            std::string& error) const {
    WavData wav;
    wav.channels = std::uint16_t(channelData.size());
    wav.rate = std::uint32_t(rate);
    wav.bits = std::uint16_t(width * 8);
    wav.formatTag =
        sampleType == ASIOSTFloat32LSB || sampleType == ASIOSTFloat64LSB ? WavData::ieeeFloat : WavData::pcm;
    std::uint64_t samples = bytesGiven / width;
    wav.data.resize(samples * width * wav.channels);
    std::uint8_t* out = wav.data.data();
    for (std::uint64_t n = 0; n < samples; ++n) {
        for (unsigned c = 0; c < wav.channels; ++c, out += width) fill(c, n * width, out, width);
    }
    if (!isDsd(sampleType)) return writeWav(path, wav, error);
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(wav.data.data()), std::streamsize(wav.data.size()));
    if (!file) error = "can't write " + path;
    return bool(file);
}

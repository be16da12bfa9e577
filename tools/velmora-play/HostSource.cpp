#include "HostSource.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace {

// Beyond this the source would not fit a 32-bit host comfortably.
constexpr std::uint64_t sourceLimitBytes = 1ull << 30;
// A generated signal holds at most this much and repeats it: a minute of
// 768 kHz x 8 channels x 32 bits would take 1.5 GB.
constexpr std::uint64_t signalHeldBytes = 1ull << 28;

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

bool HostSource::prepare(ASIOSampleType type, unsigned channels, std::uint64_t frames, bool mayRepeat,
                         std::string& error) {
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
    std::uint64_t held = length;
    if (length * channels > (mayRepeat ? signalHeldBytes : sourceLimitBytes)) {
        if (!mayRepeat) {
            error = "the source would take more than 1 GiB: play fewer seconds";
            return false;
        }
        // Whole samples and whole DSD words, so that the repeat splits neither.
        held = signalHeldBytes / channels / (4 * width) * (4 * width);
    }
    channelData.assign(channels, std::vector<std::uint8_t>(held, silence));
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
    if (!prepare(type, channels, frames, true, error)) return false;
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
            for (std::uint64_t byte = 0; byte < channelData[c].size(); ++byte) {
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
        for (std::uint64_t n = 0; n < channelData[c].size() / width; ++n, out += width) {
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
    if (!prepare(type, wav.channels, std::min(frames, wav.frames()), false, error)) return false;
    for (unsigned c = 0; c < wav.channels; ++c) {
        std::uint8_t* out = channelData[c].data();
        for (std::uint64_t n = 0; n < length / width; ++n, out += width) encode(wav.sample(n, c), out);
    }
    return true;
}

void HostSource::fill(unsigned channel, std::uint64_t offset, std::uint8_t* out, std::uint32_t size) const {
    const std::vector<std::uint8_t>& held = channelData[channel];
    while (size != 0 && offset < length) {
        std::uint64_t at = offset % held.size();
        auto part = std::uint32_t(std::min({std::uint64_t(size), length - offset, held.size() - at}));
        std::memcpy(out, held.data() + at, part);
        out += part;
        offset += part;
        size -= part;
    }
    if (size != 0) std::memset(out, silence, size);
}

void HostSource::interleave(std::uint64_t offset, std::uint64_t size, std::uint8_t* out) const {
    unsigned group = groupBytes();
    for (std::uint64_t at = offset; at < offset + size; at += group) {
        for (unsigned c = 0; c < channelCount(); ++c, out += group) fill(c, at, out, group);
    }
}

bool HostSource::writeGiven(const std::string& path, std::uint64_t bytesGiven, double rate,
                            std::string& error) const {
    WavData wav;
    wav.channels = std::uint16_t(channelData.size());
    wav.rate = std::uint32_t(rate);
    wav.bits = std::uint16_t(isDsd(sampleType) ? 1 : width * 8);
    wav.formatTag =
        sampleType == ASIOSTFloat32LSB || sampleType == ASIOSTFloat64LSB ? WavData::ieeeFloat : WavData::pcm;
    std::uint64_t perChannel = bytesGiven / groupBytes() * groupBytes();
    wav.data.resize(perChannel * wav.channels);
    interleave(0, perChannel, wav.data.data());
    return writeWav(path, wav, error);
}

void HostSource::digest(std::uint64_t bytesGiven, VELMORA::StreamDigest& out) const {
    unsigned group = groupBytes();
    out.reset(group * channelCount(), silence);
    std::uint64_t end = std::min(bytesGiven, length) / group * group;
    std::uint64_t step = std::uint64_t(group) * 16384;
    std::vector<std::uint8_t> chunk(step * channelCount());
    for (std::uint64_t at = 0; at < end; at += step) {
        std::uint64_t size = std::min(step, end - at);
        interleave(at, size, chunk.data());
        out.feed(chunk.data(), size * channelCount());
    }
}

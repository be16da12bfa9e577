#include "WavFile.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

namespace {

std::uint32_t little(const std::uint8_t* bytes, int count) {
    std::uint32_t value = 0;
    for (int i = count - 1; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
}

void putLittle(std::vector<std::uint8_t>& out, std::uint32_t value, int count) {
    for (int i = 0; i < count; ++i) out.push_back(std::uint8_t(value >> (8 * i)));
}

}  // namespace

double WavData::sample(std::uint64_t frame, unsigned channel) const {
    unsigned width = (bits + 7u) / 8u;
    const std::uint8_t* at = data.data() + frame * frameBytes() + channel * width;
    if (formatTag == ieeeFloat) {
        if (width == 4) {
            float value;
            std::memcpy(&value, at, 4);
            return value;
        }
        double value;
        std::memcpy(&value, at, 8);
        return value;
    }
    if (width == 1) return (at[0] - 128) / 128.0;
    // Left-justify into 32 bits, so that every width has one scale.
    std::uint32_t raw = little(at, int(width)) << (32 - 8 * width);
    return std::int32_t(raw) / 2147483648.0;
}

bool WavData::readable(std::string& error) const {
    bool integer = formatTag == pcm && (bits == 8 || bits == 16 || bits == 24 || bits == 32);
    bool floating = formatTag == ieeeFloat && (bits == 32 || bits == 64);
    if (!integer && !floating) {
        error = "sample form not handled (format " + std::to_string(formatTag) + ", " + std::to_string(bits) +
                " bits): use integer PCM of 8 to 32 bits or float of 32 or 64";
        return false;
    }
    if (channels == 0 || rate == 0) {
        error = "no channels or no rate in the header";
        return false;
    }
    return true;
}

bool readWav(const std::string& path, WavData& wav, std::string& error) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = "can't open " + path;
        return false;
    }
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (bytes.size() < 12 || std::memcmp(bytes.data(), "RIFF", 4) != 0 ||
        std::memcmp(bytes.data() + 8, "WAVE", 4) != 0) {
        error = path + " is not a RIFF/WAVE file";
        return false;
    }
    bool haveFormat = false;
    std::size_t at = 12;
    while (at + 8 <= bytes.size()) {
        const std::uint8_t* chunk = bytes.data() + at;
        std::size_t size = little(chunk + 4, 4);
        std::size_t available = bytes.size() - at - 8;
        if (std::memcmp(chunk, "fmt ", 4) == 0 && size >= 16 && size <= available) {
            wav.formatTag = std::uint16_t(little(chunk + 8, 2));
            wav.channels = std::uint16_t(little(chunk + 10, 2));
            wav.rate = little(chunk + 12, 4);
            wav.bits = std::uint16_t(little(chunk + 22, 2));
            // WAVE_FORMAT_EXTENSIBLE names the real format in its sub-format.
            if (wav.formatTag == 0xFFFE && size >= 40) wav.formatTag = std::uint16_t(little(chunk + 32, 2));
            haveFormat = true;
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            if (!haveFormat) break;
            // A writer that never closed its file leaves the size unset.
            if (size == 0 || size > available) size = available;
            wav.data.assign(chunk + 8, chunk + 8 + size);
            std::size_t frame = wav.frameBytes();
            if (frame != 0) wav.data.resize(wav.data.size() - wav.data.size() % frame);
            return true;
        }
        at += 8 + size + (size & 1);
    }
    error = path + (haveFormat ? " has no data chunk" : " has no usable format chunk before its data");
    return false;
}

bool writeWav(const std::string& path, const WavData& wav, std::string& error) {
    std::vector<std::uint8_t> header;
    header.insert(header.end(), {'R', 'I', 'F', 'F'});
    putLittle(header, std::uint32_t(36 + wav.data.size()), 4);
    header.insert(header.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    putLittle(header, 16, 4);
    putLittle(header, wav.formatTag, 2);
    putLittle(header, wav.channels, 2);
    putLittle(header, wav.rate, 4);
    // Whole bytes per frame only: 1-bit DSD has none, as a sink writes it.
    std::uint32_t blockAlign = wav.channels * (wav.bits / 8u);
    putLittle(header, wav.rate * blockAlign, 4);
    putLittle(header, blockAlign, 2);
    putLittle(header, wav.bits, 2);
    header.insert(header.end(), {'d', 'a', 't', 'a'});
    putLittle(header, std::uint32_t(wav.data.size()), 4);
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(header.data()), std::streamsize(header.size()));
    file.write(reinterpret_cast<const char*>(wav.data.data()), std::streamsize(wav.data.size()));
    if (!file) {
        error = "can't write " + path;
        return false;
    }
    return true;
}

// WAV files as the player reads its input and writes what it gave the
// driver: integer PCM or IEEE float, plain or extensible header, the whole
// file in memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct WavData {
    static constexpr std::uint16_t pcm = 1;
    static constexpr std::uint16_t ieeeFloat = 3;

    std::uint16_t formatTag = pcm;
    std::uint16_t channels = 0;
    std::uint32_t rate = 0;
    std::uint16_t bits = 0;
    std::vector<std::uint8_t> data;  // interleaved frames, little-endian

    std::uint32_t frameBytes() const { return channels * ((bits + 7u) / 8u); }
    std::uint64_t frames() const { return frameBytes() == 0 ? 0 : data.size() / frameBytes(); }
    // One sample as a value in [-1, 1); integers convert exactly.
    double sample(std::uint64_t frame, unsigned channel) const;
    // False with `error` set where the player can't take the sample form.
    bool readable(std::string& error) const;
};

// False with `error` set if the file can't be read or isn't a WAV file.
bool readWav(const std::string& path, WavData& wav, std::string& error);
bool writeWav(const std::string& path, const WavData& wav, std::string& error);

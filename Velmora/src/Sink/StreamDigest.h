// A running fingerprint of an audio stream, so that two programs can tell
// whether one played exactly what the other handed over without keeping
// either stream: at 768 kHz x 8 x 32 bit a minute is 12 GB.
//
// Frames of pure silence before the first sound are counted, not hashed,
// since where the sound starts depends on the buffering in between. From
// the first frame that is not silence on, every byte goes into a 64-bit
// FNV-1a hash, and each `checkpointBytes` a checkpoint keeps the hash so
// far. Two streams agree up to the last checkpoint they have in common when
// that checkpoint's hash is the same on both sides.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace VELMORA {

class StreamDigest {
  public:
    static constexpr std::uint64_t checkpointBytes = std::uint64_t{1} << 18;
    struct Checkpoint {
        std::uint64_t bytes = 0;  // hashed so far, a multiple of checkpointBytes
        std::uint64_t hash = 0;
    };

    // `silence` is the byte of a silent frame: 0 for PCM, the idle pattern
    // for DSD (0x69 least significant bit first, 0x96 most).
    void reset(std::uint32_t frameBytes, std::uint8_t silence, std::size_t checkpointsReserved = 65536) {
        frame = frameBytes == 0 ? 1 : frameBytes;
        silent = silence;
        leadBytes = hashed = 0;
        hash = offsetBasis;
        sounding = false;
        points.clear();
        points.reserve(checkpointsReserved);
    }

    // Whole frames only; once the checkpoints reserved are full, the hash
    // goes on but no more are kept (nothing allocates on the way).
    void feed(const std::uint8_t* bytes, std::size_t size) {
        std::size_t at = 0;
        while (!sounding && at + frame <= size) {
            if (!isSilent(bytes + at)) {
                sounding = true;
                break;
            }
            at += frame;
            leadBytes += frame;
        }
        if (!sounding) return;
        for (; at < size; ++at) {
            hash = (hash ^ bytes[at]) * prime;
            if (++hashed % checkpointBytes == 0 && points.size() < points.capacity())
                points.push_back({hashed, hash});
        }
    }

    // Bytes of leading silence, and bytes hashed after them.
    std::uint64_t lead() const { return leadBytes; }
    std::uint64_t length() const { return hashed; }
    const std::vector<Checkpoint>& checkpoints() const { return points; }

    // {"leadFrames":..,"lead":..,"length":..,"checkpoints":[[bytes,"hash"],..]}
    std::string json(double bytesPerFrame) const {
        std::string out =
            "{\"leadFrames\":" + std::to_string(std::uint64_t(double(leadBytes) / bytesPerFrame)) +
            ",\"lead\":" + std::to_string(leadBytes) + ",\"length\":" + std::to_string(hashed) +
            ",\"checkpoints\":[";
        char hex[24];
        for (std::size_t i = 0; i < points.size(); ++i) {
            std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(points[i].hash));
            out += (i == 0 ? "[" : ",[") + std::to_string(points[i].bytes) + ",\"" + hex + "\"]";
        }
        return out + "]}";
    }

  private:
    static constexpr std::uint64_t offsetBasis = 0xcbf29ce484222325ull;
    static constexpr std::uint64_t prime = 0x100000001b3ull;

    bool isSilent(const std::uint8_t* at) const {
        for (std::uint32_t i = 0; i < frame; ++i) {
            if (at[i] != silent) return false;
        }
        return true;
    }

    std::uint32_t frame = 1;
    std::uint8_t silent = 0;
    std::uint64_t leadBytes = 0;
    std::uint64_t hashed = 0;
    std::uint64_t hash = offsetBasis;
    bool sounding = false;
    std::vector<Checkpoint> points;
};

}  // namespace VELMORA

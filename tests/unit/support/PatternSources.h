// Stream sources of a counted pattern that is never the silence byte, so that
// a sink's file shows where the audio lies and which byte went astray.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>

#include "Samples/SyncBuffer.h"

// Byte n of a test source.
inline std::uint8_t patternByte(std::uint64_t n) {
    return std::uint8_t(1 + n % 251);
}

// The stream worker's source: `sourceBytes` of the pattern in chunks that
// don't line up with packets, then a failure.
class PatternSync : public VELMORA::Sync {
  public:
    std::uint64_t sourceBytes = 0;
    std::atomic<std::uint64_t> given{0};

    ~PatternSync() override {
        connectState = idle;
        joinWorker();
    }
    bool getBuffer(VELMORA::StreamChunk& out) override {
        std::uint64_t at = given;
        if (at >= sourceBytes) return false;
        std::uint32_t size = std::uint32_t(std::min<std::uint64_t>(chunk.size(), sourceBytes - at));
        for (std::uint32_t i = 0; i < size; ++i) chunk[i] = patternByte(at + i);
        given = at + size;
        out = {chunk.data(), size};
        return true;
    }

  private:
    std::array<std::uint8_t, 1000> chunk{};
};

// The ring's source: each slot takes the pattern's next bytes.
class PatternBuffer : public VELMORA::SyncBuffer {
  public:
    std::uint64_t filled = 0;  // the buffer worker's alone until the end

    ~PatternBuffer() override { shutdown(); }
    void fillBuffer(VELMORA::StreamBuffer& slot, bool) override {
        for (std::uint64_t i = 0; i < slot.size; ++i) slot.data[i] = patternByte(filled + i);
        filled += slot.size;
    }
};

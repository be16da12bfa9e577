// The audio the player hands the driver, made before start in the sample
// type the driver asked for, one byte array per channel, so that the
// callbacks only copy.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Sink/StreamDigest.h"
#include "WavFile.h"
#include "asio/Asio.h"

struct SignalSpec {
    enum Kind { sine, noise };
    Kind kind = sine;
    double frequency = 997;
};

class HostSource {
  public:
    // Bits of one sample in the host's buffer; 0 for a type the player
    // doesn't write.
    static unsigned sampleBits(ASIOSampleType type);
    static bool isDsd(ASIOSampleType type) { return type == ASIOSTDSDInt8LSB1 || type == ASIOSTDSDInt8MSB1; }
    static const char* typeName(ASIOSampleType type);

    // `frames` per channel (single bits for DSD, a multiple of 8). False
    // with `error` set for a type the player can't write. A signal longer
    // than fits comfortably in memory repeats its first part.
    bool makeSignal(const SignalSpec& signal, ASIOSampleType type, unsigned channels, double rate,
                    std::uint64_t frames, std::string& error);
    // The first `frames` of the file, its channel c to the driver's channel c.
    bool fromWav(const WavData& wav, ASIOSampleType type, std::uint64_t frames, std::string& error);

    // Copies `size` bytes of `channel` from `offset` on; past the end of the
    // source, silence. Real-time safe.
    void fill(unsigned channel, std::uint64_t offset, std::uint8_t* out, std::uint32_t size) const;
    std::uint64_t bytesPerChannel() const { return length; }
    // Samples per channel in `bytes` of one channel.
    std::uint64_t framesIn(std::uint64_t bytes) const {
        return isDsd(sampleType) ? bytes * 8 : bytes / width;
    }
    unsigned channelCount() const { return unsigned(channelData.size()); }
    // Bytes of one channel that travel together: a sample, or for DSD a
    // 32-bit word, since the driver streams DSD in 32-bit words.
    unsigned groupBytes() const { return isDsd(sampleType) ? 4 : width; }

    // What the driver was given: the source up to `bytesGiven` per channel,
    // then silence, interleaved in groups as the stream carries them. DSD
    // gets the header a sink writes for it: 1 bit, the one-bit rate.
    bool writeGiven(const std::string& path, std::uint64_t bytesGiven, double rate, std::string& error) const;
    // The stream's fingerprint over the source up to `bytesGiven` per
    // channel, interleaved as written: the silence after the source is left
    // out, since a sink may not see all of it before the host stops.
    void digest(std::uint64_t bytesGiven, VELMORA::StreamDigest& out) const;

  private:
    bool prepare(ASIOSampleType type, unsigned channels, std::uint64_t frames, bool mayRepeat,
                 std::string& error);
    void encode(double value, std::uint8_t* out) const;
    // `size` bytes per channel from `offset` (both whole groups), interleaved.
    void interleave(std::uint64_t offset, std::uint64_t size, std::uint8_t* out) const;

    ASIOSampleType sampleType = ASIOSTInt32LSB;
    unsigned width = 0;  // bytes per sample; 1 byte per 8 samples for DSD
    std::uint8_t silence = 0;
    std::uint64_t length = 0;  // per channel; past what is held the held part repeats
    std::vector<std::vector<std::uint8_t>> channelData;
};

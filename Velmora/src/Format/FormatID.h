// The 64-bit format word of a stream.
//
// As a format, exactly one bit is set in each field that counts; the same
// layout serves as a sink's capability mask, where any number may be set.
//
// Low half: channels (0xFF), PCM sample form (0xFF00), DSD form (0xF0000),
// DSD bit order (0x100000 LSB first, 0x200000 MSB first), DSD word order
// (0x400000 little-endian, 0x800000 big-endian), DSD word size (0xFF000000,
// 0x02000000 being 32 bits). High half: base rate (0x7) and a power-of-two
// rate multiplier (0xFFF8).
#pragma once

#include <cstdint>

namespace VELMORA {

class FormatID {
  public:
    // Fields of the low half.
    static constexpr std::uint32_t channelMask = 0xFF;
    static constexpr std::uint32_t pcmMask = 0xFF00;
    static constexpr std::uint32_t dsdMask = 0xF0000;
    static constexpr std::uint32_t sampleMask = pcmMask | dsdMask;
    static constexpr std::uint32_t dsdOneBit = 0x10000;
    static constexpr std::uint32_t dsdFourBit = 0x20000;
    static constexpr std::uint32_t dsdLsbFirst = 0x100000;
    static constexpr std::uint32_t dsdMsbFirst = 0x200000;
    static constexpr std::uint32_t dsdLittleEndian = 0x400000;
    static constexpr std::uint32_t dsdBigEndian = 0x800000;
    static constexpr std::uint32_t wordSizeMask = 0xFF000000;
    static constexpr std::uint32_t dsdWord32 = 0x02000000;
    // Fields of the high half.
    static constexpr std::uint32_t base8000 = 0x1;
    static constexpr std::uint32_t base44100 = 0x2;
    static constexpr std::uint32_t base48000 = 0x4;
    static constexpr std::uint32_t baseMask = 0x7;
    static constexpr std::uint32_t multiplierMask = 0xFFF8;
    static constexpr std::uint32_t multiplierShift = 3;
    static constexpr std::uint32_t rateMask = baseMask | multiplierMask;

    std::uint64_t value = 0;

    constexpr FormatID() = default;
    constexpr FormatID(std::uint64_t word) : value(word) {}
    constexpr FormatID(std::uint32_t low, std::uint32_t high)
        : value((static_cast<std::uint64_t>(high) << 32) | low) {}

    constexpr std::uint32_t low() const { return static_cast<std::uint32_t>(value); }
    constexpr std::uint32_t high() const { return static_cast<std::uint32_t>(value >> 32); }
    constexpr bool operator==(const FormatID&) const = default;

    bool isPcm() const { return (low() & pcmMask) != 0; }
    bool isDsd() const { return (low() & dsdMask) != 0; }

    std::uint32_t bitsPerSample() const;
    std::uint32_t bytesPerSample() const;
    std::uint32_t channelCount() const;
    // Base rate times multiplier in Hz; 0 unless exactly one base bit and
    // exactly one multiplier bit are set.
    std::uint32_t rate() const;
    // The unit in which all audio sizes are counted.
    std::uint32_t frameBytes() const;
    // Bytes per second; 0 where the rate is 0 or the result needs more than
    // 32 bits, so that no plan can be made for it.
    std::uint32_t byteRate() const;
    // Accepts 8000, and 44100 or 48000 times 2^0..2^12; otherwise false and
    // the word is unchanged.
    bool setRate(std::uint32_t hz);
    // Writes whole fields: the channel byte if `low` has bits there, the
    // rest of the low half if `low` has bits above it, and the rate fields
    // if `high` has bits in its low 16.
    void replace(std::uint32_t low, std::uint32_t high);
    // The byte of silence: 0 for PCM, 0x69 for DSD LSB first, else 0x96.
    std::uint8_t muteByte() const;

    // Queries on a capability mask.
    std::uint32_t greatestBits() const;
    std::uint32_t greatestChannels() const;
    std::uint32_t leastMultiplier() const;
};

}  // namespace VELMORA

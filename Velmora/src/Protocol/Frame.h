// The frame that every message travels in: a 16-byte little-endian header
// (version, length, type, flags, four parameter words), then the body, then
// 0 to 7 pad bytes up to a multiple of 8.
#pragma once

#include <cstdint>

namespace VELMORA {

inline constexpr std::uint16_t protocolVersion = 100;
inline constexpr std::uint32_t headerSize = 16;
// On an answer: yes, or success.
inline constexpr std::uint16_t flagYes = 0x0001;
// Travels into the tag of the compact stream frames.
inline constexpr std::uint16_t flagTagHigh = 0x0020;

// The length field for a body of `bodySize` bytes: the frame size, rounded
// up to a multiple of 8, with the number of pad bytes in the low 3 bits.
constexpr std::uint16_t lengthFieldFor(std::uint32_t bodySize) {
    std::uint32_t rounded = (bodySize + 23) & 0xFFF8;
    return static_cast<std::uint16_t>(rounded | ((0u - bodySize) & 7));
}
constexpr std::uint32_t frameSizeOf(std::uint16_t length) {
    return length & 0xFFF8u;
}
// The body size that a length field gives; 0 for one that can't be.
constexpr std::uint32_t bodySizeOf(std::uint16_t length) {
    std::uint32_t used = (length & 7u) + headerSize;
    return frameSizeOf(length) > used ? frameSizeOf(length) - used : 0;
}

constexpr std::uint16_t readU16(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}
constexpr void writeU16(std::uint8_t* bytes, std::uint16_t value) {
    bytes[0] = static_cast<std::uint8_t>(value);
    bytes[1] = static_cast<std::uint8_t>(value >> 8);
}

// The header as it lies in the frame.
class FrameHeader {
  public:
    enum Offset : std::uint32_t {
        versionAt = 0,
        lengthAt = 2,
        typeAt = 4,
        flagsAt = 6,
        paramsAt = 8,
    };

    std::uint8_t bytes[headerSize] = {};

    // Version 100, length 16, everything else 0.
    FrameHeader() {
        writeU16(bytes + versionAt, protocolVersion);
        writeU16(bytes + lengthAt, headerSize);
    }

    std::uint16_t length() const { return readU16(bytes + lengthAt); }
    std::uint16_t type() const { return readU16(bytes + typeAt); }
    std::uint16_t flags() const { return readU16(bytes + flagsAt); }
    std::uint16_t param(int index) const { return readU16(bytes + paramsAt + 2 * index); }

    void setLength(std::uint16_t value) { writeU16(bytes + lengthAt, value); }
    void setFlags(std::uint16_t value) { writeU16(bytes + flagsAt, value); }
    void set(std::uint16_t type, std::uint16_t flags, std::uint16_t param0, std::uint16_t param1,
             std::uint16_t param2, std::uint16_t param3);
    // The four parameter words as one little-endian value, param0 lowest.
    void set(std::uint16_t type, std::uint16_t flags, std::uint64_t value);

    // The one-byte tag of the compact stream frames: param0's low 7 bits,
    // and bit 7 from flagTagHigh.
    std::uint8_t tag() const {
        return static_cast<std::uint8_t>((param(0) & 0x7F) | ((flags() & flagTagHigh) != 0 ? 0x80 : 0));
    }
};

// The header operations that every message under construction offers.
class Message {
  public:
    // The message's working header; finish() writes it out.
    FrameHeader header;

    Message() = default;
    virtual ~Message() = default;
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    // Writes the header into the frame as it is to be sent.
    virtual void finish() = 0;

    void setHeader(std::uint16_t type, std::uint16_t flags, std::uint16_t param0, std::uint16_t param1,
                   std::uint16_t param2, std::uint16_t param3) {
        header.set(type, flags, param0, param1, param2, param3);
    }
    void setHeader(std::uint16_t type, std::uint16_t flags, std::uint64_t value) {
        header.set(type, flags, value);
    }
    void setHeader(std::uint16_t type, std::uint16_t flags) { header.set(type, flags, 0, 0, 0, 0); }
    // flags = (flags & ~mask) | bits, then finish().
    void setFlags(std::uint16_t mask, std::uint16_t bits) {
        header.setFlags(static_cast<std::uint16_t>((header.flags() & ~mask) | bits));
        finish();
    }
};

}  // namespace VELMORA

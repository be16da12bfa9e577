// The format most tests stream, and DSD's other bit order.
#pragma once

#include <cstdint>

#include "Format/FormatID.h"

// Stereo, 32-bit signed, 48 kHz (8-byte frames).
inline const VELMORA::FormatID stereoS32At48k(0x802u, 0x000Cu);

// The byte with its bits in reverse order, bit by bit.
inline std::uint8_t reversedBits(std::uint8_t byte) {
    std::uint8_t out = 0;
    for (int bit = 0; bit < 8; ++bit) out |= std::uint8_t(((byte >> bit) & 1) << (7 - bit));
    return out;
}

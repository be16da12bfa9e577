// CRC-16/USB: polynomial 0x8005 reflected (0xA001), initial value 0xFFFF,
// result inverted. Slot images and identity texts carry it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VELMORA {

// The CRC of `size` bytes. To run over several pieces, pass the previous
// result as `crc`: the inversion is undone on entry and redone on return.
std::uint16_t crc16(const void* data, std::size_t size, std::uint16_t crc = 0);

}  // namespace VELMORA

#include "Protocol/Crc16.h"

#include <array>

namespace VELMORA {

namespace {

constexpr std::array<std::uint16_t, 256> makeTable() {
    std::array<std::uint16_t, 256> table{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint16_t value = std::uint16_t(byte);
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1) != 0 ? std::uint16_t((value >> 1) ^ 0xA001) : value >> 1;
        table[byte] = value;
    }
    return table;
}

constexpr std::array<std::uint16_t, 256> table = makeTable();

}  // namespace

std::uint16_t crc16(const void* data, std::size_t size, std::uint16_t crc) {
    // A fresh start is 0 inverted, that is 0xFFFF.
    std::uint16_t value = std::uint16_t(~crc);
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    for (std::size_t i = 0; i < size; ++i)
        value = std::uint16_t((value >> 8) ^ table[(value ^ bytes[i]) & 0xFF]);
    return std::uint16_t(~value);
}

}  // namespace VELMORA

#include "Network/ByteArray.h"

#include <cstring>

namespace NORVA {

bool ByteArray::resize(std::size_t size) {
    bool moved = reserve(size);
    used = size;
    return moved;
}

bool ByteArray::reserve(std::size_t size) {
    if (size <= capacity) return false;
    std::unique_ptr<std::uint8_t[]> grown(new std::uint8_t[size]());
    if (used != 0) std::memcpy(grown.get(), bytes.get(), used);
    bytes = std::move(grown);
    capacity = size;
    return true;
}

}  // namespace NORVA

// A view of constant bytes that someone else owns, passed by value.
#pragma once

#include <cstdint>

namespace NORVA {

struct BufferCS_const {
    const std::uint8_t* data = nullptr;
    std::uint32_t size = 0;
};

}  // namespace NORVA

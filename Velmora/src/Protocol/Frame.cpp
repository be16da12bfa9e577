#include "Protocol/Frame.h"

namespace VELMORA {

void FrameHeader::set(std::uint16_t type, std::uint16_t flags, std::uint16_t param0, std::uint16_t param1,
                      std::uint16_t param2, std::uint16_t param3) {
    writeU16(bytes + typeAt, type);
    writeU16(bytes + flagsAt, flags);
    writeU16(bytes + paramsAt, param0);
    writeU16(bytes + paramsAt + 2, param1);
    writeU16(bytes + paramsAt + 4, param2);
    writeU16(bytes + paramsAt + 6, param3);
}

void FrameHeader::set(std::uint16_t type, std::uint16_t flags, std::uint64_t value) {
    set(type, flags, static_cast<std::uint16_t>(value), static_cast<std::uint16_t>(value >> 16),
        static_cast<std::uint16_t>(value >> 32), static_cast<std::uint16_t>(value >> 48));
}

}  // namespace VELMORA

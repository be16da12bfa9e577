#include "Protocol/Receive.h"

#include <algorithm>
#include <cstring>

namespace VELMORA {

namespace {

constexpr std::uint32_t addressBodySize = 18;  // 16 address bytes and the port

}  // namespace

void bodyTextOf(const std::uint8_t* body, std::uint32_t size, std::string& out) {
    out.assign(reinterpret_cast<const char*>(body), size);
}

void bodyTextListOf(const std::uint8_t* body, std::uint32_t size, std::vector<std::string>& out) {
    out.assign(1, std::string());
    for (std::uint32_t i = 0; i < size; ++i) {
        if (body[i] == 0) {
            out.emplace_back();
        } else {
            out.back().push_back(static_cast<char>(body[i]));
        }
    }
}

void bodyAddressAndTextOf(const std::uint8_t* body, std::uint32_t size, NORVA::IPAddress& address,
                          std::string& text) {
    text.clear();
    if (size < addressBodySize) return;
    address.setBytes(body);
    std::memcpy(&address.portNetworkOrder, body + 16, 2);
    text.assign(reinterpret_cast<const char*>(body + addressBodySize), size - addressBodySize);
}

bool Receive::isValid() const {
    return size >= headerSize && version() == protocolVersion && frameSizeOf(length()) <= size;
}

std::uint64_t Receive::paramU64() const {
    return std::uint64_t{param0()} | std::uint64_t{param1()} << 16 | std::uint64_t{param2()} << 32 |
           std::uint64_t{param3()} << 48;
}

std::uint32_t Receive::bodySize() const {
    if (size <= headerSize) return 0;
    return std::min(bodySizeOf(length()), size - headerSize);
}

}  // namespace VELMORA

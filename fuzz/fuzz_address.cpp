// The address forms of settings files and command lines: an address alone,
// and an address with its port after a comma.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Network/IPAddress.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    NORVA::IPAddress address;
    if (address.parseV6(text)) (void)address.toString();
    NORVA::IPAddress withPort;
    if (withPort.parseV6Port(text)) (void)withPort.toStringPort();
    return 0;
}

#include "Network/RawReceiver.h"

#include <cstring>

#include "Network/Interfaces.h"
#include "Platform/PacketLibrary.h"
#include "System/Log.h"

namespace NORVA {

RawReceiver::~RawReceiver() {
    close();
}

bool RawReceiver::open(const std::string& interfaceName, std::uint16_t etherType) {
    close();
    InterfaceMap addresses;
    getMyLocalAddresV6(addresses, false);
    bool found = false;
    for (const auto& [address, info] : addresses) {
        if (info.adapterName != interfaceName) continue;
        std::memcpy(mac, info.mac, sizeof mac);
        found = true;
        break;
    }
    if (!found) {
        LogLine(3) << "raw frames: no link-local address on " << interfaceName;
        return false;
    }
    int error = 0;
    handle = Platform::packetSocketOpen(interfaceName.c_str(), etherType, error);
    if (handle == Platform::noSocket) {
        lastError = error;
        LogLine(3) << "raw frames: no packet socket on " << interfaceName << ", error " << error;
        return false;
    }
    return true;
}

void RawReceiver::close() {
    Platform::packetSocketClose(handle);
    handle = Platform::noSocket;
}

bool RawReceiver::receiveFrame(std::uint8_t* data, std::size_t size, std::size_t& received) {
    received = 0;
    int error = 0;
    std::int64_t got = Platform::packetSocketReceive(handle, data, size, error);
    if (got < 0) {
        lastError = error;
        return false;
    }
    received = static_cast<std::size_t>(got);
    return true;
}

}  // namespace NORVA

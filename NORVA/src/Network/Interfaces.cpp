#include "Network/Interfaces.h"

#include <cstring>
#include <vector>

#include "Platform/Platform.h"

namespace NORVA {

namespace {

IPAddress keyOf(const Platform::AdapterAddress& record) {
    IPAddress key;
    key.setBytes(record.address);
    key.setScope(record.interfaceIndex & 0xFFFF);
    return key;
}

bool enumerate(bool ipv6, InterfaceMap& map) {
    map.clear();
    std::vector<Platform::AdapterAddress> records;
    if (!Platform::listAdapterAddresses(ipv6, records)) return false;
    for (const Platform::AdapterAddress& record : records) {
        InterfaceInfo& info = map[keyOf(record)];
        info.friendlyName = record.friendlyName;
        info.description = record.description;
        if (ipv6) {
            info.adapterName = record.adapterName;
            info.mtu = record.mtu;
            std::memcpy(info.mac, record.mac, 6);
        }
    }
    return true;
}

}  // namespace

bool enumerateV6(InterfaceMap& map) {
    return enumerate(true, map);
}

bool enumerateV4(InterfaceMap& map) {
    return enumerate(false, map);
}

bool getMyLocalAddresV6(InterfaceMap& map, bool includeLoopback) {
    if (!enumerateV6(map)) return false;
    std::erase_if(map, [includeLoopback](const auto& entry) {
        const IPAddress& address = entry.first;
        return !address.isLinkLocal() && !(includeLoopback && address.isLoopback());
    });
    return true;
}

std::uint32_t firstLinkLocalScope() {
    InterfaceMap map;
    if (!getMyLocalAddresV6(map, false) || map.empty()) return 0;
    return map.begin()->first.scope();
}

}  // namespace NORVA

#include "Network/Interfaces.h"

#include <cstring>
#include <vector>

#include "Platform/Platform.h"

namespace NORVA {

bool enumerateV6(InterfaceMap& map) {
    map.clear();
    std::vector<Platform::AdapterAddress> records;
    if (!Platform::listAdapterAddresses(records)) return false;
    for (const Platform::AdapterAddress& record : records) {
        IPAddress key;
        key.setBytes(record.address);
        key.setScope(record.interfaceIndex & 0xFFFF);
        InterfaceInfo& info = map[key];
        info.friendlyName = record.friendlyName;
        info.description = record.description;
        info.adapterName = record.adapterName;
        info.mtu = record.mtu;
        std::memcpy(info.mac, record.mac, 6);
    }
    return true;
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

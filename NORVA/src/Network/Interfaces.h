// The local network interfaces: one record per address of each adapter.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Network/IPAddress.h"

namespace NORVA {

struct InterfaceInfo {
    std::string friendlyName;  // UTF-8
    std::string description;   // UTF-8
    std::string adapterName;   // as the system gives it
    std::uint32_t mtu = 0;     // IP MTU in bytes
    std::uint8_t mac[6] = {};
};

// Key: the address with port 0 and the low 16 bits of the interface index as
// scope. Ordered by IPAddress::compare.
using InterfaceMap = std::map<IPAddress, InterfaceInfo>;

// Every IPv6 address of every adapter. False (and an empty map) if the
// system's list can't be read.
bool enumerateV6(InterfaceMap& map);
// The IPv4 addresses in mapped form; only the two names are filled.
bool enumerateV4(InterfaceMap& map);
// The link-local (fe80) addresses, and ::1 if `includeLoopback`. An empty
// result is still a success.
bool getMyLocalAddresV6(InterfaceMap& map, bool includeLoopback);
// The scope of the first link-local address in map order; 0 if none.
std::uint32_t firstLinkLocalScope();

}  // namespace NORVA

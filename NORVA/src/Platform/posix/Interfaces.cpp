// Interface enumeration on Linux: getifaddrs gives the addresses, the index
// and (in its AF_PACKET entries) the hardware address; SIOCGIFMTU the MTU.
// Linux has no separate friendly name or description, so all three names are
// the interface's name.
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>

#include "Platform/NativeSocketAddress.h"

namespace NORVA::Platform {

namespace {

std::uint32_t interfaceMtu(int probe, const char* name) {
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    if (probe < 0 || ioctl(probe, SIOCGIFMTU, &request) != 0) return 0;
    return std::uint32_t(request.ifr_mtu);
}

// Hardware addresses by interface name, from the AF_PACKET entries.
std::map<std::string, std::array<std::uint8_t, 6>> hardwareAddresses(const ifaddrs* list) {
    std::map<std::string, std::array<std::uint8_t, 6>> macs;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_PACKET) continue;
        const auto* link = reinterpret_cast<const sockaddr_ll*>(entry->ifa_addr);
        std::array<std::uint8_t, 6> mac{};
        std::memcpy(mac.data(), link->sll_addr, std::min<std::size_t>(link->sll_halen, 6));
        macs[entry->ifa_name] = mac;
    }
    return macs;
}

}  // namespace

bool listAdapterAddresses(bool ipv6, std::vector<AdapterAddress>& out) {
    out.clear();
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;

    auto macs = hardwareAddresses(list);
    int probe = socket(AF_INET, SOCK_DGRAM, 0);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        AdapterAddress record{};
        if (entry->ifa_addr == nullptr || !addressBytes(entry->ifa_addr, ipv6, record.address)) continue;
        record.interfaceIndex = if_nametoindex(entry->ifa_name);
        record.friendlyName = record.description = record.adapterName = entry->ifa_name;
        record.mtu = interfaceMtu(probe, entry->ifa_name);
        auto mac = macs.find(entry->ifa_name);
        if (mac != macs.end()) std::memcpy(record.mac, mac->second.data(), 6);
        out.push_back(std::move(record));
    }
    if (probe >= 0) close(probe);
    freeifaddrs(list);
    return true;
}

}  // namespace NORVA::Platform

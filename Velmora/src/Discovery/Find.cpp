#include "Discovery/Find.h"

#include <algorithm>

#include "Network/Interfaces.h"
#include "Protocol/MessageTypes.h"
#include "System/Log.h"

namespace VELMORA {

Find::Find(const FindSettings& findSettings) : settings(findSettings) {}

Find::Find(const FindSettings& findSettings, NORVA::UDPV6& shared)
    : Connection(shared), settings(findSettings) {}

// ---- open ----------------------------------------------------------------------

bool Find::open() {
    return open(std::vector<NORVA::IPAddress>());
}

bool Find::open(const NORVA::IPAddress& address) {
    if (address.isAnyNoPort()) return open();
    return open(std::vector<NORVA::IPAddress>{address});
}

namespace {

// The link-local addresses, and ::1 if asked for, in the map's order.
bool listLinkAddresses(NORVA::InterfaceMap& map, bool withLoopback) {
    if (NORVA::getMyLocalAddresV6(map, withLoopback)) return true;
    NORVA::LogLine(3) << "error getMyLocalAddresV6 Find::open";
    return false;
}

}  // namespace

bool Find::open(std::uint16_t interfaceNumber) {
    if (interfaceNumber == 0) return open();
    NORVA::InterfaceMap map;
    if (!listLinkAddresses(map, settings.withLoopback)) return false;
    std::vector<NORVA::IPAddress> addresses;
    for (const auto& entry : map) {
        const NORVA::IPAddress& address = entry.first;
        if (settings.withLoopback && address.isLoopback()) addresses.push_back(address);
        if (address.scope() == interfaceNumber) addresses.push_back(address);
    }
    if (addresses.empty()) return false;
    return open(addresses);
}

bool Find::open(const std::vector<std::string>& interfaceNames) {
    NORVA::InterfaceMap map;
    if (!listLinkAddresses(map, settings.withLoopback)) return false;
    std::vector<NORVA::IPAddress> addresses;
    for (const std::string& name : interfaceNames) {
        if (name.empty()) continue;
        auto match = std::find_if(map.begin(), map.end(),
                                  [&name](const auto& entry) { return entry.second.friendlyName == name; });
        if (match == map.end()) {
            NORVA::LogLine(3) << "not much interface " << name;
            return false;
        }
        addresses.push_back(match->first);
        NORVA::LogLine(6) << "much interface " << name << " " << match->first.toString()
                          << " ifno:" << match->first.scope();
    }
    return open(addresses);
}

bool Find::open(const std::vector<NORVA::IPAddress>& addresses) {
    NORVA::LogLine(6) << "Velmora Find Library ReleaseNo : " << releaseNumber;
    close();
    for (const NORVA::IPAddress& address : addresses) {
        LocalAddressEntry entry;
        entry.address = address;
        entry.mtu = 1500;
        localAddresses.push_back(entry);
    }
    // A link-local address means nothing without its interface.
    std::erase_if(localAddresses, [](const LocalAddressEntry& entry) { return entry.address.scope() == 0; });
    NORVA::IPAddress any;
    return Connection::open(any);
}

// ---- exchanges -----------------------------------------------------------------

bool Find::ask(const NORVA::IPAddress& to, ConnectionBuffer& request, ConnectionBuffer& answer) {
    return sendAck(request, to, awaitedAnswer(request.header.type()), answer, ackTimeout);
}

bool Find::ask(const NORVA::IPAddress& to, std::uint16_t type, std::uint16_t param0, std::uint16_t param1,
               std::uint16_t param2, std::uint16_t param3, ConnectionBuffer& answer) {
    ConnectionBuffer request(*socket, to, type, param0, param1, param2, param3);
    return ask(to, request, answer);
}

std::uint64_t Find::acceptTarget(std::uint64_t id) {
    if (settings.filterId == anyProductId || id == anyProductId) {
        NORVA::LogLine(6) << "Find Target: " << id;
        return id;
    }
    if (id == settings.filterId ||
        std::find(settings.furtherIds.begin(), settings.furtherIds.end(), id) != settings.furtherIds.end()) {
        NORVA::LogLine(7) << "Terget Producst : " << id;
        return id;
    }
    NORVA::LogLine(7) << "Find Skip : " << id;
    return noProductId;
}

// The target answers NOPBREAK_REQ with a type that this wait doesn't take,
// so the exchange always runs its three tries: only the socket can fail it.
bool Find::breakNop(const NORVA::IPAddress& address) {
    ConnectionBuffer answer(*socket);
    return ask(address, MessageType::NOPBREAK_REQ, 0, 0, 0, 0, answer);
}

bool Find::breakNopIfSet(const NORVA::IPAddress& address) {
    return !settings.nopBreak || breakNop(address);
}

}  // namespace VELMORA

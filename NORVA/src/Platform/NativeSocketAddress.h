// What Winsock and BSD sockets share: the layout of the socket address
// records, and the levels and names of the plain integer socket options.
// Included by each system's socket and interface code after its own socket
// headers.
#pragma once

#include <cstdint>
#include <cstring>

#include "Platform/Platform.h"

namespace NORVA::Platform {

inline sockaddr_in6 toNative(const SocketAddress6& address) {
    sockaddr_in6 native{};
    native.sin6_family = AF_INET6;
    native.sin6_port = address.portNetworkOrder;
    std::memcpy(&native.sin6_addr, address.bytes, 16);
    native.sin6_scope_id = address.scope;
    return native;
}

// Every socket is IPv6: a record of another family gives the empty address.
inline void fromNative(const sockaddr_storage& native, SocketAddress6& address) {
    address = SocketAddress6{};
    if (native.ss_family != AF_INET6) return;
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(native);
    std::memcpy(address.bytes, &v6.sin6_addr, 16);
    address.portNetworkOrder = v6.sin6_port;
    address.scope = v6.sin6_scope_id;
}

// The 16 address bytes of an IPv6 interface address; false for another family.
inline bool addressBytes(const sockaddr* address, std::uint8_t (&bytes)[16]) {
    if (address->sa_family != AF_INET6) return false;
    std::memcpy(bytes, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, 16);
    return true;
}

// The options that both systems set as one integer at the same level and
// name; false for those each system sets its own way.
inline bool plainOption(SocketOption option, int& level, int& name) {
    struct Plain {
        SocketOption option;
        int level;
        int name;
    };
    static constexpr Plain plain[] = {
        {SocketOption::reuseAddress, SOL_SOCKET, SO_REUSEADDR},
        {SocketOption::v6Only, IPPROTO_IPV6, IPV6_V6ONLY},
        {SocketOption::multicastInterface, IPPROTO_IPV6, IPV6_MULTICAST_IF},
        {SocketOption::multicastLoop, IPPROTO_IPV6, IPV6_MULTICAST_LOOP},
        {SocketOption::multicastHops, IPPROTO_IPV6, IPV6_MULTICAST_HOPS},
        {SocketOption::receiveBufferSize, SOL_SOCKET, SO_RCVBUF},
        {SocketOption::sendBufferSize, SOL_SOCKET, SO_SNDBUF},
    };
    for (const Plain& entry : plain) {
        if (entry.option != option) continue;
        level = entry.level;
        name = entry.name;
        return true;
    }
    return false;
}

}  // namespace NORVA::Platform

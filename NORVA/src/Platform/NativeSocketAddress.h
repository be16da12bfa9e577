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

// The record of an IPv4 socket: the last four bytes of the mapped form.
inline sockaddr_in toNative4(const SocketAddress6& address) {
    sockaddr_in native{};
    native.sin_family = AF_INET;
    native.sin_port = address.portNetworkOrder;
    std::memcpy(&native.sin_addr, address.bytes + 12, 4);
    return native;
}

// IPv4 senders are given in the mapped form ::ffff:a.b.c.d.
inline void fromNative(const sockaddr_storage& native, SocketAddress6& address) {
    address = SocketAddress6{};
    if (native.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(native);
        std::memcpy(address.bytes, &v6.sin6_addr, 16);
        address.portNetworkOrder = v6.sin6_port;
        address.scope = v6.sin6_scope_id;
    } else if (native.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(native);
        address.bytes[10] = 0xff;
        address.bytes[11] = 0xff;
        std::memcpy(address.bytes + 12, &v4.sin_addr, 4);
        address.portNetworkOrder = v4.sin_port;
    }
}

// The 16 address bytes of an interface address of the family asked for;
// IPv4 in the mapped form.
inline bool addressBytes(const sockaddr* address, bool ipv6, std::uint8_t (&bytes)[16]) {
    if (ipv6 && address->sa_family == AF_INET6) {
        std::memcpy(bytes, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, 16);
        return true;
    }
    if (!ipv6 && address->sa_family == AF_INET) {
        std::memset(bytes, 0, 10);
        bytes[10] = bytes[11] = 0xff;
        std::memcpy(bytes + 12, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, 4);
        return true;
    }
    return false;
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
        {SocketOption::broadcast, SOL_SOCKET, SO_BROADCAST},
        {SocketOption::noDelay, IPPROTO_TCP, TCP_NODELAY},
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

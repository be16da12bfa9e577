// Conversions between SocketAddress6 and the system's socket address
// records, whose layout Winsock and BSD sockets share. Included by each
// system's Sockets.cpp after its own socket headers.
#pragma once

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

}  // namespace NORVA::Platform

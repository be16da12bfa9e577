// Conversions between an address of the system and the platform's IPv6
// socket address record.
#pragma once

#include "Network/IPAddress.h"
#include "Platform/Platform.h"

namespace NORVA {

inline Platform::SocketAddress6 socketAddressOf(const IPAddress& address) {
    Platform::SocketAddress6 record{};
    address.copyBytes(record.bytes);
    record.portNetworkOrder = address.portNetworkOrder;
    record.scope = address.scope();
    return record;
}

inline IPAddress addressOf(const Platform::SocketAddress6& record) {
    IPAddress address;
    address.setBytes(record.bytes);
    address.portNetworkOrder = record.portNetworkOrder;
    address.setScope(record.scope);
    return address;
}

}  // namespace NORVA

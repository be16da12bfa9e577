#include "Network/EthernetBuffer.h"

#include "Network/SocketAddress.h"

namespace NORVA {

bool UDPV6EBuffer::resize(std::uint32_t newLength, std::uint32_t newHead) {
    bool made = storage == nullptr;
    if (made) storage = std::make_unique<ByteArray>();
    std::uint32_t total = newLength + newHead;
    bool moved = storage->resize(total) || made;
    data = storage->data();
    capacity = total;
    head = newHead;
    length = newLength;
    return moved;
}

Platform::SocketAddress6& UDPV6EBuffer::peerRecordToFill() {
    if (peer == nullptr) peer = std::make_unique<Platform::SocketAddress6>();
    return *peer;
}

void UDPV6EBuffer::setPeer(const IPAddress& address) {
    peerRecordToFill() = socketAddressOf(address);
}

void UDPV6EBuffer::setPeerScope(std::uint16_t scope) {
    peerRecordToFill().scope = scope;
}

}  // namespace NORVA

// The receiving end of the raw frame path, for a target: the frames of one
// ether type that reach one interface, from a packet socket. It is a Socket
// so that a SocketSet waits on it beside the target's datagram sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Network/Socket.h"

namespace NORVA {

class RawReceiver : public Socket {
  public:
    // The interface's own MAC address, once open.
    std::uint8_t mac[6] = {};

    RawReceiver() { kind = raw; }
    ~RawReceiver();

    // Logs why it fails: no such interface, no link-local address on it (so
    // no MAC address to give a host), or no packet socket (rights, system).
    bool open(const std::string& interfaceName, std::uint16_t etherType);
    void close();

    // One frame, from its destination MAC address on, into `data`; `received`
    // is 0 when nothing is there. False on a failure of the socket.
    bool receiveFrame(std::uint8_t* data, std::size_t size, std::size_t& received);
};

}  // namespace NORVA

// A Target on ports of the system's choice on [::1], and a local peer that talks to its sockets.
#pragma once

#include <cstdint>
#include <string>

#include "Discovery/Target.h"
#include "Network/ByteArray.h"
#include "Network/Socket.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Receive.h"
#include "Protocol/Send.h"
#include "System/Threads.h"

inline VELMORA::TargetConfig testConfig() {
    VELMORA::TargetConfig config;
    config.ports = VELMORA::TargetPorts{0, 0, 0, 0};
    config.allowLoopback = true;
    config.idleWithoutSynchro = false;
    config.productId = 0x454E415254534B45ull;
    config.name = "test target";
    return config;
}

class TargetPeer {
  public:
    NORVA::UDPV6 socket;
    NORVA::IPAddress local = NORVA::IPAddress::loopback(0);
    NORVA::ByteArray datagram;

    TargetPeer() {
        if (socket.openNonBlocking()) socket.bind(local);
    }
    void send(VELMORA::Send& message, std::uint16_t to) {
        message.finish();
        socket.sendTo(NORVA::IPAddress::loopback(to), false, message.bytes.data, message.bytes.size);
    }
    // The next datagram, within a bound that only a broken target reaches.
    bool receive(VELMORA::Receive& out) {
        NORVA::IPAddress from;
        if (socket.waitReadable(NORVA::TimeValue::fromSeconds(3)) != 2 || !socket.receiveFrom(datagram, from))
            return false;
        out = VELMORA::Receive(datagram.data(), static_cast<std::uint32_t>(datagram.size()));
        return true;
    }
    VELMORA::Receive ask(VELMORA::Send& message, std::uint16_t to) {
        send(message, to);
        VELMORA::Receive answer;
        receive(answer);
        return answer;
    }
    VELMORA::Receive ask(std::uint16_t type, std::uint16_t to, std::uint16_t p0 = 0, std::uint16_t p1 = 0,
                         std::uint16_t p2 = 0, std::uint16_t p3 = 0) {
        VELMORA::Send message(type, 0, p0, p1, p2, p3);
        return ask(message, to);
    }
    static std::string body(const VELMORA::Receive& frame) {
        std::string text;
        frame.bodyText(text);
        return text;
    }
};

// A Target opened on the loopback address only.
template <class T = VELMORA::Target>
struct OpenTarget {
    T target;
    bool opened = target.open(NORVA::IPAddress::loopback(0), true);
    explicit OpenTarget(const VELMORA::TargetConfig& config = testConfig()) : target(config) {}
    ~OpenTarget() { target.close(); }
    std::uint16_t control() const { return target.boundPorts().control; }
    std::uint16_t registration() const { return target.boundPorts().registration; }
};

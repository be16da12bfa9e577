// A relay to [::1]:TARGET_PORT that drops the client's datagrams of
// DROP_SIZE bytes (the test machines may have no packet filter); answers go
// back to whoever sent last. Runs until killed.
//
//     find_netns_relay LISTEN_PORT TARGET_PORT DROP_SIZE
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Network/ByteArray.h"
#include "Network/Socket.h"
#include "Network/SocketSet.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: find_netns_relay LISTEN_PORT TARGET_PORT DROP_SIZE\n");
        return 2;
    }
    auto listenPort = static_cast<std::uint16_t>(std::atoi(argv[1]));
    NORVA::IPAddress target = NORVA::IPAddress::loopback(static_cast<std::uint16_t>(std::atoi(argv[2])));
    std::size_t dropSize = std::strtoul(argv[3], nullptr, 10);

    NORVA::UDPV6 outside, inside;
    NORVA::IPAddress any, local = NORVA::IPAddress::loopback(0);
    any.setPort(listenPort);
    outside.receiveSize = inside.receiveSize = 70000;
    if (!outside.openNonBlocking() || !outside.bind(any) || !inside.openNonBlocking() ||
        !inside.bind(local)) {
        std::fprintf(stderr, "find_netns_relay: can't bind port %u\n", listenPort);
        return 1;
    }
    NORVA::SocketSet sockets;
    sockets.add(outside);
    sockets.add(inside);
    NORVA::ByteArray datagram;
    NORVA::IPAddress client;
    unsigned dropped = 0;
    for (;;) {
        int ready = sockets.wait(NORVA::TimeValue::fromSeconds(1));
        if (ready == 0) return 1;
        if (ready == 1) continue;
        NORVA::IPAddress source;
        if (sockets.isReady(outside) && outside.receiveFrom(datagram, source) && !datagram.empty()) {
            client = source;
            if (datagram.size() == dropSize) {
                std::fprintf(stderr, "find_netns_relay: dropped datagram %u of %zu bytes\n", ++dropped,
                             dropSize);
            } else {
                inside.sendTo(target, true, datagram.data(), datagram.size());
            }
        }
        if (sockets.isReady(inside) && inside.receiveFrom(datagram, source) && !datagram.empty())
            outside.sendTo(client, true, datagram.data(), datagram.size());
    }
}

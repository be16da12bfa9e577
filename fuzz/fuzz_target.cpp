// The responder: one datagram on its control, registration or log port, as
// its loop takes it. The first byte picks the port and the sender (a host on
// the link, or a local program); the rest is the datagram. The target isn't
// opened: its answers fail to send, which it logs and survives.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Discovery/Target.h"
#include "Network/ByteArray.h"
#include "Network/IPAddress.h"

namespace {

VELMORA::TargetConfig fuzzConfig() {
    VELMORA::TargetConfig config;
    config.ports = VELMORA::TargetPorts{0, 0, 0, 0};
    config.allowLoopback = true;
    config.idleWithoutSynchro = false;
    config.name = "fuzz target";
    config.slotCount = 2;
    config.slots[0] = 63;
    config.slots[1] = 3;
    config.slots[2] = 3;
    config.staticPorts.push_back(VELMORA::StaticPort{20000, 1, "Out A", true, 1});
    return config;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // One target for the run, as one lives for a program's life: what a
    // datagram leaves behind (names, clocks, slot data) meets the next.
    static VELMORA::Target target(fuzzConfig());
    if (size < 1) return 0;
    using Port = VELMORA::Target::Port;
    const Port ports[] = {Port::control, Port::registration, Port::log};
    const Port port = ports[(data[0] & 0x7F) % 3];
    NORVA::IPAddress source = NORVA::IPAddress::loopback(40000);
    if ((data[0] & 0x80) == 0) source.parseV6Port("fe80::1%1,40000");
    NORVA::ByteArray datagram(size - 1);
    if (size > 1) std::memcpy(datagram.data(), data + 1, size - 1);
    target.takeDatagram(port, datagram, source);
    return 0;
}

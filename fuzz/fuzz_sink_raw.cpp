// A sink's reading of raw Ethernet frames (framing 3): whether a frame is a
// stream frame from the connected host, its tag, and where its audio lies,
// in full frames and in short ones that carry their size in-band. Every
// byte the packet is said to hold is read, so that a size beyond the frame
// shows.
#include <cstddef>
#include <cstdint>

#include "Sink/SinkRaw.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const VELMORA::SinkRawConfig config{"fuzz0", 0x88B5, 0x01};
    static const std::uint8_t own[6] = {0x02, 0, 0, 0, 0, 0x01};
    static const std::uint8_t host[6] = {0x02, 0, 0, 0, 0, 0x02};
    VELMORA::SinkPlayout::Packet packet;
    if (!VELMORA::readRawFrame(data, size, config, own, host, packet)) return 0;
    if (packet.body < data || packet.body + packet.size > data + size) __builtin_trap();
    volatile std::uint8_t sum = 0;
    for (std::uint32_t i = 0; i < packet.size; ++i) sum = std::uint8_t(sum + packet.body[i]);
    return 0;
}

// The sink's side of a stream: its set-up messages and the stream data in
// the header framing on its control port (framing 0), and audio in the
// compact framings on its data port (framings 1 and 2, as the last connect
// chose). The first byte picks the port; the rest is the datagram. One sink
// lives for the run, so that a connect in one input sets the framing of the
// next; it isn't started, so its answers fail to send.
#include <cstddef>
#include <cstdint>

#include "Network/IPAddress.h"
#include "Sink/StreamSink.h"

namespace {

VELMORA::StreamSinkConfig fuzzConfig() {
    VELMORA::StreamSinkConfig config;
    config.pcm = VELMORA::FormatID(0xE06u, 0x003Eu);
    config.dsdLsb = VELMORA::FormatID(0x2510002u, 0x0202u);
    config.latency = 40;
    config.latencyHardware = 7;
    config.latencyGreatest = 3000;
    config.cycleDataMax = 15000;
    config.cycleMin = 333;
    config.cycleMax = 1000;
    config.profile = 0x02;
    return config;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static VELMORA::StreamSink sink(fuzzConfig());
    if (size < 1) return 0;
    VELMORA::StreamSink::Datagram datagram;
    datagram.onDataPort = (data[0] & 1) != 0;
    datagram.from = NORVA::IPAddress::loopback(40000);
    datagram.size = size - 1;
    datagram.bytes.assign(data + 1, data + size);
    sink.dispatch(datagram);
    return 0;
}

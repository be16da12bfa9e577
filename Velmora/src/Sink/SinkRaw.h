// A sink's end of the raw frame transfer mode: the stream's audio comes as
// finished Ethernet frames (framing mode 3) to a packet socket on one
// interface, while everything else, the sink's answers included, stays on
// its UDP ports. The sink offers the mode only when it has an interface for
// it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Network/IPAddress.h"
#include "Network/RawReceiver.h"
#include "Sink/SinkPlayout.h"
#include "Stream/StreamMessages.h"

namespace VELMORA {

struct SinkRawConfig {
    std::string interfaceName;  // empty: no raw frames
    // IEEE's ether type for local experiments: nothing else on a link uses it.
    std::uint16_t etherType = 0x88B5;
    // The third link byte; its bit 7 is the host's mark of a short frame.
    std::uint8_t linkByte = 0x01;
};

// What one received frame holds, if it is a stream frame for this sink:
// the ether type and link byte it was given, from `hostMac` to `ownMac`.
// `packet` points into `frame`.
bool readRawFrame(const std::uint8_t* frame, std::size_t size, const SinkRawConfig& config,
                  const std::uint8_t (&ownMac)[6], const std::uint8_t (&hostMac)[6],
                  SinkPlayout::Packet& packet);

class SinkRaw {
  public:
    // Frames handled in one go, so that control requests aren't kept waiting.
    static constexpr int framesPerWake = 64;

    NORVA::RawReceiver socket;

    explicit SinkRaw(const SinkRawConfig& settings);

    bool enabled() const { return !config.interfaceName.empty(); }
    // Opens the interface if the sink has one; false, logged, if it can't.
    bool open();
    void close() { socket.close(); }

    // An MSCONNECT_REQ for raw frames from `host`: fills the answer's ether
    // type, link byte and MAC address. False if the request has no MAC
    // address of the host to take frames from.
    bool connect(const ConnectRequest& request, const NORVA::IPAddress& host, ConnectAnswer& route);
    // The host that the answers to the frames go to.
    const NORVA::IPAddress& host() const { return hostAddress; }

    // The next stream frame that waits; false when none is left (or the
    // socket failed, which is logged).
    bool receive(SinkPlayout::Packet& packet);

  private:
    const SinkRawConfig config;
    std::uint8_t hostMac[6] = {};
    NORVA::IPAddress hostAddress;
    std::vector<std::uint8_t> frame;
};

}  // namespace VELMORA

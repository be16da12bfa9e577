#include "Sink/SinkRaw.h"

#include <cstring>

#include "Sink/StreamSink.h"
#include "System/Log.h"

using NORVA::LogLine;

namespace VELMORA {

namespace {

using namespace EthernetFrame;
constexpr std::size_t bodyAt = ConnectionBuffer::ethernetHeaderSize;
constexpr std::size_t shortBodyAt = ConnectionBuffer::shortFrameHeaderSize;
constexpr std::uint8_t feedbackBit = 0x80;  // of the tag

// Up to a jumbo frame.
constexpr std::size_t frameRoom = 16384;

}  // namespace

bool readRawFrame(const std::uint8_t* frame, std::size_t size, const SinkRawConfig& config,
                  const std::uint8_t (&ownMac)[6], const std::uint8_t (&hostMac)[6],
                  SinkPlayout::Packet& packet) {
    if (size < bodyAt || std::memcmp(frame + destinationMacAt, ownMac, 6) != 0 ||
        std::memcmp(frame + sourceMacAt, hostMac, 6) != 0)
        return false;
    std::uint16_t type = std::uint16_t(frame[etherTypeAt] << 8 | frame[etherTypeAt + 1]);
    std::uint8_t link = frame[linkByteAt];
    if (type != config.etherType || (link & ~shortFrameBit) != config.linkByte) return false;
    std::uint8_t tag = frame[tagAt];
    packet.compact = true;
    packet.sequence = tag & 0x7F;
    packet.wantsFeedback = (tag & feedbackBit) != 0;
    if ((link & shortFrameBit) == 0) {
        packet.body = frame + bodyAt;
        packet.size = std::uint32_t(size - bodyAt);
        return true;
    }
    // The link may have padded a short frame; its true size is in-band.
    if (size < shortBodyAt || frame[shortSizeAt] > size - shortBodyAt) return false;
    packet.body = frame + shortBodyAt;
    packet.size = frame[shortSizeAt];
    return true;
}

SinkRaw::SinkRaw(const SinkRawConfig& settings) : config(settings), frame(frameRoom) {}

bool SinkRaw::open() {
    if (!enabled()) return true;
    if (!socket.open(config.interfaceName, config.etherType)) return false;
    LogLine(6) << "StreamSink takes raw frames on " << config.interfaceName;
    return true;
}

bool SinkRaw::connect(const ConnectRequest& request, const NORVA::IPAddress& host, ConnectAnswer& route) {
    if (!request.hasHostMac) return false;
    std::memcpy(hostMac, request.hostMac, sizeof hostMac);
    hostAddress = host;
    route.dataPort = config.etherType;
    route.linkByte = config.linkByte;
    route.hasTargetMac = true;
    std::memcpy(route.targetMac, socket.mac, sizeof route.targetMac);
    return true;
}

bool SinkRaw::receive(SinkPlayout::Packet& packet) {
    for (int i = 0; i < framesPerWake; ++i) {
        std::size_t received = 0;
        if (!socket.receiveFrame(frame.data(), frame.size(), received)) {
            LogLine(3) << "StreamSink raw receive failed, error " << socket.lastError;
            return false;
        }
        if (received == 0) return false;
        if (readRawFrame(frame.data(), received, config, socket.mac, hostMac, packet)) return true;
    }
    return false;
}

// ---- The sink's hooks ---------------------------------------------------------------

void StreamSink::receiveRaw() {
    SinkPlayout::Packet packet;
    for (int i = 0; i < SinkRaw::framesPerWake && raw.receive(packet); ++i) {
        if (mode.load() == msModeRawFrames) play(packet, raw.host());
    }
}

}  // namespace VELMORA

#include "Sink/SinkRaw.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "Protocol/ConnectionBuffer.h"
#include "Protocol/MessageTypes.h"
#include "Stream/StreamMessages.h"

namespace {

using namespace VELMORA;

const std::uint8_t sinkMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0A};
const std::uint8_t hostMac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0B};

// A stream frame as the host's pool builds it, as bytes on the link.
std::vector<std::uint8_t> hostFrame(std::uint16_t bodySize, std::uint16_t sequence, bool wantsFeedback,
                                    std::uint16_t etherType = 0x88B5, std::uint8_t linkByte = 0x01) {
    auto socket = NORVA::UDPV6::create(true);
    ConnectionBuffer packet(*socket, 3, hostMac, sinkMac, etherType, linkByte);
    packet.setBodySize(bodySize);
    for (std::uint16_t i = 0; i < bodySize; ++i) packet.body()[i] = std::uint8_t(0xA0 + i);
    packet.setHeader(MessageType::STREAM_DATA, wantsFeedback ? streamWantsFeedback : 0, sequence, 0, 0, 0);
    packet.finish();
    return {packet.frame->frame(), packet.frame->frame() + packet.frame->length};
}

bool read(const std::vector<std::uint8_t>& frame, SinkPlayout::Packet& packet, SinkRawConfig config = {}) {
    return readRawFrame(frame.data(), frame.size(), config, sinkMac, hostMac, packet);
}

void expectBody(const SinkPlayout::Packet& packet, std::uint16_t size) {
    ASSERT_EQ(packet.size, size);
    for (std::uint16_t i = 0; i < size; ++i) ASSERT_EQ(packet.body[i], std::uint8_t(0xA0 + i)) << i;
}

TEST(SinkRawFrames, ReadsWhatTheHostBuildsShortOrNot) {
    for (std::uint16_t size : {0, 1, 43, 44, 1498}) {
        std::vector<std::uint8_t> frame = hostFrame(size, 0x1234 + size, size % 2 == 1);
        SinkPlayout::Packet packet;
        ASSERT_TRUE(read(frame, packet)) << size;
        EXPECT_TRUE(packet.compact);
        EXPECT_EQ(packet.sequence, (0x1234 + size) & 0x7F) << size;
        EXPECT_EQ(packet.wantsFeedback, size % 2 == 1) << size;
        expectBody(packet, size);
        // A link that pads a short frame to the Ethernet minimum changes nothing.
        if (frame.size() < 60) {
            frame.resize(60, 0xEE);
            ASSERT_TRUE(read(frame, packet)) << size;
            expectBody(packet, size);
        }
    }
}

TEST(SinkRawFrames, FramesForAnotherStreamOrCutShortAreSkipped) {
    SinkPlayout::Packet packet;
    EXPECT_FALSE(read(hostFrame(100, 1, false, 0x88B6), packet)) << "ether type";
    EXPECT_FALSE(read(hostFrame(100, 1, false, 0x88B5, 0x02), packet)) << "link byte";
    std::vector<std::uint8_t> frame;
    for (auto [byte, what] : {std::pair{11, "another host"}, {5, "another sink"}}) {
        frame = hostFrame(100, 1, false);
        frame[byte] ^= 1;
        EXPECT_FALSE(read(frame, packet)) << what;
    }
    frame = hostFrame(20, 1, false);
    frame.resize(16 + 8 + 19);
    EXPECT_FALSE(read(frame, packet)) << "a short frame without its whole body";
    frame.resize(15);
    EXPECT_FALSE(read(frame, packet)) << "no tag";
}

TEST(SinkRawFrames, ConnectNeedsTheHostsMacAndAnswersWithTheSinksLink) {
    SinkRawConfig config;
    config.interfaceName = "vft";
    config.etherType = 0x88B6;
    config.linkByte = 0x05;
    SinkRaw raw(config);
    std::memcpy(raw.socket.mac, sinkMac, 6);
    NORVA::IPAddress host;
    ASSERT_TRUE(host.parse("fe80::b%3,5000"));
    ConnectRequest request;
    request.msMode = msModeRawFrames;
    ConnectAnswer route;
    EXPECT_FALSE(raw.connect(request, host, route)) << "no MAC address of the host";
    request.hasHostMac = true;
    std::memcpy(request.hostMac, hostMac, 6);
    ASSERT_TRUE(raw.connect(request, host, route));
    EXPECT_EQ(route.dataPort, 0x88B6);
    EXPECT_EQ(route.linkByte, 0x05);
    ASSERT_TRUE(route.hasTargetMac);
    EXPECT_EQ(std::memcmp(route.targetMac, sinkMac, 6), 0);
    EXPECT_EQ(raw.host(), host);
}

}  // namespace

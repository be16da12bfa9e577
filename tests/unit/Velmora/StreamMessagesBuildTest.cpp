// The builders against the readers: what one side writes, the other reads.
#include <gtest/gtest.h>

#include <cstring>

#include "Network/Socket.h"
#include "Protocol/MessageTypes.h"
#include "Stream/StreamMessages.h"

namespace {

using NORVA::IPAddress;
using namespace VELMORA;

class Built : public ::testing::Test {
  protected:
    NORVA::UDPV6 socket;
    IPAddress peer = IPAddress::loopback(9);

    static Receive read(const ConnectionBuffer& message) { return message.received(); }
    static Receive read(const SendBuffer& message) { return Receive(message.bytes.data, message.bytes.size); }
};

TEST_F(Built, ProbeFrameIsExactlyItsSizeAndCarriesItsSum) {
    ConnectionBuffer probe(socket, peer);
    std::uint32_t seed = 1;
    std::uint16_t sum = buildDataSizeProbe(probe, 1452, seed);
    Receive frame = read(probe);
    EXPECT_EQ(frame.size, 1452u);
    EXPECT_EQ(frame.length(), 1448) << "the length field is the size rounded down to 8";
    EXPECT_EQ(frame.type(), MessageType::DATASIZE_REQ);
    EXPECT_TRUE(frame.isValid());
    EXPECT_TRUE(isDataSizeProbe(frame));
    EXPECT_EQ(probeSum(frame.body(), 1452 - 16), sum) << "every byte behind the header counts";

    ConnectionBuffer bare(socket, peer);
    buildDataSizeRequest(bare);
    EXPECT_FALSE(isDataSizeProbe(read(bare)));
}

TEST_F(Built, ConnectRequestsAndAnswersRoundTrip) {
    const FormatID format(0x802u, 0x000Cu);
    const std::uint8_t mac[6] = {2, 0, 0, 0xAA, 0xBB, 0xCC};

    ConnectionBuffer plain(socket, peer);
    buildConnectRequest(plain, msModeNone, format, mac);
    EXPECT_EQ(read(plain).type(), MessageType::CONNECT_REQ);
    EXPECT_EQ(read(plain).bodySize(), 0u);
    EXPECT_EQ(readConnectRequest(read(plain)).streamFormat, format);

    ConnectionBuffer raw(socket, peer);
    buildConnectRequest(raw, msModeRawFrames, format, mac);
    ASSERT_EQ(read(raw).bodySize(), msConnectBodySize);
    ConnectRequest asked = readConnectRequest(read(raw));
    EXPECT_EQ(asked.msMode, msModeRawFrames);
    ASSERT_TRUE(asked.hasHostMac);
    EXPECT_EQ(std::memcmp(asked.hostMac, mac, 6), 0);

    ConnectionBuffer mode2(socket, peer);
    buildConnectRequest(mode2, msMode2, format, mac);
    ConnectRequest second = readConnectRequest(read(mode2));
    EXPECT_EQ(second.msMode, msMode2);
    EXPECT_FALSE(second.hasHostMac) << "the MAC goes only with raw frames";

    ConnectAnswer route{4000, 4001, 0x5A, true, {1, 2, 3, 4, 5, 6}, true};
    SendBuffer answer;
    buildConnectAnswer(answer, MessageType::MSCONNECT_REQ, route);
    Receive frame = read(answer);
    EXPECT_EQ(frame.type(), MessageType::MSCONNECT_ANS);
    ConnectAnswer back = readConnectAnswer(frame);
    EXPECT_EQ(back.statusPort, 4000);
    EXPECT_EQ(back.dataPort, 4001);
    EXPECT_EQ(back.linkByte, 0x5A);
    EXPECT_TRUE(back.sinkInvert);
    EXPECT_EQ(std::memcmp(back.targetMac, route.targetMac, 6), 0);
}

TEST_F(Built, ConnectPreAndNameCarryTheirFields) {
    const FormatID format(0x802u, 0x000Cu);
    ConnectionBuffer prepare(socket, peer);
    buildConnectPreRequest(prepare, format, 25);
    ConnectPreRequest fields = readConnectPreRequest(read(prepare));
    EXPECT_EQ(fields.channels, 0x02);
    EXPECT_EQ(fields.kind, 1);
    EXPECT_EQ(fields.latency, 25);
    EXPECT_EQ(fields.formatHigh, 0x000Cu);

    ConnectionBuffer name(socket, peer);
    buildConnectName(name, 0x454E41525453454Bull, "Mix room");
    EXPECT_EQ(read(name).flags(), 1);
    ConnectName told = readConnectName(read(name));
    EXPECT_EQ(told.name, "Mix room");
    EXPECT_EQ(told.productId, 0x454E41525453454Bull);
}

TEST_F(Built, DataSizeAnswerBodyFollowsWhatItHas) {
    SendBuffer bare;
    buildDataSizeAnswer(bare, {64, 15000, 1500, 0, false, 0, false, 0});
    DataSizeAnswer plain = readDataSizeAnswer(read(bare));
    EXPECT_FALSE(plain.hasProbeSize);
    EXPECT_EQ(plain.mostPerCycle, 15000);

    SendBuffer full;
    buildDataSizeAnswer(full, {64, 0xFFFF, 8000, 0x1234, true, 7952, true, 9000});
    DataSizeAnswer echo = readDataSizeAnswer(read(full));
    EXPECT_TRUE(probeEchoed(echo, 7952, 0x1234));
    EXPECT_EQ(echo.greatestPacket, 9000u);
}

// Sequence and flags land in the header or in the one-byte tag.
TEST_F(Built, StreamDataInEveryCompactFraming) {
    ConnectionBuffer header(socket, peer, FramingMode::header);
    header.setBodySize(8);
    buildStreamData(header, 0x1234, true, true);
    Receive frame = read(header);
    EXPECT_EQ(frame.type(), MessageType::STREAM_DATA);
    EXPECT_EQ(frame.flags(), streamLastOfCycle | streamWantsFeedback);
    EXPECT_EQ(frame.param0(), 0x1234);
    EXPECT_EQ(frame.bodySize(), 8u);

    ConnectionBuffer last(socket, peer, FramingMode::tagLast);
    last.setBodySize(8);
    buildStreamData(last, 0x0185, true, false);
    EXPECT_EQ(last.frame->frame()[8], 0x05) << "low 7 bits, the last-of-cycle flag stays off the wire";

    ConnectionBuffer first(socket, peer, FramingMode::tagFirst);
    first.setBodySize(8);
    buildStreamData(first, 0x0003, false, true);
    EXPECT_EQ(first.frame->frame()[0], 0x83);
    EXPECT_EQ(first.frame->frame()[1], 0x00);
}

TEST_F(Built, AnswersSayYesWithTheirType) {
    SendBuffer nop;
    buildEmptyAnswer(nop, MessageType::NOPBREAK_REQ);
    EXPECT_EQ(read(nop).type(), MessageType::FORMAT_ANS) << "NOPBREAK is answered with FORMAT_ANS";
    EXPECT_EQ(read(nop).flags() & flagYes, flagYes);

    ConnectionBuffer debug(socket, peer);
    buildHostDebugRequest(debug, true);
    EXPECT_EQ(read(debug).type(), MessageType::HOSTDEBUG_REQ);
    EXPECT_EQ(read(debug).param0(), 1);
}

}  // namespace

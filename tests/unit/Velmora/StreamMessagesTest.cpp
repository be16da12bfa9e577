#include "Stream/StreamMessages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "Protocol/Frame.h"
#include "TestFormats.h"

namespace {

using namespace VELMORA;

// A received frame with the given header words and body.
struct Frame {
    std::vector<std::uint8_t> bytes;
    Frame(std::uint16_t flags, std::uint16_t p0, std::uint16_t p1, std::uint16_t p2, std::uint16_t p3,
          std::vector<std::uint8_t> body = {}) {
        FrameHeader header;
        header.set(0x0B, flags, p0, p1, p2, p3);
        header.setLength(lengthFieldFor(std::uint32_t(body.size())));
        bytes.assign(header.bytes, header.bytes + headerSize);
        bytes.insert(bytes.end(), body.begin(), body.end());
        bytes.resize(frameSizeOf(header.length()), 0);
    }
    Receive received() const { return Receive(bytes.data(), std::uint32_t(bytes.size())); }
};

// Centred (1): 0x2000 the middle, 0 and 0x4000 the ends. Signed (2): 15 bits
// behind bit 15. Level (3): param1 against the level wanted in param2.
TEST(StreamAnswer, FeedbackEncodingsAndTheResendForm) {
    const struct {
        std::uint16_t p0, p1, p2;
        std::int16_t deviation;
        int encoding;
    } rows[] = {
        {0x2000, 0, 0, 0, 1},     {0x3000, 0, 0, 8192, 1},   {0x1000, 0, 0, -8192, 1},
        {0x4000, 0, 0, 16384, 1}, {0xC000, 0, 0, -16384, 2}, {0x8001, 0, 0, 1, 2},
        {0xBFFF, 0, 0, 16383, 2}, {0xFFFF, 0, 0, -1, 2},     {0, 150, 100, 8192, 3},
        {0, 50, 100, -8192, 3},   {0, 150, 0, 0, 0},  // no level wanted: no feedback
    };
    for (const auto& row : rows) {
        StreamAnswer answer = readStreamAnswer(Frame(0, row.p0, row.p1, row.p2, 0).received());
        EXPECT_EQ(answer.deviation, row.deviation) << row.p0 << " " << row.p1 << " " << row.p2;
        EXPECT_EQ(answer.encoding, row.encoding) << row.p0 << " " << row.p1 << " " << row.p2;
    }

    // The resend form carries no feedback and no phase.
    StreamAnswer answer = readStreamAnswer(Frame(0x108, 0x3000, 0xFFFE, 7, 0).received());
    EXPECT_TRUE(answer.resend);
    EXPECT_EQ(answer.resendFrom, 0xFFFE) << "the full 16-bit sequence number";
    EXPECT_EQ(answer.resendNote, 7);
    EXPECT_EQ(answer.deviation, 0);
    EXPECT_FALSE(answer.sinkInvert) << "phase bits of a resend request are not read";
    StreamAnswer feedback = readStreamAnswer(Frame(0x100, 0x2000, 0, 0, 0).received());
    EXPECT_FALSE(feedback.resend);
    EXPECT_TRUE(feedback.sinkInvert);
    EXPECT_FALSE(sinkInvertOf(0x180)) << "bit 7 cancels the inversion";
}

TEST(ConnectMessages, ConnectPreValue) {
    EXPECT_EQ(connectPreValue(stereoS32At48k, 25),
              std::uint64_t{stereoS32At48k.high()} << 32 | 25u << 16 | 0x0102u);
    // The kind: float, DSD (its bit order no part of it), and a word of no kind we know.
    for (auto [low, kind] :
         {std::pair{0x2008u, 2u}, {FormatID::dsdOneBit | FormatID::dsdMsbFirst | 0x02u, 8u}, {0x02u, 4u}})
        EXPECT_EQ((connectPreValue(FormatID(low, 0), 0) >> 8) & 0xFF, kind) << std::hex << low;
}

TEST(ConnectMessages, MsConnectBodyAndFlags) {
    const std::uint8_t mac[6] = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    std::uint8_t body[msConnectBodySize];
    std::memset(body, 0xAA, sizeof body);
    writeMsConnectBody(body, msModeRawFrames, mac);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(body[i], 0);
    EXPECT_EQ(std::memcmp(body + 8, mac, 6), 0);
    writeMsConnectBody(body, msMode2, mac);
    for (std::uint8_t byte : body) EXPECT_EQ(byte, 0) << "only raw frames carry the MAC address";
    EXPECT_EQ(msConnectFlags(msMode2), 2);
    EXPECT_EQ(msConnectFlags(msModeRawFrames), 3);
}

TEST(ConnectMessages, RouteFollowsModeAndDataPort) {
    StreamRoute none = streamRouteFor(msModeNone, 5000);
    EXPECT_EQ(none.framing, FramingMode::header);
    EXPECT_FALSE(none.ms);
    EXPECT_EQ(streamRouteFor(msMode1, 5000).framing, FramingMode::tagLast);
    EXPECT_EQ(streamRouteFor(msMode2, 5000).framing, FramingMode::tagFirst);
    StreamRoute raw = streamRouteFor(msModeRawFrames, 0x88B5);
    EXPECT_EQ(raw.framing, FramingMode::ethernet);
    EXPECT_TRUE(raw.rawFrames);
    EXPECT_TRUE(raw.ms);
    // A target that names no second port keeps the plain framing.
    StreamRoute fallBack = streamRouteFor(msMode2, 0);
    EXPECT_EQ(fallBack.framing, FramingMode::header);
    EXPECT_FALSE(fallBack.ms);
    EXPECT_FALSE(streamRouteFor(msModeRawFrames, 0).rawFrames);
}

TEST(ConnectMessages, ConnectAnswerFields) {
    ConnectAnswer answer =
        readConnectAnswer(Frame(0x101, 19650, 0x88B5, 0x1234, 0, {1, 2, 3, 4, 5, 6}).received());
    EXPECT_EQ(answer.statusPort, 19650);
    EXPECT_EQ(answer.dataPort, 0x88B5);
    EXPECT_EQ(answer.linkByte, 0x34) << "only the low byte";
    EXPECT_TRUE(answer.sinkInvert);
    ASSERT_TRUE(answer.hasTargetMac);
    EXPECT_EQ(answer.targetMac[5], 6);
    EXPECT_FALSE(readConnectAnswer(Frame(1, 1, 0, 0, 0, {1, 2, 3, 4, 5}).received()).hasTargetMac);
}

TEST(SetupMessages, DataSizeProbe) {
    std::vector<std::uint8_t> bytes(1452 - 16);
    std::uint32_t seed = 0;
    std::uint16_t sum = fillProbeBytes(bytes.data(), std::uint32_t(bytes.size()), seed);
    // The answer echoes the sum in param3 and the frame size at the start of its body.
    DataSizeAnswer echo = readDataSizeAnswer(Frame(1, 64, 0xFFFF, 1400, sum, {0xAC, 0x05, 0, 0}).received());
    EXPECT_EQ(echo.mostPerCycle, 0xFFFF);
    ASSERT_TRUE(echo.hasProbeSize);
    EXPECT_FALSE(echo.hasGreatestPacket);
    EXPECT_TRUE(probeEchoed(echo, 1452, sum));
    EXPECT_FALSE(probeEchoed(echo, 1400, sum)) << "a cut frame";
    EXPECT_FALSE(probeEchoed(echo, 1452, std::uint16_t(sum + 1))) << "damaged bytes";
    DataSizeAnswer bare = readDataSizeAnswer(Frame(1, 64, 3000, 1400, sum).received());
    EXPECT_TRUE(probeEchoed(bare, 1452, sum)) << "the body is optional";
    DataSizeAnswer full =
        readDataSizeAnswer(Frame(1, 0, 0, 0, 0, {0xAC, 0x05, 0, 0, 0xDC, 0x05, 0, 0}).received());
    ASSERT_TRUE(full.hasGreatestPacket);
    EXPECT_EQ(full.greatestPacket, 1500u);
}

}  // namespace

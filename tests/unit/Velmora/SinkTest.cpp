#include "Sink/StreamSink.h"

#include <gtest/gtest.h>

#include "Protocol/Connection.h"
#include "Protocol/MessageTypes.h"

namespace {

using NORVA::IPAddress;
using NORVA::TimeValue;
using namespace VELMORA;

// A host's connection to one running sink.
class SinkExchange : public ::testing::Test {
  protected:
    StreamSinkConfig config;
    std::unique_ptr<StreamSink> sink;
    Connection host;
    IPAddress local = IPAddress::loopback(0);
    ConnectionBuffer answer{*host.socket};

    void SetUp() override {
        config.pcm = FormatID(0x0E02u, 0x000Cu);
        config.dsdMsb = FormatID(0x2A10002u, 0x0202u);
        ASSERT_TRUE(host.open(local));
    }
    void startSink() {
        sink = std::make_unique<StreamSink>(config);
        ASSERT_TRUE(sink->start());
    }
    // True if the sink said yes; its answer is in `answer`.
    bool ask(ConnectionBuffer& request) {
        EXPECT_TRUE(host.sendAck(request, sink->address(), awaitedAnswer(request.header.type()), answer,
                                 TimeValue::fromMs(30)));
        return !answer.isEmpty();
    }
    bool askFormat(std::uint64_t query) {
        ConnectionBuffer request(*host.socket, sink->address());
        buildFormatRequest(request, query);
        return ask(request);
    }
};

TEST_F(SinkExchange, FormatKindsAndMasksFollowTheConfiguration) {
    startSink();
    ASSERT_TRUE(askFormat(formatKindsQuery));
    EXPECT_EQ(answer.paramU64(), 0x0E00u | FormatID::dsdOneBit | FormatID::dsdMsbFirst);
    ASSERT_TRUE(askFormat(0x0E00));
    EXPECT_EQ(answer.paramU64(), config.pcm.value);
    ASSERT_TRUE(askFormat(formatDsdMsbQuery));
    EXPECT_EQ(answer.paramU64(), config.dsdMsb.value);
    EXPECT_FALSE(askFormat(formatDsdLsbQuery)) << "a kind it doesn't have";
    EXPECT_FALSE(askFormat(0x400000)) << "a query that names no kind";
}

TEST_F(SinkExchange, LatencyIsGrantedWithinTheRange) {
    config.latency = 30;
    config.latencyLeast = 20;
    config.latencyGreatest = 100;
    startSink();
    for (auto [wanted, granted] : {std::pair{0, 30}, {5, 20}, {60, 60}, {500, 100}}) {
        ConnectionBuffer request(*host.socket, sink->address());
        buildLatencyRequest(request, std::uint16_t(wanted));
        ASSERT_TRUE(ask(request));
        EXPECT_EQ(readLatencyAnswer(answer.received()).granted, granted) << wanted;
        EXPECT_EQ(readLatencyAnswer(answer.received()).greatest, 100);
    }
    ConnectionBuffer prepare(*host.socket, sink->address());
    buildConnectPreRequest(prepare, FormatID(0x802u, 0x000Cu), 500);
    ASSERT_TRUE(ask(prepare));
    EXPECT_EQ(answer.param1(), 100);
}

TEST_F(SinkExchange, ProbeIsEchoedWithItsSumAndSize) {
    config.dataReq = 8000;
    config.dataMax = 9000;
    startSink();
    ConnectionBuffer probe(*host.socket, sink->address());
    std::uint32_t seed = 7;
    std::uint16_t sum = buildDataSizeProbe(probe, 8952, seed);
    ASSERT_TRUE(ask(probe));
    DataSizeAnswer echo = readDataSizeAnswer(answer.received());
    EXPECT_TRUE(probeEchoed(echo, 8952, sum));
    EXPECT_EQ(echo.wantedPacket, 8000);
    ASSERT_TRUE(echo.hasGreatestPacket);
    EXPECT_EQ(echo.greatestPacket, 9000u);
}

TEST_F(SinkExchange, ConnectOffersOnlyTheModesItHas) {
    config.msa = 0;  // mode1 only
    startSink();
    const FormatID format(0x802u, 0x000Cu);
    for (std::uint32_t mode : {msMode2, msModeRawFrames}) {
        ConnectionBuffer request(*host.socket, sink->address());
        buildConnectRequest(request, mode, format, nullptr);
        EXPECT_FALSE(ask(request)) << mode;
    }
    EXPECT_FALSE(sink->isConnected());

    ConnectionBuffer request(*host.socket, sink->address());
    buildConnectRequest(request, msMode1, format, nullptr);
    ASSERT_TRUE(ask(request));
    ConnectAnswer route = readConnectAnswer(answer.received());
    EXPECT_EQ(route.statusPort, sink->port());
    EXPECT_EQ(route.dataPort, sink->port());
    EXPECT_TRUE(sink->isConnected());
    EXPECT_EQ(sink->connectedMode(), msMode1);

    ConnectionBuffer disconnect(*host.socket, sink->address());
    buildDisconnectRequest(disconnect);
    ASSERT_TRUE(ask(disconnect));
    EXPECT_FALSE(sink->isConnected());
}

TEST_F(SinkExchange, UnknownRequestsAreEchoedAsRefusals) {
    startSink();
    ConnectionBuffer request(*host.socket, sink->address(), MessageType::SLOTLIST_REQ);
    EXPECT_FALSE(ask(request));
    EXPECT_EQ(sink->requestsOf(MessageType::SLOTLIST_REQ).size(), 1u) << "refused at once, not retried";
}

TEST_F(SinkExchange, StartsOnceAndAgainAfterStop) {
    startSink();
    EXPECT_FALSE(sink->start());
    sink->stop();
    ASSERT_TRUE(sink->start());
    EXPECT_NE(sink->port(), 0);
    EXPECT_TRUE(askFormat(formatKindsQuery));
}

}  // namespace

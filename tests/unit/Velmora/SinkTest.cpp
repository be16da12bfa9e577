#include "Sink/StreamSink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "Protocol/Connection.h"
#include "Protocol/MessageTypes.h"
#include "Samples/SyncBuffer.h"
#include "System/Threads.h"
#include "TempFolder.h"
#include "TestStream.h"

namespace {

using NORVA::IPAddress;
using NORVA::TimeValue;
using namespace VELMORA;

// A sink of mode1 only refuses the other modes; its yes routes the stream and the disconnect ends it.
TEST(SinkExchange, ConnectOffersOnlyTheModesItHas) {
    StreamSinkConfig config;
    config.pcm = FormatID(0x0E02u, 0x000Cu);
    config.msa = 0;
    StreamSink sink(config);
    ASSERT_TRUE(sink.start());
    Connection host;
    ConnectionBuffer answer{*host.socket};
    IPAddress local = IPAddress::loopback(0);
    ASSERT_TRUE(host.open(local));
    auto ask = [&](ConnectionBuffer& request) {
        EXPECT_TRUE(host.sendAck(request, sink.address(), awaitedAnswer(request.header.type()), answer,
                                 TimeValue::fromMs(30)));
        return !answer.isEmpty();
    };
    for (std::uint32_t mode : {msMode2, msModeRawFrames, msMode1}) {
        ConnectionBuffer request(*host.socket, sink.address());
        buildConnectRequest(request, mode, FormatID(0x802u, 0x000Cu), nullptr);
        EXPECT_EQ(ask(request), mode == msMode1) << mode;
        EXPECT_EQ(sink.isConnected(), mode == msMode1) << mode;
    }
    ConnectAnswer route = readConnectAnswer(answer.received());
    EXPECT_EQ(route.statusPort, sink.port());
    EXPECT_EQ(route.dataPort, sink.dataPort());
    EXPECT_EQ(sink.connectedMode(), msMode1);
    ConnectionBuffer disconnect(*host.socket, sink.address(), MessageType::DISCONNECT_REQ);
    ASSERT_TRUE(ask(disconnect));
    EXPECT_FALSE(sink.isConnected());
}

// ---- A whole stream: ring, stream worker and the playing sink ----------------

class SinkStream : public TimedStreamTest<::testing::TestWithParam<std::uint32_t>> {
  protected:
    TempFolder folder;
};

// Ring, stream worker and a sink that drops 2 % in each framing: the sink's
// WAV must hold silence and then exactly what the source made.
TEST_P(SinkStream, LossIsAskedForAgainAndTheFileStaysExact) {
    StreamSinkConfig config;
    config.pcm = FormatID(0xE06u, 0x003Eu);
    config.latency = 200;  // 20 ms
    config.play.wavPath = folder.file("stream.wav");
    config.play.dropShare = 0.02;
    config.statsPath = folder.file("stream.json");
    StreamSink sink(config);
    ASSERT_TRUE(sink.start());
    PatternBuffer host;
    ASSERT_TRUE(host.open(0, TimeValue::fromMs(50), 0, "sink test", 1, -1, -1, 0));
    planTestStream(host);
    host.targetAddress = sink.address();
    host.debugAddress = sink.address();
    host.msMode = GetParam();
    ASSERT_TRUE(host.setupRing(48, 8, 0, FormatID()));
    ASSERT_TRUE(host.connect());
    ASSERT_TRUE(host.connectWait());
    ASSERT_EQ(host.connectState, Sync::connected);
    host.play();
    NORVA::sleepMilliseconds(300);
    host.stop();
    NORVA::sleepMilliseconds(100);  // a loss shows by a later packet: silence after the audio
    host.disconnect();
    EXPECT_EQ(host.connectState, Sync::idle);
    sink.stop();
    const auto stream = folder.read<std::vector<std::uint8_t>>("stream.wav");
    ASSERT_GE(stream.size(), 44u);
    std::size_t lead = 44;  // the WAV header
    while (lead < stream.size() && stream[lead] == 0) ++lead;
    EXPECT_GE(lead - 44, 8u * 48 * 8) << "the ring's silence first";
    // A buffer worker behind on a busy machine lets the ring give silence in
    // between; the source is never 0, so without the zeros it must be exact.
    std::vector<std::uint8_t> audio;
    std::copy_if(stream.begin() + std::ptrdiff_t(lead), stream.end(), std::back_inserter(audio),
                 [](std::uint8_t b) { return b != 0; });
    ASSERT_EQ(audio.size(), host.filled);
    std::size_t wrong = 0;
    for (std::uint64_t n = 0; n < host.filled; ++n) wrong += audio[n] != patternByte(n);
    EXPECT_EQ(wrong, 0u);
    SinkStats stats = sink.playStats();
    EXPECT_GT(stats.feedbacks, 0u);
    EXPECT_GT(stats.dropped, 0u);
    EXPECT_EQ(stats.resends > 0, stats.dropped > 0) << "asked again exactly when something was lost";
    EXPECT_FALSE(folder.read("stream.json").empty()) << "statistics at the stream's end";
}

INSTANTIATE_TEST_SUITE_P(Modes, SinkStream, ::testing::Values(msModeNone, msMode1, msMode2));

}  // namespace

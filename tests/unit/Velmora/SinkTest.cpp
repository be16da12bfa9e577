#include "Sink/StreamSink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

#include "LogCapture.h"
#include "Protocol/Connection.h"
#include "Protocol/MessageTypes.h"
#include "Samples/SyncBuffer.h"
#include "ScratchFile.h"
#include "System/Threads.h"
#include "TestFormats.h"
#include "WorkerPriority.h"

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
    EXPECT_EQ(route.dataPort, sink->dataPort());
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

// ---- A whole stream: ring, stream worker and the playing sink ----------------

// Byte n of the source; never the silence byte.
std::uint8_t patternByte(std::uint64_t n) {
    return std::uint8_t(1 + n % 251);
}

// A source that fills each slot with the next bytes of the pattern.
class PatternBuffer : public SyncBuffer {
  public:
    std::uint64_t filled = 0;  // the buffer worker's alone

    PatternBuffer() {
        EXPECT_TRUE(open(0, TimeValue::fromMs(50), 0, "sink test", 1, -1, -1, 0));
        format.sink.pcm = FormatID(0xE06u, 0x003Eu);
        EXPECT_TRUE(format.setFormat(stereoS32At48k));
        profiles[0].cycle = TimeValue::fromUs(1000);
        profiles[0].packetCount = 2;
        profiles[0].sizeQ14 = 24u << 14;  // 48 frames a millisecond in two packets
        profiles[0].dataSize = 24 * 8;
        profiles[0].mode = transferFix;
        profileCount = 1;
    }
    ~PatternBuffer() override { shutdown(); }
    void fillBuffer(StreamBuffer& slot, bool) override {
        for (std::uint64_t i = 0; i < slot.size; ++i) slot.data[i] = patternByte(filled + i);
        filled += slot.size;
    }
};

std::vector<std::uint8_t> wavData(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<std::uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return file.size() < 44 ? std::vector<std::uint8_t>()
                            : std::vector<std::uint8_t>(file.begin() + 44, file.end());
}

// Under Wine a wait for 1 ms lasts a timer tick of about 15 ms, too coarse
// for streams of millisecond cycles; the same code is tested natively.
void skipWhereStreamsCantRun() {
#ifdef _WIN32
    GTEST_SKIP() << "millisecond cycles need a native timer";
#endif
    if (!workerPriorityGranted()) GTEST_SKIP() << "the system refuses the worker's priority";
}

class SinkStream : public ::testing::TestWithParam<std::uint32_t> {
  protected:
    void SetUp() override { skipWhereStreamsCantRun(); }
    StreamSinkConfig config;
    ScratchFile wav{"velmora-sinkstream", ".wav"};
    ScratchFile json{"velmora-sinkstream", ".json"};

    SinkStream() {
        config.pcm = FormatID(0xE06u, 0x003Eu);
        config.latency = 200;  // 20 ms
        config.play.wavPath = wav.path;
        config.statsPath = json.path;
    }

    // Streams for about `ms`, drains the ring, ends; the sink's WAV must
    // hold silence and then exactly what the source made.
    void streamAndCompare(int ms) {
        StreamSink sink(config);
        ASSERT_TRUE(sink.start());
        PatternBuffer host;
        host.targetAddress = sink.address();
        host.debugAddress = sink.address();
        host.msMode = GetParam();
        ASSERT_TRUE(host.setupRing(48, 8, 0, FormatID()));
        ASSERT_TRUE(host.connect());
        ASSERT_TRUE(host.connectWait());
        ASSERT_EQ(host.connectState, Sync::connected);
        host.play();
        NORVA::sleepMilliseconds(std::uint32_t(ms));
        host.stop();
        // A lost packet shows only by a later one: a little silence after
        // the audio lets the sink find a loss among the last packets.
        NORVA::sleepMilliseconds(100);
        host.disconnect();
        EXPECT_EQ(host.connectState, Sync::idle);
        sink.stop();

        std::vector<std::uint8_t> stream = wavData(wav.path);
        std::size_t lead = 0;
        while (lead < stream.size() && stream[lead] == 0) ++lead;
        EXPECT_GE(lead, 8u * 48 * 8) << "the ring's silence first";
        // A buffer worker that falls behind on a busy machine lets the ring
        // give silence in between; the source's own bytes are never 0, so
        // without the zeros the stream must be the source exactly.
        std::vector<std::uint8_t> audio;
        std::copy_if(stream.begin(), stream.end(), std::back_inserter(audio),
                     [](std::uint8_t b) { return b != 0; });
        ASSERT_EQ(audio.size(), host.filled);
        std::size_t wrong = 0;
        for (std::uint64_t n = 0; n < host.filled; ++n) wrong += audio[n] != patternByte(n);
        EXPECT_EQ(wrong, 0u);
        SinkStats stats = sink.playStats();
        EXPECT_GT(stats.feedbacks, 0u);
        EXPECT_EQ(stats.dropped > 0, config.play.dropShare > 0);
        EXPECT_EQ(stats.resends > 0, stats.dropped > 0) << "asked again exactly when something was lost";
        std::ifstream written(json.path);
        EXPECT_TRUE(written.good()) << "statistics at the stream's end";
    }
};

TEST_P(SinkStream, ArrivesWholeInEveryFraming) {
    streamAndCompare(600);
}

TEST_P(SinkStream, LossIsAskedForAgainAndTheFileStaysExact) {
    config.play.dropShare = 0.02;
    streamAndCompare(600);
}

INSTANTIATE_TEST_SUITE_P(Modes, SinkStream, ::testing::Values(msModeNone, msMode1, msMode2));

class SinkStreamEnd : public ::testing::Test {
  protected:
    StreamSinkConfig config;
    ScratchFile wav{"velmora-sinkend", ".wav"};
    PatternBuffer host;

    void SetUp() override { skipWhereStreamsCantRun(); }
    SinkStreamEnd() {
        config.pcm = FormatID(0xE06u, 0x003Eu);
        config.latency = 200;
        config.play.wavPath = wav.path;
    }
    void connectTo(StreamSink& sink) {
        host.targetAddress = sink.address();
        host.debugAddress = sink.address();
        ASSERT_TRUE(host.setupRing(48, 8, 0, FormatID()));
        ASSERT_TRUE(host.connect());
        ASSERT_TRUE(host.connectWait());
        ASSERT_EQ(host.connectState, Sync::connected);
    }
};

// The sink's inversion comes with its connect answer; the host's may change
// while the stream runs and takes effect at the next feedback.
TEST_F(SinkStreamEnd, ThePolarityOfSinkAndHostCombine) {
    config.invertPhase = true;
    StreamSink sink(config);
    ASSERT_TRUE(sink.start());
    connectTo(sink);
    EXPECT_TRUE(host.format.playInvert);
    host.play();
    NORVA::sleepMilliseconds(300);
    host.format.hostInvert = true;
    NORVA::sleepMilliseconds(300);
    host.stop();
    host.disconnect();
    sink.stop();
    EXPECT_FALSE(host.format.playInvert) << "inverted twice";

    // Silence is 0xFF inverted and 0 plain; the source is neither either way.
    std::vector<std::uint8_t> audio;
    for (std::uint8_t b : wavData(wav.path))
        if (b != 0 && b != 0xFF) audio.push_back(b);
    ASSERT_EQ(audio.size(), host.filled);
    std::size_t turn = 0;
    while (turn < audio.size() && audio[turn] == std::uint8_t(~patternByte(turn))) ++turn;
    EXPECT_GT(turn, 0u) << "inverted at first";
    std::size_t wrong = 0;
    for (std::size_t n = turn; n < audio.size(); ++n) wrong += audio[n] != patternByte(n);
    EXPECT_EQ(wrong, 0u) << "plain once the host inverts too, from byte " << turn;
    EXPECT_LT(turn, audio.size());
}

// A sink that disappears mid-stream: the worker ends after the receive
// timeout, without a disconnect exchange, and stop and disconnect return.
TEST_F(SinkStreamEnd, StopAndDisconnectReturnWhenTheSinkHasGone) {
    LogCapture log;
    StreamSink sink(config);
    ASSERT_TRUE(sink.start());
    connectTo(sink);
    host.play();
    NORVA::sleepMilliseconds(200);
    sink.stop();
    host.stop();
    host.disconnect();
    EXPECT_EQ(host.connectState, Sync::idle);
    EXPECT_TRUE(log.hasPrefix("   timeout "));
    EXPECT_FALSE(log.has("DISCONNECT_REQ sent"));
    EXPECT_TRUE(log.has("done BufferWorker"));
}

}  // namespace

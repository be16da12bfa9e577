#include "Stream/Sync.h"

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <tuple>
#include <vector>

#include "Protocol/MessageTypes.h"
#include "Sink/StreamSink.h"
#include "System/Threads.h"
#include "TestStream.h"

namespace {

using NORVA::IPAddress;
using NORVA::TimeValue;
using namespace VELMORA;

const FormatID sinkPcm(0xE06u, 0x003Eu);         // 2 or 4 channels, 16 to 32 bits, 44.1/48 kHz x1..x4
const FormatID sinkDsdLsb(0x2510002u, 0x0202u);  // DSD64, LSB first, little-endian words

StreamSinkConfig sinkConfig() {
    StreamSinkConfig config;
    config.pcm = sinkPcm;
    config.dsdLsb = sinkDsdLsb;
    config.latency = 40;
    config.latencyHardware = 7;
    config.latencyGreatest = 3000;
    config.cycleDataMax = 15000;
    config.cycleMin = 333;
    config.cycleMax = 1000;
    config.profile = 0x02;
    return config;
}

// A Sync with no ring behind it, which records its state changes.
class TestSync : public Sync {
  public:
    std::mutex statesMutex;
    std::vector<std::int32_t> states;
    ~TestSync() override { joinWorker(); }
    bool getBuffer(StreamChunk&) override { return false; }
    void onStateChange() override {
        std::lock_guard<std::mutex> lock(statesMutex);
        states.push_back(connectState);
    }
};

class SyncSetup : public ::testing::Test {
  protected:
    TestSync sync;
    void SetUp() override {
        ASSERT_TRUE(sync.open(0, TimeValue::fromMs(100), 0, "studio", 0x4B45, -1, -1, 0));
    }
    bool getInfoFrom(StreamSink& sink, TimeValue latencyBuffer = TimeValue(), std::uint32_t mtu = 1500) {
        return sync.getInfo(sink.address(), latencyBuffer, false, mtu);
    }
};

TEST_F(SyncSetup, GetInfoReadsWhatTheSinkOffers) {
    StreamSink sink(sinkConfig());
    ASSERT_TRUE(sink.start());
    ASSERT_TRUE(getInfoFrom(sink));
    EXPECT_EQ(sync.format.sink.dsdLsb, sinkDsdLsb);
    EXPECT_EQ(sync.format.sink.dsdMsb, FormatID());
    EXPECT_EQ(sync.latencyHw, 7);
    EXPECT_EQ(sync.latencyMax, 3000);
    EXPECT_EQ(sync.transfer.sink.prof, 0x02);
    EXPECT_TRUE(sync.transfer.sink.triangolo);
    EXPECT_EQ(sync.transfer.sink.baseMin, sync.format.sink.unitLeast());
    EXPECT_EQ(sync.msMode, msMode2);
    EXPECT_EQ(sync.maxPacketSize, 1450);
    EXPECT_EQ(sync.maxPacketCount, 10);
    EXPECT_EQ(sync.targetAddress, sink.address());
    EXPECT_EQ(sync.debugAddress.port(), Sync::debugPort);
    EXPECT_EQ(sink.requestsOf(MessageType::LATENCY_REQ).size(), 1u) << "latencyBuffer 0 only asks";
    EXPECT_EQ(sink.requestsOf(MessageType::FORMAT_REQ).size(), 3u) << "kinds, PCM, LSB DSD";

    // A wanted latency is a second request.
    ASSERT_TRUE(getInfoFrom(sink, TimeValue::fromUs(2500)));
    auto latencies = sink.requestsOf(MessageType::LATENCY_REQ);
    ASSERT_EQ(latencies.size(), 3u);
    EXPECT_EQ(latencies[1].value, 0u);
    EXPECT_EQ(latencies[2].value, 25u);
    EXPECT_EQ(sync.latency, 25);
}

TEST_F(SyncSetup, ASinkWithoutFormatsFails) {
    StreamSinkConfig config = sinkConfig();
    config.pcm = FormatID();
    config.dsdLsb = FormatID();
    StreamSink sink(config);
    ASSERT_TRUE(sink.start());
    EXPECT_FALSE(getInfoFrom(sink));
    EXPECT_TRUE(sink.requestsOf(MessageType::LATENCY_REQ).empty());
}

// Without answers on mode and size the defaults stand; a payload is the
// path's MTU less the headers each transfer mode puts in front of it.
TEST_F(SyncSetup, PayloadSizePerTransferMode) {
    struct Case {
        bool modeAnswer, sizeAnswer;
        std::uint16_t msa;
        std::uint32_t mode;
        std::uint16_t smtu, payload, count;
    } cases[] = {
        {false, false, 0, msModeNone, 1500, 1432, 10},
        {false, true, 0, msModeNone, 9000, 8936, 0xFFFF},
        {true, true, 0, msMode1, 9000, 8951, 0xFFFF},
        {true, true, channelOffersMode2, msMode2, 9000, 8950, 0xFFFF},
        {true, true, channelOffersRawFrames, msMode1, 9000, 8951, 0xFFFF},  // no raw path on ::1
    };
    for (const Case& c : cases) {
        StreamSinkConfig config = sinkConfig();
        config.answerSynchroChannel = c.modeAnswer;
        config.answerDataSize = c.sizeAnswer;
        config.msa = c.msa;
        config.dataReq = 9000;
        config.cycleDataMax = 0xFFFF;
        StreamSink sink(config);
        ASSERT_TRUE(sink.start());
        ASSERT_TRUE(getInfoFrom(sink, TimeValue(), 9000));
        SCOPED_TRACE(testing::Message() << "answers " << c.modeAnswer << c.sizeAnswer << " msa " << c.msa);
        EXPECT_EQ(sync.smtu, c.smtu);
        EXPECT_EQ(sync.msMode, c.mode);
        EXPECT_EQ(sync.maxPacketSize, c.payload);
        EXPECT_EQ(sync.maxPacketCount, c.count);
    }
}

// Without the probe (noProbe) the path stays at 1500.
TEST_F(SyncSetup, ProbeSettlesOnWhatThePathCarries) {
    struct Case {
        std::uint32_t flags;
        std::uint16_t req;
        std::uint32_t max;
        std::uint32_t linkMtu;
        std::uint32_t measured;
        std::uint16_t smtu;
        std::set<std::uint32_t> probeFrames;  // sizes of the probe frames sent
    };
    for (const Case& c : {
             Case{0, 8000, 0, 0, 9000, 8000, {7952}},              // the size asked for, below the path's
             Case{0, 8000, 9000, 8500, 9000, 8000, {8952, 7952}},  // the greatest lost, the asked passes
             Case{0, 8000, 0, 1500, 9000, 1500, {7952}},           // nothing larger passes
             Case{0, 8000, 0, 0, 1500, 1500, {}},                  // the measured path is the limit
             Case{0, 8000, 70000, 0, 70000, 8000, {7952}},         // beyond 16 bits isn't tried
             Case{0, 8000, 65535, 0, 65535, 65535, {65487}},       // 16 bits are
             Case{0, 0, 9000, 8500, 9000, 1500, {8952}},           // no size asked for to fall back to
             Case{ThreadFlag::noProbe, 8000, 0, 0, 9000, 1500, {}},
         }) {
        ASSERT_TRUE(sync.open(c.flags, TimeValue::fromMs(100), 0, "studio", 1, -1, -1, 0));
        StreamSinkConfig config = sinkConfig();
        config.dataReq = c.req;
        config.dataMax = c.max;
        config.linkMtu = c.linkMtu;
        StreamSink sink(config);
        ASSERT_TRUE(sink.start());
        ASSERT_TRUE(getInfoFrom(sink, TimeValue(), c.measured));
        EXPECT_EQ(sync.smtu, c.smtu) << c.max << " " << c.linkMtu;
        std::set<std::uint32_t> frames;
        for (const auto& request : sink.requestsOf(MessageType::DATASIZE_REQ))
            if (request.size > 16) frames.insert(request.size);
        EXPECT_EQ(frames, c.probeFrames) << c.max << " " << c.linkMtu;
    }
}

// ---- connectPrepare, connect, connectWait -------------------------------------

class SyncConnect : public SyncSetup {
  protected:
    StreamSink sink{sinkConfig()};
    void SetUp() override {
        SyncSetup::SetUp();
        ASSERT_TRUE(sink.start());
        ASSERT_TRUE(getInfoFrom(sink));
        planTestStream(sync);
    }
};

// At least eight cycles of 1 ms, but never above the sink's greatest; a
// latency of eight cycles already is kept as it is.
TEST_F(SyncConnect, PrepareAsksForEightCyclesWithinTheSinksGreatestLatency) {
    for (auto [latency, greatest, asked] :
         {std::tuple{50, 3000, 80}, {50, 60, 60}, {50, 0, 0}, {80, 60, 80}}) {
        sync.latency = std::uint16_t(latency);
        sync.latencyMax = std::uint16_t(greatest);
        ASSERT_TRUE(sync.connectPrepare());
        auto prepared = sink.requestsOf(MessageType::CONNECTPRE_REQ);
        ASSERT_FALSE(prepared.empty());
        EXPECT_EQ(std::uint16_t(prepared.back().value >> 16), asked) << latency << " " << greatest;
        EXPECT_EQ(sync.latency, latency) << "the answer isn't stored";
    }
    ConnectName name = sink.connectName();
    EXPECT_EQ(name.name, "studio");
    EXPECT_EQ(name.productId, 0x4B45u);
}

TEST_F(SyncConnect, ConnectRunsTheExchangeOnItsWorker) {
    if (!workerPriorityGranted()) GTEST_SKIP() << "the system refuses the worker's priority";
    EXPECT_FALSE(sync.connectWait()) << "nothing under way";
    ASSERT_TRUE(sync.connect());
    EXPECT_TRUE(sync.connectWait());
    EXPECT_EQ(sync.connectState, Sync::connected);
    auto connects = sink.requestsOf(MessageType::MSCONNECT_REQ);
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0].flags, 2) << "mode2";
    EXPECT_EQ(connects[0].value, stereoS32At48k.value);
    EXPECT_EQ(sync.statusAddress, sink.address());
    IPAddress data = sink.address();
    data.setPort(sink.dataPort());
    EXPECT_EQ(sync.dataAddress, data) << "the sink's own data port";
    EXPECT_EQ(sync.route.framing, FramingMode::tagFirst);

    // Left without a word, as the destructor leaves it; the joined worker no longer records states.
    sync.connectState = Sync::idle;
    sync.joinWorker();
    ASSERT_FALSE(sync.states.empty());
    EXPECT_EQ(sync.states.front(), Sync::connected);
    EXPECT_EQ(sync.states.back(), Sync::idle);

    // The same object connects again.
    ASSERT_TRUE(sync.connect());
    EXPECT_TRUE(sync.connectWait());
    sync.connectState = Sync::idle;
    sync.joinWorker();
    EXPECT_EQ(sink.requestsOf(MessageType::MSCONNECT_REQ).size(), 2u);
}

// Neither an unplanned profile nor an invalid stream format reaches the sink.
TEST_F(SyncConnect, RefusesAnUnplannedProfileAndAnInvalidStreamFormat) {
    sync.format.streamFormat = FormatID(0x806u, 0x000Cu);  // two channel counts
    EXPECT_FALSE(sync.connect());
    EXPECT_FALSE(sync.workerThread.joinable());
    EXPECT_EQ(sync.connectState, Sync::idle);
    sync.profiles[0].cycle = TimeValue();
    EXPECT_FALSE(sync.connectPrepare());
    EXPECT_TRUE(sink.requestsOf(MessageType::CONNECTPRE_REQ).empty());
}

}  // namespace

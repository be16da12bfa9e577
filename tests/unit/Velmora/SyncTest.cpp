#include "Stream/Sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"
#include "Sink/StreamSink.h"
#include "System/Threads.h"
#include "TestFormats.h"
#include "WorkerPriority.h"

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

    EXPECT_EQ(sync.format.sink.pcm, sinkPcm);
    EXPECT_EQ(sync.format.sink.dsdLsb, sinkDsdLsb);
    EXPECT_EQ(sync.format.sink.dsdMsb, FormatID());
    EXPECT_EQ(sync.latency, 40);
    EXPECT_EQ(sync.latencyHw, 7);
    EXPECT_EQ(sync.latencyMax, 3000);
    EXPECT_EQ(sync.transfer.sink.min, 333);
    EXPECT_EQ(sync.transfer.sink.max, 1000);
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
}

TEST_F(SyncSetup, AWantedLatencyIsASecondRequest) {
    StreamSink sink(sinkConfig());
    ASSERT_TRUE(sink.start());
    ASSERT_TRUE(getInfoFrom(sink, TimeValue::fromUs(2500)));
    auto latencies = sink.requestsOf(MessageType::LATENCY_REQ);
    ASSERT_EQ(latencies.size(), 2u);
    EXPECT_EQ(latencies[0].value, 0u);
    EXPECT_EQ(latencies[1].value, 25u);
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

TEST_F(SyncSetup, SilenceOnModeAndSizeKeepsTheDefaults) {
    StreamSinkConfig config = sinkConfig();
    config.answerSynchroChannel = false;
    config.answerDataSize = false;
    StreamSink sink(config);
    ASSERT_TRUE(sink.start());
    ASSERT_TRUE(getInfoFrom(sink, TimeValue(), 9000));
    EXPECT_EQ(sync.msMode, msModeNone);
    EXPECT_EQ(sync.smtu, 1500);
    EXPECT_EQ(sync.maxPacketSize, 1432);
    EXPECT_EQ(sync.maxPacketCount, 10);
}

TEST_F(SyncSetup, PayloadSizePerTransferMode) {
    struct Case {
        bool answers;
        std::uint16_t msa;
        std::uint32_t mode;
        std::uint16_t payload;
    };
    for (Case c : {Case{false, 0, msModeNone, 8936}, Case{true, 0, msMode1, 8951},
                   Case{true, channelOffersMode2, msMode2, 8950},
                   Case{true, channelOffersRawFrames, msMode1, 8951}}) {  // no raw path on ::1
        StreamSinkConfig config = sinkConfig();
        config.answerSynchroChannel = c.answers;
        config.msa = c.msa;
        config.dataReq = 9000;
        config.cycleDataMax = 0xFFFF;
        StreamSink sink(config);
        ASSERT_TRUE(sink.start());
        ASSERT_TRUE(getInfoFrom(sink, TimeValue(), 9000));
        EXPECT_EQ(sync.smtu, 9000);
        EXPECT_EQ(sync.msMode, c.mode);
        EXPECT_EQ(sync.maxPacketSize, c.payload);
        EXPECT_EQ(sync.maxPacketCount, 0xFFFF);
    }
}

TEST_F(SyncSetup, ProbeSettlesOnWhatThePathCarries) {
    struct Case {
        std::uint16_t req;
        std::uint32_t max;
        std::uint32_t linkMtu;
        std::uint32_t measured;
        std::uint16_t smtu;
        std::set<std::uint32_t> probeFrames;  // sizes of the probe frames sent
    };
    for (const Case& c : {
             Case{8000, 0, 0, 9000, 8000, {7952}},              // the size asked for, below the path's
             Case{8000, 9000, 8500, 9000, 8000, {8952, 7952}},  // the greatest is lost, the asked one passes
             Case{8000, 0, 1500, 9000, 1500, {7952}},           // nothing larger passes
             Case{8000, 0, 0, 1500, 1500, {}},                  // the measured path is the limit
             Case{8000, 70000, 0, 70000, 8000, {7952}},         // beyond 16 bits isn't tried
         }) {
        StreamSinkConfig config = sinkConfig();
        config.dataReq = c.req;
        config.dataMax = c.max;
        config.linkMtu = c.linkMtu;
        StreamSink sink(config);
        ASSERT_TRUE(sink.start());
        ASSERT_TRUE(getInfoFrom(sink, TimeValue(), c.measured));
        EXPECT_EQ(sync.smtu, c.smtu) << c.max << " " << c.linkMtu;
        std::set<std::uint32_t> frames;
        for (const auto& request : sink.requestsOf(MessageType::DATASIZE_REQ)) {
            if (request.size > 16) frames.insert(request.size);
        }
        EXPECT_EQ(frames, c.probeFrames) << c.max << " " << c.linkMtu;
    }
}

TEST_F(SyncSetup, NoProbeFlagKeeps1500) {
    ASSERT_TRUE(sync.open(ThreadFlag::noProbe, TimeValue::fromMs(100), 0, "studio", 1, -1, -1, 0));
    StreamSinkConfig config = sinkConfig();
    config.dataReq = 8000;
    StreamSink sink(config);
    ASSERT_TRUE(sink.start());
    ASSERT_TRUE(getInfoFrom(sink, TimeValue(), 9000));
    EXPECT_EQ(sync.smtu, 1500);
    EXPECT_EQ(sync.dataReq, 8000);
    EXPECT_EQ(sink.requestsOf(MessageType::DATASIZE_REQ).size(), 1u);
}

// A sink on [::1] whose DATASIZE answers echo probes with a sum off by one
// for the sizes in `damaged`; every other set-up question gets a plain answer.
class DamagingSink {
  public:
    NORVA::UDPV6 socket;
    IPAddress address = IPAddress::loopback(0);
    std::vector<std::uint32_t> damaged;
    std::atomic<bool> stop{false};
    std::thread thread;

    explicit DamagingSink(std::vector<std::uint32_t> damagedFrames) : damaged(std::move(damagedFrames)) {
        EXPECT_TRUE(socket.openNonBlocking());
        EXPECT_TRUE(socket.bind(address));
        thread = std::thread([this] { serve(); });
    }
    ~DamagingSink() {
        stop = true;
        thread.join();
    }

  private:
    void serve() {
        std::vector<std::uint8_t> data(65536);
        while (!stop) {
            std::size_t received = 0;
            IPAddress from;
            if (socket.waitReadable(TimeValue::fromMs(5)) != 2 ||
                !socket.receiveFrom(data.data(), data.size(), received, from) || received == 0) {
                continue;
            }
            Receive request(data.data(), std::uint32_t(received));
            SendBuffer reply;
            answer(request, reply);
            socket.sendTo(from, true, reply.bytes.data, reply.bytes.size);
        }
    }
    void answer(const Receive& request, SendBuffer& reply) {
        switch (request.type()) {
            case MessageType::FORMAT_REQ:
                buildFormatAnswer(reply, request.paramU64() == 0 ? 0x800 : sinkPcm.value);
                return;
            case MessageType::LATENCY_REQ:
                buildLatencyAnswer(reply, {40, 7, 3000});
                return;
            case MessageType::DATASIZE_REQ: {
                DataSizeAnswer sizes{64, 0xFFFF, 8000, 0, false, 0, true, 9000};
                if (isDataSizeProbe(request)) {
                    sizes.hasProbeSize = true;
                    sizes.probeSize = request.size;
                    sizes.probeSum = probeSum(request.body(), request.size - 16);
                    for (std::uint32_t size : damaged) {
                        if (size == request.size) ++sizes.probeSum;
                    }
                }
                buildDataSizeAnswer(reply, sizes);
                return;
            }
            default:
                buildEmptyAnswer(reply, request.type());
        }
    }
};

TEST_F(SyncSetup, AProbeWithAWrongSumFallsBack) {
    {
        DamagingSink sink({9000 - 48});
        ASSERT_TRUE(sync.getInfo(sink.address, TimeValue(), false, 9000));
        EXPECT_EQ(sync.smtu, 8000) << "the greatest is damaged, the asked size passes";
    }
    {
        DamagingSink sink({9000 - 48, 8000 - 48});
        ASSERT_TRUE(sync.getInfo(sink.address, TimeValue(), false, 9000));
        EXPECT_EQ(sync.smtu, 1500);
        EXPECT_EQ(sync.maxPacketSize, 1451) << "mode1: the answer was empty of bits";
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
        ASSERT_TRUE(sync.format.setFormat(stereoS32At48k));
        sync.profiles[0].cycle = TimeValue::fromUs(1000);
        sync.profiles[0].packetCount = 1;
        sync.profiles[0].sizeQ14 = 48u << 14;
        sync.profileCount = 1;
    }
    std::uint16_t preparedLatency() {
        auto prepared = sink.requestsOf(MessageType::CONNECTPRE_REQ);
        EXPECT_EQ(prepared.size(), 1u);
        return prepared.empty() ? 0 : std::uint16_t(prepared.back().value >> 16);
    }
};

TEST_F(SyncConnect, PrepareAsksForEightCyclesAtLeast) {
    sync.latency = 50;
    ASSERT_TRUE(sync.connectPrepare());
    EXPECT_EQ(preparedLatency(), 80);
    EXPECT_EQ(sync.latency, 50) << "the answer isn't stored";
    ConnectName name = sink.connectName();
    EXPECT_EQ(name.name, "studio");
    EXPECT_EQ(name.productId, 0x4B45u);
}

TEST_F(SyncConnect, PrepareKeepsWithinTheSinksGreatestLatency) {
    sync.latency = 50;
    for (std::uint16_t greatest : {60, 0}) {
        sync.latencyMax = greatest;
        ASSERT_TRUE(sync.connectPrepare());
        auto prepared = sink.requestsOf(MessageType::CONNECTPRE_REQ);
        ASSERT_FALSE(prepared.empty());
        EXPECT_EQ(std::uint16_t(prepared.back().value >> 16), greatest) << "a greatest of 0 is a limit too";
    }
}

TEST_F(SyncConnect, PrepareKeepsALatencyOfEightCycles) {
    sync.latency = 80;
    ASSERT_TRUE(sync.connectPrepare());
    EXPECT_EQ(preparedLatency(), 80);
}

TEST_F(SyncConnect, PrepareRefusesAnUnplannedProfile) {
    sync.profiles[0].cycle = TimeValue();
    EXPECT_FALSE(sync.connectPrepare());
    EXPECT_TRUE(sink.requestsOf(MessageType::CONNECTPRE_REQ).empty());
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

    // Left without a word, as the destructor leaves it.
    sync.connectState = Sync::idle;
    sync.joinWorker();
    {
        std::lock_guard<std::mutex> lock(sync.statesMutex);
        ASSERT_FALSE(sync.states.empty());
        EXPECT_EQ(sync.states.front(), Sync::connected);
        EXPECT_EQ(sync.states.back(), Sync::idle);
    }

    // The same object connects again.
    ASSERT_TRUE(sync.connect());
    EXPECT_TRUE(sync.connectWait());
    sync.connectState = Sync::idle;
    sync.joinWorker();
    EXPECT_EQ(sink.requestsOf(MessageType::MSCONNECT_REQ).size(), 2u);
}

TEST_F(SyncConnect, ConnectRefusesAnInvalidStreamFormat) {
    sync.format.streamFormat = FormatID(0x806u, 0x000Cu);  // two channel counts
    EXPECT_FALSE(sync.connect());
    EXPECT_FALSE(sync.workerThread.joinable());
    EXPECT_EQ(sync.connectState, Sync::idle);
}

// A worker that never reports back.
class SilentWorkerSync : public TestSync {
  public:
    bool startWorker() override { return true; }
};

TEST(SyncConnectWait, GivesUpAfterItsLimit) {
    LogCapture log;
    SilentWorkerSync sync;
    sync.format.streamFormat = stereoS32At48k;
    sync.connectWaitLimit = TimeValue::fromMs(30);
    ASSERT_TRUE(sync.connect());
    EXPECT_TRUE(sync.connectWait());
    EXPECT_EQ(sync.connectState, Sync::starting);
    EXPECT_TRUE(log.has("connectWait timeout"));
    EXPECT_TRUE(log.has("connectWait 1"));
}

}  // namespace

#include "Stream/SyncWorker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>

#include "LogCapture.h"
#include "Protocol/MessageTypes.h"
#include "SyncWorkerPeer.h"
#include "System/Threads.h"
#include "TestFormats.h"
#include "WorkerPriority.h"

namespace {

using NORVA::TimeValue;
using namespace VELMORA;

constexpr std::uint32_t frameBytes = 8;

// Byte n of the source; never the silence byte, so the audio's start and
// end stand out in what the sink got.
std::uint8_t patternByte(std::uint64_t n) {
    return std::uint8_t(1 + n % 251);
}

// A Sync whose source is a counted run of the pattern, handed out in chunks
// that don't line up with packets.
class PatternSync : public Sync {
  public:
    std::uint64_t sourceBytes = 0;  // then getBuffer fails
    std::atomic<std::uint64_t> given{0};
    std::atomic<std::uint32_t> cycles{0};

    PatternSync() {
        EXPECT_TRUE(open(0, TimeValue::fromMs(100), 0, "worker test", 1, -1, -1, 0));
        format.sink.pcm = FormatID(0xE06u, 0x003Eu);
        EXPECT_TRUE(format.setFormat(stereoS32At48k));
        profiles[0].cycle = TimeValue::fromUs(1000);
        profiles[0].packetCount = 2;
        profiles[0].sizeQ14 = 24u << 14;  // 48 frames a millisecond
        profiles[0].dataSize = 24 * frameBytes;
        profiles[0].mode = transferFix;
        profileCount = 1;
    }
    ~PatternSync() override {
        connectState = idle;
        joinWorker();
    }

    bool getBuffer(StreamChunk& out) override {
        if (given >= sourceBytes) return false;
        std::uint64_t at = given;
        std::uint32_t size = std::uint32_t(std::min<std::uint64_t>(chunk.size(), sourceBytes - at));
        for (std::uint32_t i = 0; i < size; ++i) chunk[i] = patternByte(at + i);
        given = at + size;
        out = {chunk.data(), size};
        return true;
    }
    bool onCycle() override {
        ++cycles;
        return true;
    }

    bool waitForEnd(std::chrono::seconds limit) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (connectState != idle) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            NORVA::sleepMilliseconds(2);
        }
        joinWorker();
        return true;
    }
    bool waitForCycles(std::uint32_t count) {
        for (int i = 0; i < 5000 && cycles < count; ++i) NORVA::sleepMilliseconds(2);
        return cycles >= count;
    }

  private:
    std::array<std::uint8_t, 1000> chunk{};
};

class SyncWorkerStream : public ::testing::Test {
  protected:
    SinkScript script;
    PatternSync sync;

    void SetUp() override {
#ifdef _WIN32
        // Under Wine a wait for 1 ms lasts a timer tick of about 15 ms: too
        // slow for the receive timeout these scripts are built around.
        GTEST_SKIP() << "millisecond cycles need a native timer";
#endif
        if (!workerPriorityGranted()) GTEST_SKIP() << "the system refuses the worker's priority";
    }

    void connectTo(ScriptedSink& sink, std::uint64_t bytes = ~0ull) {
        sync.sourceBytes = bytes;
        sync.targetAddress = sink.address;
        sync.debugAddress = sink.address;
        ASSERT_TRUE(sync.connect());
        ASSERT_TRUE(sync.connectWait());
        ASSERT_EQ(sync.connectState, Sync::connected);
    }

    // Plays `bytes` of the source, asks for the end and waits for it.
    void playAndEnd(ScriptedSink& sink, std::uint64_t bytes) {
        connectTo(sink, bytes);
        sync.play();
        sync.requestDisconnect();
        ASSERT_TRUE(sync.waitForEnd(std::chrono::seconds(20)));
        EXPECT_TRUE(sync.disconnectWait());
    }

    // The stream as the sink has it: silence, the source in order and, if
    // it was played whole (`bytes` not 0), silence after it.
    static void expectPattern(const std::vector<std::uint8_t>& stream, std::uint64_t bytes = 0) {
        auto first = std::find_if(stream.begin(), stream.end(), [](std::uint8_t b) { return b != 0; });
        std::size_t lead = std::size_t(first - stream.begin());
        EXPECT_EQ(lead % frameBytes, 0u);
        std::uint64_t end = bytes == 0 ? stream.size() - lead : bytes;
        ASSERT_GE(stream.size(), lead + end);
        std::size_t wrong = 0;
        for (std::uint64_t n = 0; n < end; ++n) wrong += stream[lead + n] != patternByte(n);
        EXPECT_EQ(wrong, 0u) << "bytes out of place";
        EXPECT_TRUE(std::all_of(stream.begin() + std::ptrdiff_t(lead + end), stream.end(),
                                [](std::uint8_t b) { return b == 0; }))
            << "after the source, silence";
    }
};

TEST_F(SyncWorkerStream, PlaysTheSourceOutInOrderAndDisconnects) {
    LogCapture log;
    ScriptedSink sink(script);
    playAndEnd(sink, 100'000);
    expectPattern(sink.stream(), 100'000);

    std::vector<ScriptedSink::Packet> packets = sink.arrivals();
    ASSERT_FALSE(packets.empty());
    for (std::size_t i = 0; i < packets.size(); ++i) {
        ASSERT_EQ(packets[i].seq, std::uint16_t(i)) << "no loss, no resend";
        EXPECT_EQ(packets[i].body.size(), 24 * frameBytes);
    }
    EXPECT_GE(sink.count(MessageType::DISCONNECT_REQ), 1u);
    // Once the source is out, feedback is asked for exactly once more.
    auto lastAudio = std::find_if(packets.rbegin(), packets.rend(), [](const ScriptedSink::Packet& packet) {
        return std::any_of(packet.body.begin(), packet.body.end(), [](std::uint8_t b) { return b != 0; });
    });
    ASSERT_NE(lastAudio, packets.rend());
    EXPECT_EQ(std::count_if(packets.rbegin(), lastAudio,
                            [](const ScriptedSink::Packet& packet) { return packet.wantsFeedback; }),
              1);
    EXPECT_TRUE(log.has("DISCONNECT_REQ done"));
    EXPECT_EQ(sync.connectState, Sync::idle);
}

TEST_F(SyncWorkerStream, LostPacketsAreSentAgainFromThePool) {
    LogCapture log;
    script.lose = {30, 31, 90};
    ScriptedSink sink(script);
    playAndEnd(sink, 100'000);
    expectPattern(sink.stream(), 100'000);
    EXPECT_TRUE(log.hasPrefix("   count resend 30"));

    // A packet that comes again is the same packet.
    std::map<std::uint16_t, std::vector<std::uint8_t>> firstCopy;
    std::size_t repeats = 0;
    for (const ScriptedSink::Packet& packet : sink.arrivals()) {
        auto [it, fresh] = firstCopy.emplace(packet.seq, packet.body);
        if (fresh) continue;
        ++repeats;
        EXPECT_EQ(it->second, packet.body) << "sequence " << packet.seq;
    }
    EXPECT_GT(repeats, 0u) << "go-back-N repeats what followed the gap";
}

TEST_F(SyncWorkerStream, ARequestOlderThanThePoolEndsTheStream) {
    LogCapture log;
    ScriptedSink sink(script);
    connectTo(sink);
    sync.play();
    ASSERT_TRUE(sync.waitForCycles(20));
    // Ahead of what was sent: the distance wraps past any pool.
    sink.askFrom({std::uint16_t(sink.arrivals().back().seq + 200)});
    ASSERT_TRUE(sync.waitForEnd(std::chrono::seconds(10)));
    EXPECT_TRUE(log.hasPrefix("   count error "));
    EXPECT_EQ(sink.count(MessageType::DISCONNECT_REQ), 0u);
}

// Of resend requests in one cycle's answers the last one's count stands,
// whether it reaches back further or less far than the others. A busy
// machine may split them over two cycles: the last going back stands either way.
TEST_F(SyncWorkerStream, OfResendRequestsReadTogetherTheLastStands) {
    ScriptedSink sink(script);
    connectTo(sink);
    sync.play();
    for (std::uint16_t back : {std::uint16_t(12), std::uint16_t(30)}) {
        SCOPED_TRACE(back);
        ASSERT_TRUE(sync.waitForCycles(sync.cycles + 50));
        std::vector<ScriptedSink::Packet> packets = sink.arrivals();
        std::size_t before = packets.size();
        std::uint16_t newest = packets.back().seq;
        const std::uint16_t last = std::uint16_t(newest - back);
        sink.askFrom({std::uint16_t(newest - 20), std::uint16_t(newest - 40), last});
        ASSERT_TRUE(sync.waitForCycles(sync.cycles + 200));
        packets = sink.arrivals();
        std::uint16_t highest = newest, previous = newest;
        std::int32_t lastWentBackTo = -1;
        for (std::size_t i = before; i < packets.size(); ++i) {
            std::uint16_t seq = packets[i].seq;
            if (seq != std::uint16_t(previous + 1) && std::int16_t(seq - highest) <= 0) lastWentBackTo = seq;
            if (std::int16_t(seq - highest) > 0) highest = seq;
            previous = seq;
        }
        EXPECT_EQ(lastWentBackTo, last);
    }
    sync.stop();
    sync.disconnect();
    ASSERT_TRUE(sync.waitForEnd(std::chrono::seconds(10)));
}

// The sink's polarity, told in its feedback, and the host's, read at each
// feedback, combine into what the worker sends from then on: silence here,
// NOT of its byte while the stream plays inverted.
TEST_F(SyncWorkerStream, PhaseChangesInTheFeedbackTurnTheStreamOver) {
    const struct {
        bool sink, host;
        std::uint8_t silence;
    } steps[] = {{false, false, 0x00}, {true, false, 0xFF}, {true, true, 0x00}, {false, true, 0xFF}};
    ScriptedSink sink(script);
    connectTo(sink, 0);  // not playing: silence flows
    for (const auto& step : steps) {
        SCOPED_TRACE(testing::Message() << "sink " << step.sink << " host " << step.host);
        script.invert = step.sink;
        sync.format.hostInvert = step.host;
        ASSERT_TRUE(sync.waitForCycles(sync.cycles + 250));  // feedback comes every 100 ms
        const std::vector<std::uint8_t> newest = sink.arrivals().back().body;
        EXPECT_TRUE(
            std::all_of(newest.begin(), newest.end(), [&](std::uint8_t b) { return b == step.silence; }));
    }
    sync.requestDisconnect();
    ASSERT_TRUE(sync.waitForEnd(std::chrono::seconds(10)));
}

TEST_F(SyncWorkerStream, ATargetThatGoesSilentEndsTheStreamWithoutDisconnect) {
    LogCapture log;
    ScriptedSink sink(script);
    connectTo(sink, 0);
    ASSERT_TRUE(sync.waitForCycles(20));
    script.silent = true;
    ASSERT_TRUE(sync.waitForEnd(std::chrono::seconds(10)));
    EXPECT_TRUE(log.hasPrefix("   timeout "));
    EXPECT_EQ(sink.count(MessageType::DISCONNECT_REQ), 0u);
    EXPECT_FALSE(sync.disconnectWait()) << "nobody asked for the end";
}

TEST_F(SyncWorkerStream, ASourceThatFailsWhileConnectedEndsTheStream) {
    LogCapture log;
    ScriptedSink sink(script);
    connectTo(sink, 5000);
    sync.play();
    ASSERT_TRUE(sync.waitForEnd(std::chrono::seconds(10)));
    EXPECT_TRUE(log.has("buffer timeout"));
    EXPECT_EQ(sink.count(MessageType::DISCONNECT_REQ), 0u);
}

TEST_F(SyncWorkerStream, DisconnectGivesUpOnATargetThatDoesNotAnswer) {
    LogCapture log;
    script.answerDisconnect = false;
    ScriptedSink sink(script);
    playAndEnd(sink, 2000);
    EXPECT_TRUE(log.has("DISCONNECT_REQ ERROR "));
    EXPECT_GT(sink.count(MessageType::DISCONNECT_REQ), 5u) << "asked again while waiting";
}

// Feedback drives the packet size: a target that holds too much gets less,
// but no less and no more than the clamp allows.
class SyncWorkerFeedback : public SyncWorkerStream, public ::testing::WithParamInterface<std::int16_t> {};

TEST_P(SyncWorkerFeedback, MovesPacketSizesTheRightWay) {
    script.deviation = GetParam();
    ScriptedSink sink(script);
    sync.infoRequestTime = TimeValue::fromMs(1);  // ask on every 16th cycle
    connectTo(sink);
    sync.play();
    while (sink.feedbackRequests() < 30 && sync.connectState == Sync::connected) NORVA::sleepMilliseconds(5);
    sync.connectState = Sync::idle;
    ASSERT_TRUE(sync.waitForEnd(std::chrono::seconds(10)));

    std::vector<ScriptedSink::Packet> packets = sink.arrivals();
    ASSERT_GT(packets.size(), 100u);
    std::uint64_t lateBytes = 0;
    for (std::size_t i = packets.size() - 40; i < packets.size(); ++i) lateBytes += packets[i].body.size();
    double perPacket = double(lateBytes) / 40 / frameBytes;
    if (GetParam() > 0) {
        EXPECT_LT(perPacket, 24.0);
        EXPECT_GE(perPacket, 21.0);
    } else {
        EXPECT_GT(perPacket, 24.0);
        EXPECT_LE(perPacket, 25.0);
    }
    expectPattern(sink.stream());
}

INSTANTIATE_TEST_SUITE_P(Deviations, SyncWorkerFeedback, ::testing::Values(4096, -4096));

}  // namespace

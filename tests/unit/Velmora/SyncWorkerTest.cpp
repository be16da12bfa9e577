#include "Stream/SyncWorker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <initializer_list>
#include <mutex>
#include <set>
#include <vector>

#include "AllocationCounter.h"
#include "FindPeer.h"
#include "LogCapture.h"
#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"
#include "Stream/StreamMessages.h"
#include "System/Log.h"
#include "TestStream.h"

namespace {

using NORVA::TimeValue;
using namespace VELMORA;

constexpr std::uint32_t frameBytes = 8;

// A scripted sink: it answers the connect, takes header-framed packets
// strictly in order (go-back-N), asks again after a gap, answers feedback
// requests with the script's deviation, and answers DISCONNECT_REQ.
struct SinkScript {
    std::int16_t deviation = 0;       // Q14, reported on each feedback request
    std::set<std::uint16_t> lose;     // sequence numbers lost on their first trip
    std::atomic<bool> invert{false};  // feedback tells of a sink that inverts
};

class ScriptedSink {
  public:
    struct Packet {
        std::uint16_t seq;
        std::vector<std::uint8_t> body;
        bool wantsFeedback;
    };
    explicit ScriptedSink(SinkScript& script) : script(script) {}
    // Everything accepted in order.
    std::vector<std::uint8_t> stream() { return locked(accepted); }
    std::vector<Packet> arrivals() { return locked(arrived); }
    std::size_t disconnects() { return peer.requestsOf(MessageType::DISCONNECT_REQ).size(); }
    // Answers the next feedback request with resend requests for each of
    // `froms`, back to back.
    void askFrom(std::initializer_list<std::uint16_t> froms) {
        std::lock_guard<std::mutex> lock(mutex);
        forcedResends.assign(froms);
    }

  private:
    template <class T>
    T locked(const T& value) {
        std::lock_guard<std::mutex> lock(mutex);
        return value;
    }
    void message(FindPeer& self, const Receive& frame) {
        SendBuffer reply;
        switch (frame.type()) {
            case MessageType::CONNECT_REQ: {
                ConnectAnswer route;
                route.statusPort = self.address.port();
                buildConnectAnswer(reply, frame.type(), route);
                return self.reply(reply);
            }
            case MessageType::STREAM_DATA:
                return packet(self, frame);
            case MessageType::DISCONNECT_REQ:
            case MessageType::HOSTDEBUG_REQ:
            case MessageType::SYNCHRO_STATUS_REQ:
                buildEmptyAnswer(reply, frame.type());
                return self.reply(reply);
        }
    }
    void packet(FindPeer& self, const Receive& frame) {
        const std::uint16_t seq = frame.param0();
        const bool wantsFeedback = (frame.flags() & streamWantsFeedback) != 0;
        if (script.lose.erase(seq) != 0) return;
        std::vector<std::uint16_t> forced;
        {
            std::lock_guard<std::mutex> lock(mutex);
            arrived.push_back({seq, std::vector<std::uint8_t>(frame.body(), frame.body() + frame.bodySize()),
                               wantsFeedback});
            if (seq == expected) {
                accepted.insert(accepted.end(), frame.body(), frame.body() + frame.bodySize());
                ++expected;
                gapReported = false;
            } else if (std::int16_t(seq - expected) > 0 && !gapReported) {
                gapReported = true;
                self.reply(MessageType::STREAM_ANS, streamAnswerResend, 0, expected, seq);
            }
            if (!wantsFeedback) return;
            forced.swap(forcedResends);
        }
        for (std::uint16_t resendFrom : forced)
            self.reply(MessageType::STREAM_ANS, streamAnswerResend, 0, resendFrom, 0);
        if (forced.empty())
            self.reply(MessageType::STREAM_ANS, script.invert ? 0x100 : 0,
                       std::uint16_t(0x2000 + script.deviation / 2), 0, 0);
    }
    SinkScript& script;
    std::mutex mutex;
    std::uint16_t expected = 0;
    bool gapReported = false;
    std::vector<std::uint8_t> accepted;
    std::vector<Packet> arrived;
    std::vector<std::uint16_t> forcedResends;

  public:
    // Last, so that its thread starts on a whole object.
    FindPeer peer{[this](FindPeer& self, const Receive& frame) { message(self, frame); }};
};

// The pattern's source, counting the worker's cycles.
class WorkerSync : public PatternSync {
  public:
    std::atomic<std::uint32_t> cycles{0};
    WorkerSync() {
        EXPECT_TRUE(open(0, TimeValue::fromMs(100), 0, "worker test", 1, -1, -1, 0));
        planTestStream(*this);
    }
    ~WorkerSync() override {  // before the object stops being a WorkerSync
        connectState = idle;
        joinWorker();
    }
    // The worker's own allocations at cycles 40 and 340.
    std::size_t allocationsAt[2] = {};
    bool onCycle() override {
        std::uint32_t cycle = ++cycles;
        if (cycle == 40 || cycle == 340) allocationsAt[cycle / 300] = allocationsOnThisThread();
        return true;
    }
    bool waitForEnd() {
        if (!eventually([this] { return connectState == idle; })) return false;
        joinWorker();
        return true;
    }
    bool waitForCycles(std::uint32_t count) {
        return eventually([&] { return cycles >= count; });
    }
};

class SyncWorkerStream : public TimedStreamTest<> {
  protected:
    SinkScript script;
    WorkerSync sync;
    void connectTo(ScriptedSink& sink, std::uint64_t bytes = ~0ull) {
        sync.sourceBytes = bytes;
        sync.targetAddress = sink.peer.address;
        sync.debugAddress = sink.peer.address;
        ASSERT_TRUE(sync.connect());
        ASSERT_TRUE(sync.connectWait());
        ASSERT_EQ(sync.connectState, Sync::connected);
    }
};

TEST_F(SyncWorkerStream, PlaysTheSourceOutInOrderAndDisconnects) {
    LogCapture log;
    ScriptedSink sink(script);
    constexpr std::ptrdiff_t bytes = 100'000;
    connectTo(sink, bytes);
    sync.play();
    sync.requestDisconnect();
    ASSERT_TRUE(sync.waitForEnd());
    EXPECT_TRUE(sync.disconnectWait());
    // Silence, the source in order, and silence.
    const std::vector<std::uint8_t> stream = sink.stream();
    const auto lead = std::find_if(stream.begin(), stream.end(), [](std::uint8_t b) { return b != 0; });
    EXPECT_EQ((lead - stream.begin()) % frameBytes, 0u);
    ASSERT_GE(stream.end() - lead, bytes);
    std::size_t wrong = 0;
    for (std::ptrdiff_t n = 0; n < bytes; ++n) wrong += lead[n] != patternByte(std::uint64_t(n));
    EXPECT_EQ(wrong, 0u) << "bytes out of place";
    EXPECT_TRUE(std::all_of(lead + bytes, stream.end(), [](std::uint8_t b) { return b == 0; }));
    std::vector<ScriptedSink::Packet> packets = sink.arrivals();
    ASSERT_FALSE(packets.empty());
    for (std::size_t i = 0; i < packets.size(); ++i) {
        ASSERT_EQ(packets[i].seq, std::uint16_t(i)) << "no loss, no resend";
        EXPECT_EQ(packets[i].body.size(), 24 * frameBytes);
    }
    // Once the source is out, feedback is asked for exactly once more.
    auto lastAudio = std::find_if(packets.rbegin(), packets.rend(), [](const ScriptedSink::Packet& packet) {
        return std::any_of(packet.body.begin(), packet.body.end(), [](std::uint8_t b) { return b != 0; });
    });
    ASSERT_NE(lastAudio, packets.rend());
    EXPECT_EQ(std::count_if(packets.rbegin(), lastAudio,
                            [](const ScriptedSink::Packet& packet) { return packet.wantsFeedback; }),
              1);
    EXPECT_TRUE(log.has("DISCONNECT_REQ done"));
}

// A source that fails while connected, or a resend request from further back than the pool holds,
// ends the stream without a word to the sink; the same object connects again after either.
TEST_F(SyncWorkerStream, AFailingSourceOrAnImpossibleResendEndsTheStream) {
    for (bool sourceFails : {true, false}) {
        SCOPED_TRACE(sourceFails ? "the source fails" : "a resend beyond the pool");
        LogCapture log;
        ScriptedSink sink(script);
        connectTo(sink, sourceFails ? 5000 : ~0ull);
        sync.play();
        if (!sourceFails) {
            ASSERT_TRUE(sync.waitForCycles(sync.cycles + 20));
            // Ahead of what was sent: the distance wraps past any pool.
            sink.askFrom({std::uint16_t(sink.arrivals().back().seq + 200)});
        }
        ASSERT_TRUE(sync.waitForEnd());
        EXPECT_TRUE(log.hasPrefix(sourceFails ? "buffer timeout" : "   count error "));
        EXPECT_EQ(sink.disconnects(), 0u);
    }
}

// Of resend requests read together the last one stands, whether it reaches
// back further or less far than the others.
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
    ASSERT_TRUE(sync.waitForEnd());
}

// The sink's polarity (in its feedback) and the host's combine into what the
// worker sends: silence here, NOT of its byte while inverted.
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
    ASSERT_TRUE(sync.waitForEnd());
}

// The cycle allocates nothing, through sends, waits, feedback, resends and
// the carry of a fractional packet size.
TEST_F(SyncWorkerStream, TheCycleAllocatesNothing) {
    const std::int32_t threshold = NORVA::logThreshold.load();
    NORVA::logThreshold = 3;  // lines that pass the threshold may allocate
    script.deviation = 3000;
    for (std::uint16_t seq = 100; seq < 600; seq += 97) script.lose.insert(seq);
    ScriptedSink sink(script);
    sync.infoRequestTime = TimeValue::fromMs(1);
    sync.profiles[0].sizeQ14 = 722534;  // 44.1 frames
    connectTo(sink);
    sync.play();
    bool measured = sync.waitForCycles(341);
    sync.stop();
    sync.requestDisconnect();
    EXPECT_TRUE(sync.waitForEnd());
    NORVA::logThreshold = threshold;
    ASSERT_TRUE(measured);
    EXPECT_EQ(sync.allocationsAt[1] - sync.allocationsAt[0], 0u);
    const std::vector<ScriptedSink::Packet> packets = sink.arrivals();
    EXPECT_GT(std::count_if(packets.begin(), packets.end(),
                            [](const auto& packet) { return packet.wantsFeedback; }),
              5)
        << "feedback came in the window";
}

}  // namespace

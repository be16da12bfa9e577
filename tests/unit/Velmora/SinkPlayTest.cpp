// The playing side of a sink on the test's time, read back as the host reads it.
#include "Sink/SinkPlayout.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"
#include "Stream/StreamMessages.h"
#include "Stream/SyncFeedback.h"
#include "TestFormats.h"

namespace {

using namespace VELMORA;
using Clock = SinkPlayout::Clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr std::uint32_t frameBytes = 8;
constexpr std::uint32_t framesPerPacket = 48;  // 1 ms
constexpr std::uint32_t latencyUs = 20000;     // centre 15 ms

// A started sink and a host's stream to it: one packet a millisecond of the host's clock.
struct Feed {
    SinkPlayout sink;
    Clock::time_point now = Clock::now();
    std::uint16_t next = 0;
    SinkPlayout::Packet packet;  // its compact tag and socket wait set by the test
    SinkPlayout::Answer answers[2] = {};
    std::vector<std::uint8_t> body = std::vector<std::uint8_t>(framesPerPacket * frameBytes, 1);
    explicit Feed(const SinkPlayConfig& config = {}, FormatID format = stereoS32At48k,
                  std::uint32_t latency = latencyUs)
        : sink(config) {
        EXPECT_TRUE(sink.start(format, latency));
    }
    int send(std::uint16_t sequence, bool feedback = false, bool queuedBehind = false) {
        packet.sequence = packet.compact ? std::uint16_t(sequence & 0x7F) : sequence;
        packet.wantsFeedback = feedback;
        packet.queuedBehind = queuedBehind;
        packet.body = body.data();
        packet.size = std::uint32_t(body.size());
        return sink.receive(packet, now, answers);
    }
    // `count` packets in order, `hostUs` apart.
    void stream(int count, std::int64_t hostUs = 1000) {
        for (int i = 0; i < count; ++i) {
            send(next++);
            now += microseconds(hostUs);
            sink.advance(now);
        }
    }
};

// The deviation the host reads from an answer, through its own reader.
StreamAnswer asHostReads(const SinkPlayout::Answer& answer) {
    SendBuffer frame;
    frame.setHeader(MessageType::STREAM_ANS, answer.resend ? streamAnswerResend : 0, answer.param0,
                    answer.param1, answer.param2, 0);
    frame.finish();
    return readStreamAnswer(Receive(frame.bytes.data, std::uint32_t(frame.bytes.size)));
}

// 3 s against the sink's clock: +5000 ppm drains the 15 ms centre; -1000 ppm
// leaves 3 ms over, less the 1 ms played since the last packet.
TEST(SinkPlay, ItsOwnClockDrainsOrFillsTheBuffer) {
    const struct {
        double ppm;
        double deviation, tolerance;
        bool underruns;
    } clocks[] = {
        {0, 0, 16384 / 8, false}, {5000, -16384, 0, true}, {-1000, 16384 * 2 / 15, 16384 / 30, false}};
    for (const auto& clock : clocks) {
        SinkPlayConfig config;
        config.ppm = clock.ppm;
        Feed feed(config);
        feed.stream(3000);
        SinkStats stats = feed.sink.stats();
        EXPECT_NEAR(feed.sink.deviation(), clock.deviation, clock.tolerance) << clock.ppm;
        EXPECT_EQ(stats.underruns > 0, clock.underruns) << clock.ppm;
        EXPECT_EQ(stats.packets, 3000u);
        EXPECT_EQ(stats.bytes, 3000u * framesPerPacket * frameBytes);
        EXPECT_EQ(stats.gaps, 0u);
    }
}

TEST(SinkPlay, FeedbackInEveryEncodingReadsAsTheSameDeviation) {
    for (int encoding : {1, 2, 3}) {
        SinkPlayConfig config;
        config.feedbackEncoding = encoding;
        Feed feed(config);
        feed.stream(15 + 4, 0);  // the centre and 4 ms more at once: the clock starts
        feed.stream(99);
        // 4.5 ms above the centre on the mean; over 99 ms, 19.8 ms read as 1.0.
        ASSERT_EQ(feed.send(feed.next++, true), 1);
        StreamAnswer read = asHostReads(feed.answers[0]);
        EXPECT_FALSE(read.resend);
        EXPECT_EQ(read.encoding, encoding);
        EXPECT_NEAR(read.deviation, 16384 * 4.5 / 19.8, 16) << encoding;
        // Half the interval, half the span.
        feed.now += milliseconds(1);
        feed.stream(49);
        ASSERT_EQ(feed.send(feed.next++, true), 1);
        EXPECT_NEAR(asHostReads(feed.answers[0]).deviation, 16384 * 4.5 / 10, 40) << encoding;
        EXPECT_EQ(feed.send(feed.next++, false), 0) << "no feedback unasked";
    }
}

// Frames at the format's rate: one-bit samples for DSD, no 32-bit overflow.
TEST(SinkPlay, TheBufferIsCountedInFramesOfTheFormatsRate) {
    struct Row {
        FormatID format;
        double capacity;  // frames in 20 ms
        double framesPerByte;
    } rows[] = {
        {stereoS32At48k, 960, 1.0 / 8},
        {FormatID(0x810u, 0x84u), 15360, 1.0 / 32},  // 768 kHz, 8 ch, 32 bit
        {FormatID(0x2510002u, 0x202u), 56448, 4},    // DSD64 stereo
        {FormatID(0x2510002u, 0x1002u), 451584, 4},  // DSD512 stereo
    };
    for (const Row& row : rows) {
        Feed feed({}, row.format);
        feed.body.assign(1024, 1);
        feed.send(0);
        feed.sink.advance(feed.now + milliseconds(100));
        SinkStats stats = feed.sink.stats();
        EXPECT_EQ(stats.capacity, row.capacity) << row.format.value;
        ASSERT_FALSE(stats.timeline.empty());
        EXPECT_EQ(double(stats.timeline[0].received), 1024 * row.framesPerByte) << row.format.value;
    }
}

// Taken late in a batch, stamped packets read as if taken on arrival; unstamped, lower.
TEST(SinkPlay, ABatchTakenLateCountsEachPacketFromItsArrival) {
    enum Taking { onArrival, lateStamped, lateUnstamped };
    std::int16_t reported[3] = {};
    for (Taking taking : {onArrival, lateStamped, lateUnstamped}) {
        Feed feed;
        feed.stream(15, 0);  // the centre, then 100 ms of 1 ms packets
        feed.stream(100);
        feed.send(feed.next++, true);  // the interval starts here
        Clock::time_point start = feed.now;
        for (int i = 1; i <= 5; ++i) {
            Clock::time_point arrival = start + milliseconds(i);
            feed.now = taking == onArrival ? arrival : start + milliseconds(5);
            feed.packet.waited = taking == lateStamped ? feed.now - arrival : Clock::duration::zero();
            feed.send(feed.next++, i == 5, taking != onArrival);
        }
        if (taking != onArrival) {
            ASSERT_EQ(feed.sink.settle(feed.now, feed.answers), 1);
        }
        reported[taking] = asHostReads(feed.answers[0]).deviation;
    }
    EXPECT_NEAR(reported[lateStamped], reported[onArrival], 2);
    EXPECT_LT(reported[lateUnstamped], reported[onArrival] - 100);
}

// The batch wait: as configured, within a fifth of the centre and 16 packets' time; none during a resend.
TEST(SinkPlay, TheBatchWaitIsBoundedAndStopsForAResend) {
    const struct {
        double configuredUs;
        std::uint32_t latencyUs;
        bool gap;
        std::int64_t expectedUs;
    } cases[] = {
        {0, latencyUs, false, 0},        // per packet
        {1000, latencyUs, false, 1000},  // as configured
        {9000, latencyUs, false, 3000},  // a fifth of the 15 ms centre
        {9000, 200000, false, 9000},     // 16 packets of 1 ms are further off
        {20000, 200000, false, 16000},   // ... and bind here
        {1000, latencyUs, true, 0},      // a resend under way
    };
    for (const auto& c : cases) {
        SinkPlayConfig config;
        config.batchWaitUs = c.configuredUs;
        Feed feed(config, stereoS32At48k, c.latencyUs);
        feed.stream(3);
        if (c.gap) feed.send(++feed.next);
        auto wait = std::chrono::duration_cast<microseconds>(feed.sink.batchWait(16)).count();
        EXPECT_NEAR(wait, c.expectedUs, 1) << c.configuredUs << " us, latency " << c.latencyUs;
    }
}

TEST(SinkPlay, AGapIsAskedForOnceUntilTheRetryAndDuplicatesAreDropped) {
    Feed feed;
    feed.stream(5);
    ASSERT_EQ(feed.send(6), 1);  // 5 is lost
    StreamAnswer read = asHostReads(feed.answers[0]);
    ASSERT_TRUE(read.resend);
    EXPECT_EQ(read.resendFrom, 5);
    EXPECT_EQ(feed.send(7), 0);
    feed.now += milliseconds(25);
    EXPECT_EQ(feed.send(8), 1) << "asked again after the retry time";
    // The host goes back to 5, but 5 is lost again: asked at once.
    feed.next = 6;
    EXPECT_EQ(feed.send(feed.next++), 1) << "the resend's head lost too";
    EXPECT_EQ(feed.send(feed.next++), 0);
    feed.next = 5;
    feed.stream(5);
    EXPECT_EQ(feed.send(3), 0);
    SinkStats stats = feed.sink.stats();
    EXPECT_EQ(stats.packets, 10u);
    EXPECT_EQ(stats.gaps, 1u);
    EXPECT_EQ(stats.resends, 3u);
    EXPECT_EQ(stats.outOfOrder, 5u);
    EXPECT_EQ(stats.duplicates, 1u);
}

TEST(SinkPlay, SevenBitTagsRebuildTheSequenceAcrossWraps) {
    Feed feed;
    feed.packet.compact = true;
    feed.stream(300);
    ASSERT_EQ(feed.send(364), 0) << "64 ahead of the next reads as 64 behind";
    ASSERT_EQ(feed.send(250), 0);  // 250 & 0x7F lies behind: a duplicate
    ASSERT_EQ(feed.send(301), 1);  // 300 missing
    EXPECT_EQ(asHostReads(feed.answers[0]).resendFrom, 300);
    SinkStats stats = feed.sink.stats();
    EXPECT_EQ(stats.packets, 300u);
    EXPECT_EQ(stats.duplicates, 2u);
}

}  // namespace

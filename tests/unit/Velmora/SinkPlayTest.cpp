// The playing side of a sink with time given by the test: sequence, gaps
// and resends, the clock and its buffer level, feedback as the host reads it.
#include "Sink/SinkPlayout.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "Protocol/MessageTypes.h"
#include "Protocol/Send.h"
#include "ScratchFile.h"
#include "Stream/StreamMessages.h"

namespace {

using namespace VELMORA;
using Clock = SinkPlayout::Clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

const FormatID stereoS32At48k(0x802u, 0x000Cu);
constexpr std::uint32_t frameBytes = 8;
constexpr std::uint32_t framesPerPacket = 48;  // 1 ms
constexpr std::uint32_t latencyUs = 20000;     // centre 10 ms

std::vector<std::uint8_t> packetBody(std::uint16_t sequence) {
    std::vector<std::uint8_t> body(framesPerPacket * frameBytes);
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = std::uint8_t(sequence * 7 + i);
    return body;
}

// A host's stream: one packet a millisecond of its own clock.
struct Feed {
    SinkPlayout& sink;
    Clock::time_point now = Clock::now();
    std::uint16_t next = 0;
    bool compact = false;
    SinkPlayout::Answer answers[2] = {};

    explicit Feed(SinkPlayout& target) : sink(target) {}

    int send(std::uint16_t sequence, bool feedback = false) {
        std::vector<std::uint8_t> body = packetBody(sequence);
        SinkPlayout::Packet packet;
        packet.sequence = compact ? std::uint16_t(sequence & 0x7F) : sequence;
        packet.compact = compact;
        packet.wantsFeedback = feedback;
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

TEST(SinkPlay, ANominalStreamStaysCentredWithoutUnderrun) {
    SinkPlayout sink({});
    ASSERT_TRUE(sink.start(stereoS32At48k, latencyUs));
    Feed feed{sink};
    feed.stream(2000);
    SinkStats stats = sink.stats();
    EXPECT_TRUE(stats.playing);
    EXPECT_EQ(stats.packets, 2000u);
    EXPECT_EQ(stats.bytes, 2000u * framesPerPacket * frameBytes);
    EXPECT_EQ(stats.underruns, 0u);
    EXPECT_EQ(stats.gaps, 0u);
    EXPECT_LT(std::abs(sink.deviation()), 16384 / 8);
    EXPECT_GE(stats.deviation.size(), 19u);  // a sample each 100 ms
    EXPECT_LT(stats.jitterUs, 1.0);
}

TEST(SinkPlay, ItsOwnClockDrainsOrFillsTheBuffer) {
    SinkPlayConfig fast;
    fast.ppm = 5000;
    SinkPlayout sink(fast);
    sink.start(stereoS32At48k, latencyUs);
    Feed feed{sink};
    feed.stream(3000);
    // 3 s at +5000 ppm plays 15 ms more than came: past the 10 ms centre.
    EXPECT_EQ(sink.deviation(), -16384);
    EXPECT_GE(sink.stats().underruns, 1u);

    SinkPlayConfig slow;
    slow.ppm = -1000;
    SinkPlayout late(slow);
    late.start(stereoS32At48k, latencyUs);
    Feed slowFeed{late};
    slowFeed.stream(3000);
    // 3 ms left over, less the 1 ms played since the last packet came.
    EXPECT_NEAR(late.deviation(), 16384 * 2 / 10, 16384 / 20);
    EXPECT_EQ(late.stats().underruns, 0u);
}

TEST(SinkPlay, FeedbackInEveryEncodingReadsAsTheSameDeviation) {
    for (int encoding : {1, 2, 3}) {
        SinkPlayConfig settings;
        settings.feedbackEncoding = encoding;
        SinkPlayout sink(settings);
        sink.start(stereoS32At48k, latencyUs);
        Feed feed{sink};
        feed.stream(15, 0);  // 15 ms arrive at once: 5 ms above the centre
        ASSERT_EQ(feed.send(feed.next++, true), 1);
        StreamAnswer read = asHostReads(feed.answers[0]);
        EXPECT_FALSE(read.resend);
        EXPECT_EQ(read.encoding, encoding);
        EXPECT_NEAR(read.deviation, 16384 * 6 / 10, 16) << encoding;
        EXPECT_EQ(feed.send(feed.next++, false), 0) << "no feedback unasked";
    }
}

TEST(SinkPlay, AGapIsAskedForOnceUntilTheRetryAndDuplicatesAreDropped) {
    SinkPlayout sink({});
    sink.start(stereoS32At48k, latencyUs);
    Feed feed{sink};
    feed.stream(5);
    ASSERT_EQ(feed.send(6), 1);  // 5 is lost
    StreamAnswer read = asHostReads(feed.answers[0]);
    ASSERT_TRUE(read.resend);
    EXPECT_EQ(read.resendFrom, 5);
    EXPECT_EQ(feed.send(7), 0);
    feed.now += milliseconds(25);
    EXPECT_EQ(feed.send(8), 1) << "asked again after the retry time";
    // The host goes back to 5 and sends on from there.
    feed.next = 5;
    feed.stream(5);
    EXPECT_EQ(feed.send(3), 0);
    SinkStats stats = sink.stats();
    EXPECT_EQ(stats.packets, 10u);
    EXPECT_EQ(stats.gaps, 1u);
    EXPECT_EQ(stats.resends, 2u);
    EXPECT_EQ(stats.outOfOrder, 3u);
    EXPECT_EQ(stats.duplicates, 1u);
}

TEST(SinkPlay, SevenBitTagsRebuildTheSequenceAcrossWraps) {
    SinkPlayout sink({});
    sink.start(stereoS32At48k, latencyUs);
    Feed feed{sink};
    feed.compact = true;
    feed.stream(300);
    ASSERT_EQ(feed.send(250), 0);  // 250 & 0x7F lies behind: a duplicate
    ASSERT_EQ(feed.send(301), 1);  // 300 missing
    EXPECT_EQ(asHostReads(feed.answers[0]).resendFrom, 300);
    SinkStats stats = sink.stats();
    EXPECT_EQ(stats.packets, 300u);
    EXPECT_EQ(stats.duplicates, 1u);
}

TEST(SinkPlay, DeliberateLossDropsAShareAndTheRestFollowsWithResends) {
    SinkPlayConfig lossy;
    lossy.dropShare = 0.1;
    SinkPlayout sink(lossy);
    sink.start(stereoS32At48k, latencyUs);
    Feed feed{sink};
    // Go-back-N: on a resend request the host goes back to what was asked.
    for (int i = 0; i < 5000 && sink.stats().packets < 1000; ++i) {
        if (feed.send(feed.next) == 1 && feed.answers[0].resend) {
            feed.next = feed.answers[0].param1;
        } else {
            ++feed.next;
        }
        feed.now += milliseconds(1);
    }
    SinkStats stats = sink.stats();
    EXPECT_EQ(stats.packets, 1000u);
    EXPECT_GT(stats.dropped, 50u);
    EXPECT_LT(stats.dropped, 250u);
    EXPECT_GE(stats.resends, stats.gaps);
}

TEST(SinkPlay, TheWavHoldsTheStreamInOrder) {
    ScratchFile wav("velmora-sinkplay", ".wav");
    SinkPlayConfig settings;
    settings.wavPath = wav.path;
    SinkPlayout sink(settings);
    ASSERT_TRUE(sink.start(stereoS32At48k, latencyUs));
    Feed feed{sink};
    feed.stream(3);
    feed.send(4);  // lost 3: not written
    feed.next = 3;
    feed.stream(2);
    sink.end();

    std::ifstream in(wav.path, std::ios::binary);
    std::vector<std::uint8_t> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::uint8_t> expected;
    for (std::uint16_t sequence = 0; sequence < 5; ++sequence) {
        std::vector<std::uint8_t> body = packetBody(sequence);
        expected.insert(expected.end(), body.begin(), body.end());
    }
    ASSERT_EQ(file.size(), 44 + expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), file.begin() + 44));
    auto u32 = [&](std::size_t at) {
        return file[at] | file[at + 1] << 8 | file[at + 2] << 16 | file[at + 3] << 24;
    };
    EXPECT_EQ(u32(4), file.size() - 8);
    EXPECT_EQ(u32(24), 48000u);
    EXPECT_EQ(u32(28), 48000u * 8);
    EXPECT_EQ(file[32], 8);   // block align
    EXPECT_EQ(file[34], 32);  // bits
    EXPECT_EQ(u32(40), expected.size());
}

}  // namespace

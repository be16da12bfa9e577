#include <gtest/gtest.h>

#include <cstdint>

#include "Format/FormatID.h"
#include "Network/TimeValue.h"
#include "Stream/TransferConfig.h"
#include "TestFormats.h"

using NORVA::TimeValue;
using namespace VELMORA;

namespace {

const FormatID stereo32At44k(0x802u, 0x000Au);   // byteRate 352800
const FormatID stereo32At768k(0x802u, 0x0084u);  // 48000 x 16

constexpr auto us = &TimeValue::fromUs;

TransferConfig planner(FormatID format, std::uint16_t size = 1432, std::uint16_t count = 10,
                       TimeValue limit = us(400)) {
    TransferConfig transfer;
    transfer.setInputs(StreamPath{format, size, count}, limit);
    return transfer;
}

// A sink of 48 kHz stereo at most, 32 bits, x1.
TransferConfig profilePlanner(std::uint16_t min, std::uint16_t max, std::uint16_t prof,
                              FormatID format = stereoS32At48k) {
    TransferConfig transfer = planner(format);
    transfer.sink.setAnswer(min, max, prof);
    transfer.sink.baseMin = 8;
    transfer.sink.frameMax = 8;
    return transfer;
}

void expectPlan(const TransferConfig& t, std::uint64_t cycleUs, std::uint16_t count, std::uint32_t fixedSize,
                std::uint32_t sizeQ14 = 0) {
    EXPECT_EQ(t.cycle.toUs(), cycleUs);
    EXPECT_EQ(t.packetCount, count);
    EXPECT_EQ(t.fixedSize, fixedSize);
    if (sizeQ14 != 0) {
        EXPECT_EQ(t.sizeQ14, sizeQ14);
    }
}

}  // namespace

TEST(PlanFix, KnownPlansAt48kAndShorterCyclesToFitTheAllowedPackets) {
    TransferConfig transfer = planner(stereoS32At48k);
    ASSERT_TRUE(transfer.planFix(0, us(1000)));
    expectPlan(transfer, 1000, 1, 0, 786432);
    EXPECT_EQ(transfer.dataSize, 400u);
    EXPECT_EQ(transfer.mode, transferFix);
    ASSERT_TRUE(transfer.planFix(0, us(5000)));
    expectPlan(transfer, 5000, 2, 0, 1966080);

    // One packet allowed: 3600 us make 1424 bytes with headroom, 3650 us would
    // make 1448; from any longer cycle the steps end there, and off the 50 us
    // grid they keep their offset (3610 us round up to 1432 bytes).
    for (auto [from, to] : {std::pair{10000u, 3600u}, {3650u, 3600u}, {125000u, 3600u}, {10010u, 3560u}}) {
        ASSERT_TRUE(transfer.planFix(1, us(from)));
        EXPECT_EQ(transfer.cycle.toUs(), to) << from;
        EXPECT_EQ(transfer.packetCount, 1);
    }
}

TEST(PlanVar, KnownPlans) {
    TransferConfig transfer = planner(stereoS32At48k);
    ASSERT_TRUE(transfer.planVar(1, us(1000)));
    expectPlan(transfer, 1000, 1, 384, 48u << 14);
    EXPECT_EQ(transfer.mode, transferVar);
    // More than one packet holds: cut to 1432 bytes, and the cycle follows.
    ASSERT_TRUE(transfer.planVar(1, us(5000)));
    expectPlan(transfer, 3730, 1, 1432, 179u << 14);
    // Equal packets of whole 6-byte frames.
    TransferConfig frames24 = planner(FormatID(0x402u, 0x000Cu));
    ASSERT_TRUE(frames24.planVar(0, us(10000)));
    expectPlan(frames24, 10000, 3, 960);
}

TEST(PlanAuto, FewestPacketsThatReachTheCycle) {
    TransferConfig transfer = planner(stereoS32At48k);
    ASSERT_TRUE(transfer.planFixAuto(us(5000)));
    EXPECT_EQ(transfer.cycle, us(5000));
    EXPECT_EQ(transfer.packetCount, 2);
    // A cycle with an odd picosecond is never met exactly; the search ends
    // when a third packet gains nothing, and keeps two.
    ASSERT_TRUE(transfer.planVarAuto(TimeValue::fromRaw(us(5000).raw() + 1)));
    EXPECT_EQ(transfer.packetCount, 2);
    EXPECT_EQ(transfer.fixedSize, 960u);
    EXPECT_EQ(transfer.cycle, us(5000));

    // A whole second of 768 kHz would take thousands of packets; 64 is the most.
    TransferConfig fast = planner(stereo32At768k, 1000, 0xFFFF);
    ASSERT_TRUE(fast.planFixAuto(us(1000000)));
    EXPECT_EQ(fast.packetCount, 64);
    EXPECT_LT(fast.cycle, us(11000));
    EXPECT_FALSE(planner(stereoS32At48k, 0, 0xFFFF).planFixAuto(us(1000)));
    EXPECT_FALSE(planner(stereoS32At48k, 0, 0xFFFF).planVarAuto(us(1000)));
    // In 100-byte packets: more packets a second than the pool holds.
    EXPECT_FALSE(planner(stereo32At768k, 100, 0xFFFF).planFixAuto(us(1000000)));
}

TEST(PlanMax, GreatestPacketsUntilTheLimitCycle) {
    TransferConfig transfer = planner(stereoS32At48k, 1432, 10, us(10000));
    transfer.mode = transferRandom;
    ASSERT_TRUE(transfer.planMax());
    expectPlan(transfer, 11188, 3, 1432);
    EXPECT_EQ(transfer.mode, transferVar);
    EXPECT_FALSE(planner(FormatID(0x4020u, 0x000Cu), 100).planMax()) << "128-byte frames";
}

TEST(PlanRandom, NeedsAShortestCycleBelowThePlannedOne) {
    TransferConfig transfer = planner(stereoS32At48k);
    EXPECT_FALSE(transfer.planRandom(0, us(1000), TimeValue()));
    EXPECT_FALSE(transfer.planRandom(0, us(1000), us(1000)));
    ASSERT_TRUE(transfer.planRandom(0, us(1000), us(500)));
    EXPECT_EQ(transfer.mode, transferRandom);
    EXPECT_EQ(transfer.cycleMin, us(500));
    EXPECT_EQ(transfer.sizeQ14, 786432u);
}

TEST(PlanRefusal, ProfilesTheWorkerCannotRun) {
    EXPECT_FALSE(planner(stereoS32At48k, 0).planFix(0, us(1000)));
    EXPECT_FALSE(planner(stereoS32At48k, 4).planFix(1, us(1000)));  // not even 50 us fit
    EXPECT_FALSE(planner(stereoS32At48k).planFix(-1, us(1000)));
    EXPECT_FALSE(planner(stereoS32At48k).planFix(0, TimeValue()));
    EXPECT_FALSE(planner(stereoS32At48k).planVar(0, TimeValue()));
    TransferConfig noRate = planner(FormatID(0x802u, 0x0001u));  // 8000 as setRate writes it: rate 0
    EXPECT_FALSE(noRate.planFix(0, us(1000)));
    EXPECT_FALSE(noRate.planVar(0, us(1000)));
    EXPECT_FALSE(noRate.planMax());

    // 21 us cycles: 47,620 packets a second, more than the pool can number.
    TransferConfig fast = planner(stereo32At768k);
    EXPECT_FALSE(fast.planVar(1, us(20)));
    EXPECT_EQ(fast.cycle, us(21));
    EXPECT_TRUE(fast.planVar(1, us(40)));

    // 80 packets of 100 bytes in one cycle.
    TransferConfig many = planner(stereoS32At48k, 100, 100);
    EXPECT_FALSE(many.planFix(0, us(20000)));
    EXPECT_EQ(many.packetCount, 80);
}

TEST(TransferProfile, RunnableLimits) {
    const struct {
        std::uint64_t cycleRaw;
        std::uint16_t packets;
        std::uint32_t fixedSize, sizeQ14, sendDepth;
        bool runnable;
    } cases[] = {
        {1'000'000'000, 32, 1432, 0, 1, true},    // 32001 in the pool
        {1'000'000'000, 32, 1432, 0, 768, true},  // 32768: just
        {1'000'000'000, 32, 1432, 0, 769, false},
        {10'000'000'000, 64, 0, 1, 1, true},  // the most packets a cycle
        {10'000'000'000, 65, 0, 1, 1, false},
        {1'000'000'000, 0, 1432, 0, 1, false},
        {1'000'000'000, 1, 0, 0, 1, false},
        {1'000'000'000, 1, 0, 1, 1, true},
        {999'999, 1, 0, 1, 1, false},  // under a microsecond
    };
    for (const auto& c : cases) {
        TransferProfile profile;
        profile.cycle = TimeValue::fromRaw(c.cycleRaw);
        profile.packetCount = c.packets;
        profile.fixedSize = c.fixedSize;
        profile.sizeQ14 = c.sizeQ14;
        EXPECT_EQ(profile.isRunnable(c.sendDepth), c.runnable)
            << c.packets << " packets, depth " << c.sendDepth;
    }
}

TEST(SinkCycle, TriangoloIsDecidedByTheAnswer) {
    struct Answer {
        std::uint16_t min, prof;
        bool triangolo;
    } answers[] = {{333, 0, true}, {334, 0x20, false}, {3, 0x20, true},     {3, 0x02, false},
                   {520, 0, true}, {16666, 0, true},   {33334, 0x20, false}};
    SinkCycle sink;
    for (const Answer& answer : answers) {
        sink.setAnswer(answer.min, 0, answer.prof);
        EXPECT_EQ(sink.triangolo, answer.triangolo) << answer.min << " " << answer.prof;
    }
    // No profile at all leaves it as it was.
    sink.setAnswer(333, 0, 0);
    sink.setAnswer(0, 0, 0);
    EXPECT_TRUE(sink.triangolo);
    EXPECT_FALSE(sink.hasProfile());
}

// Packets of whole frames for the sink's 1/300 s cycle, and the cycle follows them. At 44.1 kHz in
// 1000-byte packets, 1176 bytes a share halve to 588: not whole frames. Over two packets, parts of 73
// frames are shorter than 3.33 ms: a third is added. At 8000 Hz, 3.33 ms round up to 27 frames.
TEST(PlanProfile, TriangoloAndItsFallBacksToTheSinkCycle) {
    const struct {
        FormatID format;
        std::uint16_t packDataSize;
        std::uint32_t fixedSize;
        std::uint16_t packets;
        std::uint64_t cycleRaw;
    } rows[] = {
        {stereoS32At48k, 1432, 1280, 1, 3'333'333'333},
        {stereo32At44k, 1000, 584, 3, 4'965'986'394},
        {FormatID(0x802u, 0x0009u), 1432, 216, 1, 3'375'000'000},  // 8000 x 1
    };
    for (const auto& row : rows) {
        TransferConfig transfer = profilePlanner(333, 0, 0x20, row.format);
        transfer.packDataSize = row.packDataSize;
        ASSERT_TRUE(transfer.planProfile()) << row.fixedSize;
        EXPECT_EQ(transfer.mode, transferSinkCycle);
        EXPECT_EQ(transfer.cycle.raw(), row.cycleRaw);
        expectPlan(transfer, transfer.cycle.toUs(), row.packets, row.fixedSize, (row.fixedSize / 8) << 14);
    }
    TransferConfig noFrames = profilePlanner(500, 0, 0x20);
    noFrames.sink.frameMax = 0;
    EXPECT_FALSE(noFrames.planProfile());
    noFrames.sink.frameMax = 4;  // the stream's frame is larger than the sink's
    noFrames.packDataSize = 1000;
    EXPECT_FALSE(noFrames.planProfile());
}

TEST(PlanProfile, SearchesWithinTheSinksCycles) {
    const struct {
        std::uint16_t min, max, prof;
        std::uint64_t limitUs;
        bool fragmentRetry;
        bool planned;
        std::uint64_t cycleUs;
        std::uint16_t packets;
    } cases[] = {
        {0, 0, 0, 400, false, false, 0, 0},            // no profile
        {100, 1000, 0x06, 400, false, true, 1000, 1},  // Var upward from min
        {10, 1000, 0x04, 2000, false, true, 2000, 1},  // Fix upward, from the host's limit
        {100, 1000, 0, 400, false, true, 3600, 1},     // Fix at max: one packet can't hold 10 ms
        {500, 1000, 0, 400, false, false, 0, 0},       // ... nor from 5 ms
        {500, 1000, 0, 400, true, true, 10000, 3},     // unless packet counts are searched
        {0, 30, 0x03, 400, false, true, 313, 1},       // Var on its own time keeps a short result
        {0, 30, 0x01, 400, false, false, 0, 0},
    };
    for (const auto& c : cases) {
        TransferConfig transfer = profilePlanner(c.min, c.max, c.prof);
        transfer.limitCycle = us(c.limitUs);
        transfer.fragmentRetry = c.fragmentRetry;
        SCOPED_TRACE(testing::Message() << c.min << "-" << c.max << " prof " << c.prof);
        ASSERT_EQ(transfer.planProfile(), c.planned);
        if (!c.planned) continue;
        EXPECT_EQ(transfer.cycle.toUs(), c.cycleUs);
        EXPECT_EQ(transfer.packetCount, c.packets);
    }
}

TEST(PlanProfileAuto, FallsBackToTheHostLimitAndConfigTransferPlansFastAndSlow) {
    TransferConfig transfer = profilePlanner(0, 0, 0);
    ASSERT_TRUE(transfer.planProfileAuto(TimeValue()));
    // The limit with 3 % headroom is 412 us; the search goes in 50 us steps.
    EXPECT_EQ(transfer.cycle.toUs(), 450u);
    EXPECT_EQ(transfer.mode, transferFix);
    EXPECT_EQ(transfer.packDataCount, 10);
    TransferConfig sinkCycle = profilePlanner(500, 0, 0x20);
    sinkCycle.sink.frameMax = 0;
    ASSERT_TRUE(sinkCycle.planProfileAuto(TimeValue()));
    EXPECT_EQ(sinkCycle.fixedSize, 1432u) << "the greatest packets";
    EXPECT_EQ(sinkCycle.packetCount, 1);

    // The fast profile and the slow one, from the same host limit.
    auto profiles =
        transfer.configTransfer(StreamPath{stereoS32At48k, 1432, 10}, us(1000), TimeValue(), us(5000));
    EXPECT_EQ(profiles[0].cycle.toUs(), 1050u);
    EXPECT_EQ(profiles[1].cycle.toUs(), 5150u);
    EXPECT_EQ(profiles[1].packetCount, 2);
    EXPECT_FALSE(transfer.fragmentRetry);
    EXPECT_EQ(transfer.limitCycle, us(5000));
}

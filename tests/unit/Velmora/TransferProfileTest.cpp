#include <gtest/gtest.h>

#include <cstdint>
#include <random>

#include "Format/FormatID.h"
#include "LogCapture.h"
#include "Network/TimeValue.h"
#include "Stream/TransferConfig.h"
#include "TestFormats.h"

using NORVA::TimeValue;
using VELMORA::FormatID;
using VELMORA::SinkCycle;
using VELMORA::StreamPath;
using VELMORA::TransferConfig;
using VELMORA::TransferProfile;

namespace {

const FormatID stereo32At44k(0x802u, 0x000Au);   // byteRate 352800
const FormatID stereo32At768k(0x802u, 0x0084u);  // 48000 x 16
const FormatID stereo32At8000(0x802u, 0x0009u);  // 8000 x 1, through the multiplier bit
const FormatID stereo32NoRate(0x802u, 0x0001u);  // 8000 as setRate writes it: rate 0

TimeValue us(std::uint64_t value) {
    return TimeValue::fromUs(value);
}

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

}  // namespace

TEST(PlanFix, KnownPlansAt48k) {
    TransferConfig transfer = planner(stereoS32At48k);
    ASSERT_TRUE(transfer.planFix(0, us(1000)));
    EXPECT_EQ(transfer.cycle, us(1000));
    EXPECT_EQ(transfer.fixedSize, 0u);
    EXPECT_EQ(transfer.packetCount, 1);
    EXPECT_EQ(transfer.sizeQ14, 786432u);
    EXPECT_EQ(transfer.dataSize, 400u);
    EXPECT_EQ(transfer.mode, VELMORA::transferFix);

    ASSERT_TRUE(transfer.planFix(0, us(5000)));
    EXPECT_EQ(transfer.packetCount, 2);
    EXPECT_EQ(transfer.sizeQ14, 1966080u);
}

TEST(PlanFix, ShortensTheCycleUntilItFitsTheAllowedPackets) {
    TransferConfig transfer = planner(stereoS32At48k);
    ASSERT_TRUE(transfer.planFix(1, us(10000)));
    // 3600 us make 1424 bytes with headroom; 3650 us would make 1448.
    EXPECT_EQ(transfer.cycle.toUs(), 3600u);
    EXPECT_EQ(transfer.packetCount, 1);
    // Stepping down from any longer cycle ends at the same place.
    for (std::uint64_t from : {3650u, 3700u, 125000u}) {
        ASSERT_TRUE(transfer.planFix(1, us(from)));
        EXPECT_EQ(transfer.cycle.toUs(), 3600u) << from;
    }
    // Off the 50 us grid the steps keep their offset.
    ASSERT_TRUE(transfer.planFix(1, us(10010)));
    EXPECT_EQ(transfer.cycle.toUs(), 3560u);  // 3610 us round up to 1432 bytes
}

TEST(PlanVar, KnownPlansAt48k) {
    TransferConfig transfer = planner(stereoS32At48k);
    ASSERT_TRUE(transfer.planVar(1, us(1000)));
    EXPECT_EQ(transfer.fixedSize, 384u);
    EXPECT_EQ(transfer.dataSize, 384u);
    EXPECT_EQ(transfer.packetCount, 1);
    EXPECT_EQ(transfer.cycle, us(1000));
    EXPECT_EQ(transfer.sizeQ14, 48u << 14);
    EXPECT_EQ(transfer.mode, VELMORA::transferVar);

    // More than one packet holds: cut to 1432 bytes, and the cycle follows.
    ASSERT_TRUE(transfer.planVar(1, us(5000)));
    EXPECT_EQ(transfer.fixedSize, 1432u);
    EXPECT_EQ(transfer.sizeQ14, 179u << 14);
    EXPECT_EQ(transfer.cycle, us(3730));
}

TEST(PlanVar, SplitsIntoEqualPacketsOfWholeFrames) {
    TransferConfig transfer = planner(FormatID(0x402u, 0x000Cu));  // 24-bit stereo, 6-byte frames
    ASSERT_TRUE(transfer.planVar(0, us(10000)));                   // 2880 bytes
    EXPECT_EQ(transfer.packetCount, 3);
    EXPECT_EQ(transfer.fixedSize, 960u);
    EXPECT_EQ(transfer.cycle, us(10000));
}

TEST(PlanAuto, FewestPacketsThatReachTheCycle) {
    TransferConfig transfer = planner(stereoS32At48k);
    ASSERT_TRUE(transfer.planFixAuto(us(5000)));
    EXPECT_EQ(transfer.cycle, us(5000));
    EXPECT_EQ(transfer.packetCount, 2);

    // A cycle with an odd picosecond is never met exactly; the search ends
    // when a third packet gains nothing, and keeps two.
    TimeValue offGrid = TimeValue::fromRaw(us(5000).raw() + 1);
    ASSERT_TRUE(transfer.planVarAuto(offGrid));
    EXPECT_EQ(transfer.packetCount, 2);
    EXPECT_EQ(transfer.fixedSize, 960u);
    EXPECT_EQ(transfer.cycle, us(5000));
}

TEST(PlanAuto, EndsWhenNoPacketCountCanWork) {
    TransferConfig noRoom = planner(stereoS32At48k, 0, 0xFFFF);
    EXPECT_FALSE(noRoom.planFixAuto(us(1000)));
    EXPECT_FALSE(noRoom.planVarAuto(us(1000)));
    // 768 kHz in 100-byte packets: more packets a second than the pool holds.
    TransferConfig tooSmall = planner(stereo32At768k, 100, 0xFFFF);
    EXPECT_FALSE(tooSmall.planFixAuto(us(1000000)));
}

TEST(PlanAuto, StopsAtTheWorkersPacketLimit) {
    // A whole second would take thousands of packets; 64 is the most.
    TransferConfig transfer = planner(stereo32At768k, 1000, 0xFFFF);
    ASSERT_TRUE(transfer.planFixAuto(us(1000000)));
    EXPECT_EQ(transfer.packetCount, 64);
    EXPECT_LT(transfer.cycle, us(11000));
    EXPECT_TRUE(transfer.isRunnable(1));
}

TEST(PlanMax, GreatestPacketsUntilTheLimitCycle) {
    TransferConfig transfer = planner(stereoS32At48k, 1432, 10, us(10000));
    transfer.mode = VELMORA::transferRandom;
    ASSERT_TRUE(transfer.planMax());
    EXPECT_EQ(transfer.fixedSize, 1432u);
    EXPECT_EQ(transfer.packetCount, 3);
    EXPECT_EQ(transfer.cycle, us(11188));
    EXPECT_EQ(transfer.mode, VELMORA::transferVar);

    TransferConfig frameTooBig = planner(FormatID(0x4020u, 0x000Cu), 100);  // 128-byte frames
    EXPECT_FALSE(frameTooBig.planMax());
}

TEST(PlanRandom, NeedsAShortestCycleBelowThePlannedOne) {
    TransferConfig transfer = planner(stereoS32At48k);
    EXPECT_FALSE(transfer.planRandom(0, us(1000), TimeValue()));
    EXPECT_FALSE(transfer.planRandom(0, us(1000), us(1000)));
    ASSERT_TRUE(transfer.planRandom(0, us(1000), us(500)));
    EXPECT_EQ(transfer.mode, VELMORA::transferRandom);
    EXPECT_EQ(transfer.cycleMin, us(500));
    EXPECT_EQ(transfer.sizeQ14, 786432u);
}

TEST(PlanRefusal, ProfilesTheWorkerCannotRun) {
    EXPECT_FALSE(planner(stereoS32At48k, 0).planFix(0, us(1000)));
    EXPECT_FALSE(planner(stereoS32At48k, 4).planFix(1, us(1000)));  // not even 50 us fit
    EXPECT_FALSE(planner(stereoS32At48k).planFix(-1, us(1000)));

    TransferConfig noRate = planner(stereo32NoRate);
    EXPECT_FALSE(noRate.planFix(0, us(1000)));
    EXPECT_FALSE(noRate.planVar(0, us(1000)));
    EXPECT_FALSE(noRate.planMax());

    TransferConfig transfer = planner(stereoS32At48k);
    EXPECT_FALSE(transfer.planFix(0, TimeValue()));
    EXPECT_FALSE(transfer.planVar(0, TimeValue()));

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
    TransferProfile profile;
    profile.cycle = us(1000);
    profile.packetCount = 1;
    profile.fixedSize = 1432;
    EXPECT_TRUE(profile.isRunnable(1));
    profile.packetCount = 32;
    EXPECT_EQ(profile.poolPackets(1), 32001u);
    EXPECT_TRUE(profile.isRunnable(1));
    profile.packetCount = 33;
    EXPECT_FALSE(profile.isRunnable(1));
    profile.packetCount = 0;
    EXPECT_FALSE(profile.isRunnable(1));
    profile.packetCount = 1;
    profile.fixedSize = 0;
    EXPECT_FALSE(profile.isRunnable(1));
    profile.sizeQ14 = 1;
    EXPECT_TRUE(profile.isRunnable(1));
    profile.cycle = TimeValue::fromRaw(999999);
    EXPECT_FALSE(profile.isRunnable(1));
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

TEST(PlanProfile, NoProfileFailsSilently) {
    TransferConfig transfer = profilePlanner(0, 0, 0);
    LogCapture log;
    EXPECT_FALSE(transfer.planProfile());
    EXPECT_TRUE(log.lines().empty());
}

TEST(PlanProfile, TriangoloAt48k) {
    TransferConfig transfer = profilePlanner(333, 0, 0x20);
    ASSERT_TRUE(transfer.sink.triangolo);
    LogCapture log;
    ASSERT_TRUE(transfer.planProfile());
    EXPECT_EQ(transfer.cycle.raw(), 3333333333u);
    EXPECT_EQ(transfer.fixedSize, 1280u);
    EXPECT_EQ(transfer.sizeQ14, 160u << 14);
    EXPECT_EQ(transfer.packetCount, 1);
    EXPECT_EQ(transfer.mode, VELMORA::transferSinkCycle);
    EXPECT_TRUE(log.has("SINCCYCLE=1280x1 cycle=3333333333ps"));
    EXPECT_TRUE(log.has("PROFILE done Triangolo"));
}

TEST(PlanProfile, TriangoloShareThatSplitsOffFramesFallsBackToTheSinkCycle) {
    TransferConfig transfer = profilePlanner(333, 0, 0x20, stereo32At44k);
    transfer.packDataSize = 1000;  // 1176 bytes a share, halved to 588: not whole frames
    LogCapture log;
    ASSERT_TRUE(transfer.planProfile());
    EXPECT_TRUE(log.has("TriangoloMode fragment talt"));
    EXPECT_TRUE(log.has("PROFILE done SinkCycle"));
    // 1176 bytes over two packets: parts of 585 bytes, 73 frames; two
    // packets are shorter than 3.33 ms, so a third is added.
    EXPECT_EQ(transfer.fixedSize, 584u);
    EXPECT_EQ(transfer.packetCount, 3);
    EXPECT_EQ(transfer.cycle.raw(), 3u * 584u * 1000000000000ull / 352800u);
}

TEST(PlanProfile, TriangoloNeedsA441Or48Base) {
    TransferConfig transfer = profilePlanner(333, 0, 0x20, stereo32At8000);
    LogCapture log;
    ASSERT_TRUE(transfer.planProfile());
    EXPECT_TRUE(log.has("TriangoloMode base rate talt"));
    EXPECT_TRUE(log.has("PROFILE done SinkCycle"));
    EXPECT_EQ(transfer.fixedSize, 216u);  // 8000 x 8 x 3.33 ms, up to whole frames
}

TEST(PlanProfile, SinkCycleNeedsFrameMeasures) {
    TransferConfig transfer = profilePlanner(500, 0, 0x20);
    transfer.sink.frameMax = 0;
    EXPECT_FALSE(transfer.planProfile());
    transfer.sink.frameMax = 4;  // the stream's frame is larger than the sink's
    transfer.packDataSize = 1000;
    EXPECT_FALSE(transfer.planProfile());
}

TEST(PlanProfile, VarSearchUpwardFromMin) {
    TransferConfig transfer = profilePlanner(100, 1000, 0x02 | 0x04);
    LogCapture log;
    ASSERT_TRUE(transfer.planProfile());
    EXPECT_EQ(transfer.cycle, us(1000));
    EXPECT_EQ(transfer.fixedSize, 384u);
    EXPECT_TRUE(log.has("PROFILE done Var"));
}

TEST(PlanProfile, FixSearchUpwardMovesPastShortCycles) {
    // T(min) is below the host's limit: the search starts at the limit.
    TransferConfig transfer = profilePlanner(10, 1000, 0x04);
    transfer.limitCycle = us(2000);
    ASSERT_TRUE(transfer.planProfile());
    EXPECT_EQ(transfer.cycle, us(2000));
    EXPECT_EQ(transfer.mode, VELMORA::transferFix);
}

TEST(PlanProfile, FixAtMaxInRangeOrNot) {
    TransferConfig inRange = profilePlanner(100, 1000, 0);
    ASSERT_TRUE(inRange.planProfile());
    EXPECT_EQ(inRange.cycle.toUs(), 3600u);  // one packet can't hold 10 ms

    TransferConfig tooShort = profilePlanner(500, 1000, 0);
    EXPECT_FALSE(tooShort.planProfile());
    // Searching over packet counts reaches the whole 10 ms.
    tooShort.fragmentRetry = true;
    ASSERT_TRUE(tooShort.planProfile());
    EXPECT_EQ(tooShort.cycle, us(10000));
    EXPECT_EQ(tooShort.packetCount, 3);
}

TEST(PlanProfile, VarWithOwnTimeOnlyKeepsAShortResult) {
    TransferConfig transfer = profilePlanner(0, 30, 0x02 | 0x01);
    LogCapture log;
    ASSERT_TRUE(transfer.planProfile());
    EXPECT_EQ(transfer.cycle, us(313));  // below the limit of 412 us, kept all the same
    EXPECT_FALSE(log.hasPrefix("PROFILE done"));

    TransferConfig fix = profilePlanner(0, 30, 0x01);
    EXPECT_FALSE(fix.planProfile());
}

TEST(PlanProfileAuto, WithoutAProfileFallsBackToTheHostLimit) {
    TransferConfig transfer = profilePlanner(0, 0, 0);
    LogCapture log;
    ASSERT_TRUE(transfer.planProfileAuto(TimeValue()));
    // The limit with 3 % headroom is 412 us; the search goes in 50 us steps.
    EXPECT_EQ(transfer.cycle.toUs(), 450u);
    EXPECT_EQ(transfer.mode, VELMORA::transferFix);
    EXPECT_EQ(transfer.packDataCount, 10);
    EXPECT_FALSE(transfer.fragmentRetry);
    EXPECT_TRUE(log.has("configTransferAuto falt"));
    EXPECT_TRUE(log.has("configTransferAuto done"));
}

TEST(PlanProfileAuto, FallbackOfASinkCycleTakesTheGreatestPackets) {
    TransferConfig transfer = profilePlanner(500, 0, 0x20);
    transfer.sink.frameMax = 0;
    ASSERT_TRUE(transfer.planProfileAuto(TimeValue()));
    EXPECT_EQ(transfer.fixedSize, 1432u);
    EXPECT_EQ(transfer.packetCount, 1);
}

TEST(ConfigTransfer, FastAndSlowProfiles) {
    TransferConfig transfer = profilePlanner(0, 0, 0);
    StreamPath path{stereoS32At48k, 1432, 10};
    auto profiles = transfer.configTransfer(path, us(1000), TimeValue(), us(5000));
    EXPECT_EQ(profiles[0].cycle.toUs(), 1050u);
    EXPECT_EQ(profiles[1].cycle.toUs(), 5150u);
    EXPECT_EQ(profiles[1].packetCount, 2);
    EXPECT_TRUE(profiles[0].isRunnable(1));
    EXPECT_TRUE(profiles[1].isRunnable(1));
    EXPECT_FALSE(transfer.fragmentRetry);
    EXPECT_EQ(transfer.limitCycle, us(5000));
}

// Any answer a sink can give, on any path, ends in a runnable profile or a
// refusal.
TEST(PlannerProperty, EveryInputEndsRunnableOrRefused) {
    const std::uint32_t forms[] = {0x100, 0x200, 0x400, 0x800, 0x1000, 0x2000, 0x4000};
    const std::uint32_t channels[] = {0x01, 0x02, 0x04, 0x08, 0x10, 0x20};
    std::mt19937 random(20240605);
    auto pick = [&](std::uint32_t bound) { return static_cast<std::uint32_t>(random() % bound); };

    for (int round = 0; round < 400; ++round) {
        FormatID format(forms[pick(7)] | channels[pick(6)], (1u << pick(3)) | (0x8u << pick(6)));
        if (pick(8) == 0) format = FormatID(0x2510002u, 0x0202u << pick(3));
        const std::uint16_t sizes[] = {0, 7, 100, 1432, 1451, 8936, 8998};
        const std::uint16_t counts[] = {0, 1, 10, 64, 65, 300, 0xFFFF};
        TransferConfig transfer;
        transfer.sink.setAnswer(static_cast<std::uint16_t>(pick(4) == 0 ? random() : pick(2000)),
                                static_cast<std::uint16_t>(pick(4) == 0 ? random() : pick(5000)),
                                static_cast<std::uint16_t>(pick(0x40)));
        transfer.sink.baseMin = pick(8) == 0 ? 0xFFFFFFFFu : pick(300);
        transfer.sink.frameMax = pick(130);
        StreamPath path{format, sizes[pick(7)], counts[pick(7)]};
        TimeValue limit = us(pick(4) == 0 ? pick(200000) : 100 + pick(3000));
        TimeValue hint = pick(2) == 0 ? TimeValue() : us(pick(20000));
        SCOPED_TRACE(testing::Message()
                     << "round " << round << " format " << std::hex << format.value << std::dec << " min "
                     << transfer.sink.min << " max " << transfer.sink.max << " prof " << transfer.sink.prof
                     << " size " << path.maxPacketSize << " count " << path.maxPacketCount << " limit "
                     << limit.toUs());

        transfer.setInputs(path, limit);
        if (transfer.planProfileAuto(hint)) {
            EXPECT_TRUE(transfer.isRunnable(1));
            EXPECT_LE(transfer.fixedSize, path.maxPacketSize);
            EXPECT_NE(transfer.mode, VELMORA::transferRandom);
        }
        EXPECT_EQ(transfer.packDataCount, path.maxPacketCount);
        EXPECT_FALSE(transfer.fragmentRetry);

        transfer.setInputs(path, limit);
        TimeValue wanted = us(pick(30000));
        std::int32_t count = static_cast<std::int32_t>(pick(70));
        auto runnableIfPlanned = [&](bool planned) { return !planned || transfer.isRunnable(1); };
        EXPECT_TRUE(runnableIfPlanned(transfer.planFixAuto(wanted))) << "FixAuto";
        EXPECT_TRUE(runnableIfPlanned(transfer.planVarAuto(wanted))) << "VarAuto";
        EXPECT_TRUE(runnableIfPlanned(transfer.planFix(count, wanted))) << "Fix";
        EXPECT_TRUE(runnableIfPlanned(transfer.planVar(count, wanted))) << "Var";
        EXPECT_TRUE(runnableIfPlanned(transfer.planMax())) << "Max";
    }
}

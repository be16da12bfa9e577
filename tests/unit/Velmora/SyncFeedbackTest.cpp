#include "Stream/SyncFeedback.h"

#include <gtest/gtest.h>

#include <string>

#include "Stream/SyncWorker.h"

namespace {

using NORVA::TimeValue;
using namespace VELMORA;

TEST(SyncFeedbackFilter, ProportionalAndDerivativeTermsAccumulateUpToTheClamp) {
    FeedbackFilter filter(1);
    EXPECT_EQ(filter.add(8192), -1146) << "327 of the average, 819 of its change";
    EXPECT_EQ(filter.add(8192), -1473) << "no change: the average term alone";
    EXPECT_EQ(filter.add(8192), FeedbackFilter::adjustMin);
    EXPECT_EQ(filter.add(8192), FeedbackFilter::adjustMin);

    FeedbackFilter rising(1);
    EXPECT_EQ(rising.add(-16384), FeedbackFilter::adjustMax);
}

TEST(SyncFeedbackFilter, AveragesTheNewestReportsOnly) {
    FeedbackFilter filter(4);
    for (std::int16_t d : {9999, 400, 300, 200, 100}) filter.add(d);
    EXPECT_EQ(filter.average(), 250);

    FeedbackFilter truncating(3);
    truncating.add(-1);
    EXPECT_EQ(truncating.average(), 0) << "towards zero";
    EXPECT_EQ(feedbackDepthOf(0xE0), 8u);
    EXPECT_EQ(feedbackDepthOf(0), 1u);
}

TEST(SyncFeedbackCorrection, WorksOnTheProfilesOwnValue) {
    EXPECT_EQ(correctedSize(786432, -1638), 707808);
    EXPECT_EQ(correctedSize(786432, 491), 810000);
    EXPECT_EQ(correctedCycle(TimeValue::fromRaw(3'333'333'333), 491).raw(), 3'233'439'128u)
        << "a positive correction shortens the cycle";
}

TEST(SyncFeedbackTrace, FormatsQ14InEightCharacters) {
    char text[9];
    formatQ14(text, 8192);
    EXPECT_EQ(std::string(text), "  0.5000");
    formatQ14(text, -16384);
    EXPECT_EQ(std::string(text), " -1.0000");
    formatQ14(text, -1638);
    EXPECT_EQ(std::string(text), " -0.1000");
}

TEST(SyncWorkerPacketSize, TheCarryKeepsEveryFractionOfAFrame) {
    PacketSizeRule rule{0, 8, 1432};
    std::int32_t carry = 0;
    const std::int64_t frames = 722534;  // 44.1
    for (int i = 0; i < 10; ++i) EXPECT_EQ(rule.next(carry, frames), 44u * 8) << i;
    EXPECT_EQ(carry, 16380);
    EXPECT_EQ(rule.next(carry, frames), 45u * 8);

    // Over many packets nothing is lost but the fraction in hand.
    std::uint64_t total = 0;
    carry = 0;
    for (int i = 0; i < 1000; ++i) total += rule.next(carry, frames);
    EXPECT_EQ((total / 8 << 14) + std::uint64_t(carry), 1000u * frames);
}

TEST(SyncWorkerPacketSize, TooBigIsCutToWholeFramesButAFixedSizeIsNot) {
    PacketSizeRule cut{0, 6, 1432};
    std::int32_t carry = 0;
    EXPECT_EQ(cut.next(carry, std::int64_t(250) << 14), 1428u);
    PacketSizeRule fixed{1432, 6, 1000};
    EXPECT_EQ(fixed.next(carry, 1), 1432u);
}

TEST(SyncWorkerSchedule, WaitModeFollowsTheFlags) {
    EXPECT_EQ(waitModeFor(0), 0);
    EXPECT_EQ(waitModeFor(0x0400), 0) << "yield variants need a spin group";
    EXPECT_EQ(waitModeFor(0x0002), 1);
    EXPECT_EQ(waitModeFor(0x0602), 2);
    EXPECT_EQ(waitModeFor(0x0202), 3);
    EXPECT_EQ(waitModeFor(0x0004), 4);
    EXPECT_EQ(waitModeFor(0x0604), 5) << "yielding on every pass goes first";
    EXPECT_EQ(waitModeFor(0x0A00), 6);
}

TEST(SyncWorkerSchedule, SmallMachinesSpinLessAndStartShortCyclesOnTheLastProfile) {
    WorkerPlacement two = placementFor(0x0005, 2, TimeValue::fromUs(500));
    EXPECT_EQ(two.flags, 0x0001u) << "no spin through whole cycles on 2 processors";
    EXPECT_TRUE(two.lowCpu);
    EXPECT_EQ(waitModeFor(two.flags), 0);
    WorkerPlacement forced = placementFor(0x0805, 2, TimeValue::fromUs(500));
    EXPECT_EQ(forced.flags, 0x0805u);
    EXPECT_FALSE(forced.lowCpu);
    EXPECT_EQ(waitModeFor(forced.flags), 4);
    EXPECT_FALSE(placementFor(0x0005, 2, TimeValue::fromUs(1000)).lowCpu) << "1 ms is not short";
    WorkerPlacement eight = placementFor(0x0604, 8, TimeValue::fromUs(500));
    EXPECT_EQ(eight.flags, 0x0604u);
    EXPECT_FALSE(eight.lowCpu);
    EXPECT_EQ(feedbackDepthOf(0xE0), 8u);
    EXPECT_EQ(feedbackDepthOf(0), 1u);
}

TEST(SyncWorkerSchedule, PoolHoldsASecondOfPacketsAsAPowerOfTwo) {
    TransferProfile profile;
    profile.cycle = TimeValue::fromUs(1000);
    profile.packetCount = 1;
    EXPECT_EQ(poolSizeFor(profile, 1, false), 1024u);
    EXPECT_EQ(poolSizeFor(profile, 1, true), 128u);
    profile.cycle = TimeValue::fromMs(100);
    EXPECT_EQ(poolSizeFor(profile, 1, false), 32u);
    profile.cycle = TimeValue::fromUs(30);
    EXPECT_EQ(poolSizeFor(profile, 1, false), 0u) << "more than 16 bits can number";
}

}  // namespace

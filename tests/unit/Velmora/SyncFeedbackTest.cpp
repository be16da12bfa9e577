#include "Stream/SyncFeedback.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Stream/SyncWorker.h"

namespace {

using NORVA::TimeValue;
using namespace VELMORA;

TEST(SyncFeedbackFilter, ProportionalAndDerivativeTermsAccumulateUpToTheClamp) {
    FeedbackFilter filter(1);
    EXPECT_EQ(filter.add(8192), -1146) << "327 of the average, 819 of its change";
    EXPECT_EQ(filter.add(8192), -1473) << "no change: the average term alone";
    EXPECT_EQ(filter.add(8192), FeedbackFilter::adjustMin);
    FeedbackFilter rising(1);
    EXPECT_EQ(rising.add(-16384), FeedbackFilter::adjustMax);
}

TEST(SyncFeedbackFilter, AveragesTheNewestReportsOfItsDepth) {
    const struct {
        std::uint32_t depth;
        std::vector<std::int16_t> reports;  // oldest first
        std::int16_t average;
    } cases[] = {
        {4, {9999, 400, 300, 200, 100}, 250},
        {8, {9999, 800, 700, 600, 500, 400, 300, 200, 100}, 450},
        {20, {9999, 800, 700, 600, 500, 400, 300, 200, 100}, 450},  // at most 8
        {0, {5, 7}, 7},                                             // at least 1
        {3, {-1}, 0},                                               // towards zero
    };
    for (const auto& c : cases) {
        FeedbackFilter filter(c.depth);
        for (std::int16_t d : c.reports) filter.add(d);
        EXPECT_EQ(filter.average(), c.average) << "depth " << c.depth;
    }
    EXPECT_EQ(feedbackDepthOf(0xE0), 8u);
    EXPECT_EQ(feedbackDepthOf(0), 1u);
}

TEST(SyncFeedbackCorrection, WorksOnTheProfilesOwnValue) {
    EXPECT_EQ(correctedSize(786432, -1638), 707808);
    EXPECT_EQ(correctedSize(786432, 491), 810000);
    EXPECT_EQ(correctedCycle(TimeValue::fromRaw(3'333'333'333), 491).raw(), 3'233'439'128u)
        << "a positive correction shortens the cycle";
    char text[9];
    for (auto [value, shown] : {std::pair{8192, "  0.5000"}, {-16384, " -1.0000"}, {-1638, " -0.1000"}}) {
        formatQ14(text, value);
        EXPECT_EQ(std::string(text), shown);
    }
}

TEST(SyncWorkerPacketSize, TheCarryKeepsEveryFractionOfAFrame) {
    PacketSizeRule rule{0, 8, 1432};
    std::int32_t carry = 0;
    const std::int64_t frames = 722534;  // 44.1
    for (int i = 0; i < 10; ++i) EXPECT_EQ(rule.next(carry, frames), 44u * 8) << i;
    EXPECT_EQ(carry, 16380);
    EXPECT_EQ(rule.next(carry, frames), 45u * 8);

    // Too big is cut to whole frames, but a fixed size is not.
    PacketSizeRule cut{0, 6, 1432};
    EXPECT_EQ(cut.next(carry, std::int64_t(250) << 14), 1428u);
    PacketSizeRule fixed{1432, 6, 1000};
    EXPECT_EQ(fixed.next(carry, 1), 1432u);
}

TEST(SyncWorkerSchedule, WaitModeFollowsTheFlags) {
    const std::pair<std::uint32_t, int> modes[] = {
        {0, 0},      {0x0400, 0}, {0x0002, 1}, {0x0602, 2},
        {0x0202, 3}, {0x0004, 4}, {0x0604, 5}, {0x0A00, 6},  // 0x0400 alone: yield needs a spin group
    };
    for (auto [flags, mode] : modes) EXPECT_EQ(waitModeFor(flags), mode) << std::hex << flags;
}

TEST(SyncWorkerSchedule, SmallMachinesSpinLessAndStartShortCyclesOnTheLastProfile) {
    WorkerPlacement two = placementFor(0x0005, 2, TimeValue::fromUs(500));
    EXPECT_EQ(two.flags, 0x0001u) << "no spin through whole cycles on 2 processors";
    EXPECT_TRUE(two.lowCpu);
    WorkerPlacement forced = placementFor(0x0805, 2, TimeValue::fromUs(500));
    EXPECT_EQ(forced.flags, 0x0805u);
    EXPECT_FALSE(forced.lowCpu);
    EXPECT_FALSE(placementFor(0x0005, 2, TimeValue::fromUs(1000)).lowCpu) << "1 ms is not short";
    WorkerPlacement eight = placementFor(0x0604, 8, TimeValue::fromUs(500));
    EXPECT_EQ(eight.flags, 0x0604u);
    EXPECT_FALSE(eight.lowCpu);
}

TEST(SyncWorkerSchedule, LateCyclesMoveToASlowerProfileAndBackOnceClear) {
    // lateScore, profile, profiles, step
    const std::tuple<std::int32_t, std::int32_t, std::int32_t, std::int32_t> cases[] = {
        {200, 0, 2, 1}, {199, 0, 2, 0}, {1000, 1, 2, 0},  // the last profile is the slowest there is
        {0, 1, 2, -1},  {1, 1, 2, 0},   {0, 0, 2, 0},
    };
    for (auto [score, index, count, step] : cases)
        EXPECT_EQ(profileStepUnderLoad(score, index, count), step)
            << score << " on " << index << " of " << count;
}

TEST(SyncWorkerSchedule, PoolHoldsASecondOfPacketsAsAPowerOfTwo) {
    TransferProfile profile;
    profile.packetCount = 1;
    for (auto [cycleUs, ms, size] : {std::tuple{1000u, false, 1024u},
                                     {1000u, true, 128u},
                                     {100000u, false, 32u},
                                     {30u, false, 0u}}) {  // 30 us: more than 16 bits can number
        profile.cycle = TimeValue::fromUs(cycleUs);
        EXPECT_EQ(poolSizeFor(profile, 1, ms), size) << cycleUs << " us, ms " << ms;
    }
}

}  // namespace

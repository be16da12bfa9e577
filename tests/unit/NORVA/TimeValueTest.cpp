#include "Network/TimeValue.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using NORVA::TimeValue;

TEST(TimeValue, UnitsAndForcedLowBit) {
    EXPECT_TRUE(TimeValue::fromMs(1).raw() == 1'000'000'000ull && TimeValue::fromUs(3).raw() == 3'000'000ull);
    EXPECT_EQ(TimeValue::fromSeconds(2).toMs(), 2000u);
    EXPECT_EQ(TimeValue::fromRaw(1'999'999).toUs(), 1u) << "truncated, not rounded";
    EXPECT_EQ((TimeValue::fromRaw(2) + TimeValue::fromRaw(2)).raw(), 5u);
    EXPECT_EQ((TimeValue::fromRaw(7) - TimeValue::fromRaw(7)).raw(), 1u) << "a computed span is never 0";
    EXPECT_EQ((TimeValue::fromRaw(0) - TimeValue::fromRaw(1)).raw(), UINT64_MAX);
    EXPECT_EQ(TimeValue::fromCounter(3, 10'000'000).raw(), 300'000u) << "100,000 ps a tick at 10 MHz";
    EXPECT_EQ(TimeValue::fromCounter(0, 1'000'000'000).raw(), 1u) << "a reading of 0 is not 'no time'";
    // An odd frequency truncates the tick length first: 1e12 / 3 = 333,333,333,333.
    EXPECT_EQ(TimeValue::fromCounter(2, 3).raw(), 666'666'666'666ull);
}

TEST(TimeValue, OrderAcrossTheWrap) {
    TimeValue beforeWrap = TimeValue::fromRaw(UINT64_MAX - 1000);
    TimeValue afterWrap = beforeWrap + TimeValue::fromRaw(5000);
    EXPECT_TRUE(beforeWrap.compare(afterWrap) == -1 && afterWrap.compare(beforeWrap) == 1);
    EXPECT_EQ(afterWrap.compare(afterWrap), 0);
    // Half the range apart is the turning point of the order.
    EXPECT_EQ(TimeValue::fromRaw((1ull << 63) - 1).compare(TimeValue()), 1);
    EXPECT_EQ(TimeValue::fromRaw(1ull << 63).compare(TimeValue()), -1);
}

}  // namespace

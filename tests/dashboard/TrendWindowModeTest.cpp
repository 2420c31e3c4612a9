#include <gtest/gtest.h>

#include <cmath>

#include "DashboardTestSamples.h"
#include "dashboard/PinnedLiveTrendSection.h"
#include "dashboard/TrendWindowMode.h"

using namespace kelvo;

TEST(TrendWindowMode, OneMinuteShowsSixtySecondsWithFifteenSecondTicks) {
    const auto mode = trendWindowModeFromRaw("oneMinute");
    EXPECT_EQ(mode, TrendWindowMode::oneMinute);
    EXPECT_EQ(rawValue(mode), "oneMinute");
    const auto shape = trendWindowShape(mode);
    EXPECT_EQ(shape.windowSeconds, 60);
    EXPECT_EQ(shape.tickStrideSeconds, 15);
    EXPECT_EQ(shape.reducerBucketCount, 180);
}

TEST(TrendWindowMode, UnknownStoredTextBehavesAsFiveMinutes) {
    for (const char* raw : {"fiveMinutes", "tenMinutes", "", "OneMinute", "oneMinute "}) {
        const auto mode = trendWindowModeFromRaw(raw);
        EXPECT_EQ(mode, TrendWindowMode::fiveMinutes) << raw;
        EXPECT_EQ(rawValue(mode), "fiveMinutes");
        const auto shape = trendWindowShape(mode);
        EXPECT_EQ(shape.windowSeconds, 300) << raw;
        EXPECT_EQ(shape.tickStrideSeconds, 60) << raw;
        EXPECT_EQ(shape.reducerBucketCount, 1200) << raw;
    }
}

TEST(TrendWindowMode, UnknownStoredTextKeysAndDrawsLikeFiveMinutes) {
    const auto stored = makeTrendSectionComputationKey(7, "hour", {}, ControlMode::systemAuto, {});
    const auto five =
        makeTrendSectionComputationKey(7, "fiveMinutes", {}, ControlMode::systemAuto, {});
    EXPECT_EQ(stored, five);
    EXPECT_EQ(stored.trendWindowModeRawValue, "fiveMinutes");

    // 2000 samples inside the visible five minutes: 1200 buckets keep them all, the one-minute
    // window's 180 buckets could keep at most 720.
    const Timestamp r = 1'700'000'400;
    const auto samples = test::loadedHistory(2000, r, 0.145);
    TrendSectionInputs inputs{samples, {}, {}};
    const auto section = computeTrendSection(stored, inputs);
    EXPECT_EQ(section.snapshot.viewportDomain.visibleWindowSeconds, 300);
    ASSERT_EQ(section.snapshot.series.front().segments.size(), 1u);
    EXPECT_EQ(section.snapshot.series.front().segments[0].size(), 2000u);
    ASSERT_FALSE(section.snapshot.xAxisTicks.empty());
    for (const auto& tick : section.snapshot.xAxisTicks)
        EXPECT_EQ(std::fmod(tick.date, 60.0), 0.0) << tick.date;
}

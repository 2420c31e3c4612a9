#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "foundation/control/TemperatureTrend.h"

using namespace kelvo;

namespace {
TelemetrySample reading(Timestamp t, double cpuC, double gpuC, double cpuUtil = 50,
                        double gpuUtil = 50) {
    TelemetrySample s;
    s.timestamp = t;
    s.cpuTemperatureC = cpuC;
    s.gpuTemperatureC = gpuC;
    s.cpuUtilizationPct = cpuUtil;
    s.gpuUtilizationPct = gpuUtil;
    return s;
}
}  // namespace

TEST(TemperatureTrend, FitsTheSlopeOfEachDieOverItsWindow) {
    TemperatureTrend trend;
    for (Timestamp t = 0; t < 3; ++t) trend.add(reading(t, 60 + 0.5 * t, 70 - 0.25 * t));
    EXPECT_FALSE(trend.cpuSlope()) << "three readings are too few";
    for (Timestamp t = 3; t < 20; ++t) trend.add(reading(t, 60 + 0.5 * t, 70 - 0.25 * t));
    ASSERT_TRUE(trend.cpuSlope());
    EXPECT_NEAR(*trend.cpuSlope(), 0.5, 1e-9);
    EXPECT_NEAR(*trend.gpuSlope(), -0.25, 1e-9);
    // Only the last six seconds count: a bend shows within them.
    for (Timestamp t = 20; t < 27; ++t) trend.add(reading(t, 70, 65));
    EXPECT_NEAR(*trend.cpuSlope(), 0.0, 1e-9);
}

TEST(TemperatureTrend, ALoadStepHidesTheSlopeUntilTheDieHasSettled) {
    TemperatureTrend trend;
    for (Timestamp t = 0; t < 10; ++t) trend.add(reading(t, 50, 50, 10));
    ASSERT_TRUE(trend.cpuSlope());
    // The die jumps with its own load: that is no trend of the heatsink.
    trend.add(reading(10, 60, 50, 80));
    EXPECT_FALSE(trend.cpuSlope());
    for (Timestamp t = 11; t < 18; ++t) trend.add(reading(t, 61 + 0.1 * (t - 11), 50, 80));
    EXPECT_FALSE(trend.cpuSlope()) << "two settled readings are too few";
    for (Timestamp t = 18; t < 22; ++t) trend.add(reading(t, 61 + 0.1 * (t - 11), 50, 80));
    ASSERT_TRUE(trend.cpuSlope());
    EXPECT_NEAR(*trend.cpuSlope(), 0.1, 1e-9);
}

TEST(TemperatureTrend, LearnsHowFarAFullLoadLiftsEachDie) {
    TemperatureTrend trend;
    EXPECT_FALSE(trend.cpuJumpC());
    for (Timestamp t = 0; t < 5; ++t) trend.add(reading(t, 50, 45, 10, 10));
    // The CPU goes from 10 % to 60 %: 12 °C five seconds on is 24 °C for a full load.
    for (Timestamp t = 5; t < 12; ++t) trend.add(reading(t, 62, 45, 60, 10));
    ASSERT_TRUE(trend.cpuJumpC());
    EXPECT_NEAR(*trend.cpuJumpC(), 24, 1e-9);
    EXPECT_FALSE(trend.gpuJumpC());
    // A fall teaches nothing: the die sinks onto a heatsink that is still warm.
    for (Timestamp t = 12; t < 20; ++t) trend.add(reading(t, 52, 45, 10, 10));
    EXPECT_NEAR(*trend.cpuJumpC(), 24, 1e-9);
    // A second rise moves the estimate part of the way towards what it saw (10 °C for 50 %).
    for (Timestamp t = 20; t < 30; ++t) trend.add(reading(t, 62, 45, 60, 10));
    EXPECT_NEAR(*trend.cpuJumpC(), 24 + 0.3 * (20 - 24), 1e-9);
}

TEST(TemperatureTrend, AClockThatGoesBackStartsOver) {
    TemperatureTrend trend;
    for (Timestamp t = 100; t < 110; ++t) trend.add(reading(t, 60 + t * 0.1, 50));
    ASSERT_TRUE(trend.cpuSlope());
    trend.add(reading(5, 70, 50));
    EXPECT_FALSE(trend.cpuSlope());
}

TEST(TemperatureTrend, ADieWithoutReadingsHasNoSlope) {
    TemperatureTrend trend;
    for (Timestamp t = 0; t < 10; ++t) {
        TelemetrySample s = reading(t, 60, 50);
        s.gpuTemperatureC.reset();
        trend.add(s);
    }
    EXPECT_TRUE(trend.cpuSlope());
    EXPECT_FALSE(trend.gpuSlope());
}

TEST(TemperatureTrend, RemembersEachDevicesPeakLoadForAMinute) {
    TemperatureTrend trend;
    EXPECT_FALSE(trend.cpuRecentPeakPct());
    trend.add(reading(0, 60, 50, 95, 10));
    // A link step: the CPU drops to 20 % for a while; its recent peak is still the build's.
    for (Timestamp t = 1; t <= 60; ++t) trend.add(reading(t, 55, 50, 20, 10));
    EXPECT_DOUBLE_EQ(*trend.cpuRecentPeakPct(), 95);
    EXPECT_DOUBLE_EQ(*trend.gpuRecentPeakPct(), 10);
    // A minute on, the build's heat is gone from the heatsink and so is its peak.
    trend.add(reading(61, 55, 50, 20, 10));
    EXPECT_DOUBLE_EQ(*trend.cpuRecentPeakPct(), 20);
}

TEST(TemperatureTrend, TheBaseLoadIsTheLevelHeldNotTheBurst) {
    TemperatureTrend trend;
    EXPECT_FALSE(trend.cpuBaseLoadPct());
    for (Timestamp t = 0; t < 30; ++t) trend.add(reading(t, 60, 50, 25, 10));
    // A five-second burst to 80 %: while it lasts the base is the load now, after it the 25 %
    // the heatsink carries.
    for (Timestamp t = 30; t < 35; ++t) trend.add(reading(t, 70, 50, 80, 10));
    EXPECT_DOUBLE_EQ(*trend.cpuBaseLoadPct(), 80);
    for (Timestamp t = 35; t < 50; ++t) trend.add(reading(t, 61, 50, 25, 10));
    EXPECT_DOUBLE_EQ(*trend.cpuBaseLoadPct(), 25);
    EXPECT_DOUBLE_EQ(*trend.cpuRecentPeakPct(), 80);
    // Twelve seconds at 95 % and a link step at 20 %: the build's level is the base.
    for (Timestamp t = 50; t < 62; ++t) trend.add(reading(t, 70, 50, 95, 10));
    for (Timestamp t = 62; t < 80; ++t) trend.add(reading(t, 65, 50, 20, 10));
    EXPECT_DOUBLE_EQ(*trend.cpuBaseLoadPct(), 95);
}

// A game's loading screen holds the CPU at 84 % for twenty seconds, then play goes on at 53 %.
// A minute on, the screen's level starts to count for less, second by second, and two minutes
// after that it is gone: no single second moves the base load by more than its share of the fade.
TEST(TemperatureTrend, AHeldLevelFadesOutOfTheBaseLoadInsteadOfDroppingOut) {
    TemperatureTrend trend;
    for (Timestamp t = 0; t < 20; ++t) trend.add(reading(t, 80, 60, 84, 10));
    std::vector<double> base;
    for (Timestamp t = 20; t <= 240; ++t) {
        trend.add(reading(t, 74, 75, 53, 95));
        base.push_back(*trend.cpuBaseLoadPct());
    }
    auto at = [&](Timestamp t) { return base[static_cast<std::size_t>(t - 20)]; };
    // The last window at 84 % starts at second 12; it counts in full for a minute after that.
    EXPECT_DOUBLE_EQ(at(72), 84);
    EXPECT_GT(at(100), 53 + 0.5 * (84 - 53) - 1e-9);
    EXPECT_LT(at(100), 84);
    EXPECT_LT(at(150), at(100));
    EXPECT_GT(at(150), 53);
    EXPECT_DOUBLE_EQ(at(192), 53);
    EXPECT_DOUBLE_EQ(at(240), 53);
    const double perSecond = (84.0 - 53.0) / 120.0;
    for (std::size_t i = 1; i < base.size(); ++i) {
        EXPECT_LE(base[i], base[i - 1] + 1e-9) << "second " << 20 + i;
        EXPECT_LE(base[i - 1] - base[i], perSecond + 1e-9) << "second " << 20 + i;
    }
    // The recent peak still forgets after a minute: it is the level a burst went to, not heat.
    EXPECT_DOUBLE_EQ(*trend.cpuRecentPeakPct(), 53);
}

TEST(TemperatureTrend, ABurstShorterThanTheSettleTimeIsMeasuredWhereItEnded) {
    TemperatureTrend trend;
    for (Timestamp t = 0; t < 10; ++t) trend.add(reading(t, 60, 50, 25, 10));
    // 25 % to 80 % for four seconds: the die climbs to 71 °C and falls back the second the
    // burst ends; 11 °C for 55 points is 20 °C for a full load.
    for (Timestamp t = 10; t < 14; ++t) trend.add(reading(t, 68 + (t - 10), 50, 80, 10));
    trend.add(reading(14, 63, 50, 25, 10));
    ASSERT_TRUE(trend.cpuJumpC());
    EXPECT_NEAR(*trend.cpuJumpC(), 20, 1e-9);
    // A burst of one second says nothing: the die has not answered yet.
    TemperatureTrend blip;
    for (Timestamp t = 0; t < 10; ++t) blip.add(reading(t, 60, 50, 25, 10));
    blip.add(reading(10, 64, 50, 80, 10));
    blip.add(reading(11, 61, 50, 25, 10));
    EXPECT_FALSE(blip.cpuJumpC());
}

TEST(TemperatureTrend, ADieLevellingOffIsNotCarriedOnAlongItsSlope) {
    // A heatsink settling 10 °C above where it started, with a time constant of 20 s: after
    // t seconds it has 10·e^(-t/20) left to rise, and its slope is that over 20 s. Carried on
    // along the slope for 30 s that is more than half as much again as it will ever rise.
    TemperatureTrend settling;
    auto settlingAt = [](Timestamp t) { return 70 - 10 * std::exp(-static_cast<double>(t) / 20); };
    for (Timestamp t = 0; t <= 20; ++t) settling.add(reading(t, settlingAt(t), 50));
    const double left = 10 * std::exp(-1.0);
    ASSERT_TRUE(settling.cpuSlope());
    EXPECT_GT(*settling.cpuSlope() * 30, 1.5 * left);
    // The fitted slope lags its window by a few seconds, so the estimate is a little high.
    ASSERT_TRUE(settling.cpuRiseAhead(30));
    EXPECT_NEAR(*settling.cpuRiseAhead(30), left, 0.2 * left);
    // Over a shorter look ahead the slope itself is the lesser: a few seconds are not bent.
    EXPECT_NEAR(*settling.cpuRiseAhead(3), *settling.cpuSlope() * 3, 1e-9);

    // A straight rise, one that still steepens, and a fall are carried on as they are; before
    // the trend is known there is nothing to carry.
    TemperatureTrend other;
    EXPECT_FALSE(other.cpuRiseAhead(30));
    for (Timestamp t = 0; t <= 10; ++t)
        other.add(reading(t, 60 + 0.2 * t, 60 + 0.01 * static_cast<double>(t * t)));
    EXPECT_NEAR(*other.cpuRiseAhead(30), 6, 1e-9);
    EXPECT_NEAR(*other.gpuRiseAhead(30), *other.gpuSlope() * 30, 1e-9);
    TemperatureTrend falling;
    for (Timestamp t = 0; t <= 10; ++t) falling.add(reading(t, 80 - 0.5 * t, 50));
    EXPECT_NEAR(*falling.cpuRiseAhead(30), -15, 1e-9);
}

#include <gtest/gtest.h>

#include <cmath>

#include "QualityMetrics.h"
#include "SoundLevel.h"

using namespace kelvo::quality;

namespace {

kelvo::sim::PlantConfig plant() {
    kelvo::sim::PlantConfig config;
    config.cpuMaxClockMHz = 4000;
    config.gpuMaxClockMHz = 2000;
    return config;
}

kelvo::sim::PlantState state(double cpuC, double gpuC, double rpm, double cpuMHz = 4000,
                             double gpuMHz = 2000) {
    kelvo::sim::PlantState s;
    s.cpuTemperatureC = cpuC;
    s.gpuTemperatureC = gpuC;
    s.cpuClockMHz = cpuMHz;
    s.gpuClockMHz = gpuMHz;
    s.fanCurrentRPM = {rpm, rpm};
    return s;
}

}  // namespace

TEST(QualityMetrics, OneJumpFollowedOverSeveralSecondsIsOneAudibleChange) {
    QualityMetrics metrics(plant());
    for (double rpm : {1200.0, 1200.0, 1700.0, 2000.0, 2100.0, 2100.0, 1800.0, 1790.0})
        metrics.add(state(60, 50, rpm), {0.1, 0.1}, 1.0);
    // Up by 500 then 300 a second: one change; 100 is under the step; down by 300: a second one.
    QualityRow row = metrics.result();
    EXPECT_DOUBLE_EQ(row.audibleChangesPerHour, 2 * 3600.0 / 8);
}

TEST(QualityMetrics, ASlowRampIsNotAnAudibleChange) {
    QualityMetrics metrics(plant());
    for (int i = 0; i < 20; ++i) metrics.add(state(60, 50, 1200 + 100.0 * i), {0.1, 0.1}, 1.0);
    EXPECT_DOUBLE_EQ(metrics.result().audibleChangesPerHour, 0.0);
}

TEST(QualityMetrics, TemperaturesLimitsAndSpeedStatistics) {
    QualityMetrics metrics(plant());
    // Twenty seconds: the hotter die at 60..79 °C; the last two over the CPU's 88 °C limit.
    for (int i = 0; i < 18; ++i) metrics.add(state(60 + i, 50, 1000), {0.1, 0.1}, 1.0);
    metrics.add(state(90, 50, 3000), {0.1, 0.1}, 1.0);
    metrics.add(state(70, 86, 3000), {0.1, 0.1}, 1.0);
    QualityRow row = metrics.result();
    EXPECT_DOUBLE_EQ(row.peakC, 90);
    EXPECT_DOUBLE_EQ(row.p95C, 86);  // the 19th of 20 sorted
    EXPECT_DOUBLE_EQ(row.overLimitS, 2);
    EXPECT_DOUBLE_EQ(row.meanRPM, 1200);
    EXPECT_DOUBLE_EQ(row.rpmSD, 600);
}

TEST(QualityMetrics, RetentionCountsOnlyLoadedDevicesAndThrottlingCountsTime) {
    QualityMetrics metrics(plant());
    auto throttled = state(96, 50, 3000, 3000, 1000);
    throttled.cpuThrottling = true;
    metrics.add(throttled, {1.0, 0.1}, 1.0);                       // CPU loaded at 75 %, GPU idle
    metrics.add(state(70, 70, 3000), {1.0, 1.0}, 1.0);             // both loaded, both at 100 %
    metrics.add(state(70, 70, 3000, 1000, 500), {0.1, 0.1}, 1.0);  // idle: not counted
    QualityRow row = metrics.result();
    EXPECT_DOUBLE_EQ(row.retention, (0.75 + 1.0 + 1.0) / 3);
    EXPECT_DOUBLE_EQ(row.throttledS, 1);
}

TEST(SoundLevel, FanLawPerFanAndFansAddAsPower) {
    kelvo::sim::PlantConfig config;
    config.fans = {{"a", 1000, 4000, 40, 2000}, {"b", 1000, 4000, 40, 2000}};
    // One fan at its reference speed, the other stopped: the reference level.
    EXPECT_NEAR(soundLevelDb(config, {2000, 0}), 40.0, 1e-9);
    // Double the speed: 50·log10(2) = 15.05 dB more.
    EXPECT_NEAR(soundLevelDb(config, {4000, 0}), 55.05, 0.01);
    // Two equal fans: twice the power, 3.01 dB more than one.
    EXPECT_NEAR(soundLevelDb(config, {2000, 2000}), 43.01, 0.01);
    // A fan 10 dB quieter than the other adds 0.41 dB.
    EXPECT_NEAR(soundLevelDb(config, {2000, 2000 * std::pow(10.0, -10.0 / 50.0)}), 40.41, 0.01);
    // Under the threshold of hearing is 0 dB, not a negative level.
    EXPECT_DOUBLE_EQ(soundLevelDb(config, {100, 100}), 0.0);
}

TEST(SoundLevel, TheFansOwnPowerKeepsOrderingSpeedsUnderTheThreshold) {
    kelvo::sim::PlantConfig config;
    config.fans = {{"a", 100, 4000, 30, 2000}};
    // 30 dB at 2000 rpm: 1000 in power; a fifth of the speed is 5^5 times less.
    EXPECT_NEAR(fanSoundPower(config, {400}), 1000.0 / 3125, 1e-12);
    EXPECT_LT(fanSoundPower(config, {300}), fanSoundPower(config, {400}));
    EXPECT_DOUBLE_EQ(soundPower(config, {300}), 1.0);
    EXPECT_DOUBLE_EQ(soundPower(config, {2000}), fanSoundPower(config, {2000}));
}

TEST(QualityMetrics, MeanLevelIsTheEnergyMeanAndPeakTheLoudestSecond) {
    kelvo::sim::PlantConfig config = plant();
    config.fans = {{"a", 1000, 4000, 40, 2000}, {"b", 1000, 4000, 40, 2000}};
    QualityMetrics metrics(config);
    // Nine seconds at 43.0 dB and one at 58.1 dB (both fans at twice the reference speed).
    for (int i = 0; i < 9; ++i) metrics.add(state(60, 50, 2000), {0.1, 0.1}, 1.0);
    metrics.add(state(60, 50, 4000), {0.1, 0.1}, 1.0);
    QualityRow row = metrics.result();
    const double quiet = 2 * 1e4;
    const double loud = 2 * 1e4 * 32;
    EXPECT_NEAR(row.meanDb, 10 * std::log10((9 * quiet + loud) / 10), 1e-9);
    EXPECT_NEAR(row.peakDb, 10 * std::log10(loud), 1e-9);
    // The energy mean sits far above the plain mean of the levels (44.5 dB): loud seconds count.
    EXPECT_GT(row.meanDb, 49.0);
}

#include <gtest/gtest.h>

#include "QualityMetrics.h"

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

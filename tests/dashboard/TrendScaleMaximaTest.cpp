#include <gtest/gtest.h>

#include "DashboardTestSamples.h"
#include "dashboard/TrendScaleMaxima.h"

using namespace kelvo;
using test::loadedSample;

TEST(TrendScaleMaxima, FanScaleIsTheLargestRatedMaximumTakenAsItIs) {
    std::vector<TelemetrySample> samples = {loadedSample(1), loadedSample(2)};
    samples[0].fanMaxRPM = {4800, 0};
    samples[1].fanMaxRPM = {-1, 6100};
    EXPECT_EQ(chartFanScaleMaxRPM(samples), 6100);
    // The preferred source has no floor.
    samples[0].fanMaxRPM = {0.5};
    samples[1].fanMaxRPM = {};
    EXPECT_EQ(chartFanScaleMaxRPM(samples), 0.5);
}

TEST(TrendScaleMaxima, WithoutRatedMaximaTheFastestCurrentOrTargetSpeedIsTheFanScale) {
    std::vector<TelemetrySample> samples = {loadedSample(1), loadedSample(2)};
    for (auto& s : samples) s.fanMaxRPM = {0};
    samples[0].fanCurrentRPM = {2000, 2900};
    samples[1].fanCurrentRPM = {2100};
    samples[1].fanTargetRPM = {3100, 0};
    EXPECT_EQ(chartFanScaleMaxRPM(samples), 3100);
    samples[1].fanTargetRPM = {};
    EXPECT_EQ(chartFanScaleMaxRPM(samples), 2900);
    for (auto& s : samples) s.fanCurrentRPM = {0.7};
    EXPECT_EQ(chartFanScaleMaxRPM(samples), 1.0);
    EXPECT_EQ(chartFanScaleMaxRPM({}), 1.0);
}

TEST(TrendScaleMaxima, GpuScalePrefersTheReferenceMaximumOverTheCurrentClock) {
    std::vector<TelemetrySample> samples = {loadedSample(1), loadedSample(2)};
    samples[0].gpuClockMHz = 2100;
    samples[1].gpuReferenceMaxClockMHz = 1800;
    EXPECT_EQ(chartGPUScaleMaxMHz(samples), 1800);
    samples[1].gpuReferenceMaxClockMHz = 0.25;  // used as it is
    EXPECT_EQ(chartGPUScaleMaxMHz(samples), 0.25);
    samples[1].gpuReferenceMaxClockMHz = 0;
    EXPECT_EQ(chartGPUScaleMaxMHz(samples), 2100);
    samples[0].gpuClockMHz = samples[1].gpuClockMHz = 0.5;
    EXPECT_EQ(chartGPUScaleMaxMHz(samples), 1.0);
    samples[0].gpuClockMHz = samples[1].gpuClockMHz = std::nullopt;
    EXPECT_EQ(chartGPUScaleMaxMHz(samples), 1.0);
}

TEST(TrendScaleMaxima, CpuAndPowerScalesAreTheLargestPositiveReadingsFlooredAtOne) {
    std::vector<TelemetrySample> samples = {loadedSample(1), loadedSample(2), loadedSample(3)};
    samples[1].cpuClockMHz = 4400;
    samples[2].cpuClockMHz = std::nullopt;
    samples[0].totalPowerW = 93.5;
    EXPECT_EQ(chartCPUScaleMaxMHz(samples), 4400);
    EXPECT_EQ(chartTotalPowerScaleMaxW(samples), 93.5);
    for (auto& s : samples) s.totalPowerW = -3;
    EXPECT_EQ(chartTotalPowerScaleMaxW(samples), 1.0);
    EXPECT_EQ(chartCPUScaleMaxMHz({}), 1.0);
    EXPECT_EQ(chartTotalPowerScaleMaxW({}), 1.0);
    EXPECT_EQ(chartScaleMaxima({}), (TrendScaleMaxima{1, 1, 1, 1}));
    EXPECT_EQ(chartScaleMaxima(samples), (TrendScaleMaxima{5000, 1500, 4400, 1}));
}

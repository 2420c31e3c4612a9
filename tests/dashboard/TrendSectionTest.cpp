#include <gtest/gtest.h>

#include "dashboard/TrendSection.h"

using namespace kelvo;

namespace {
std::vector<TelemetrySample> history(int count, Timestamp start = 1'700'000'000) {
    std::vector<TelemetrySample> samples;
    for (int i = 0; i < count; ++i) {
        TelemetrySample s;
        s.timestamp = start + i * 0.25;
        s.cpuTemperatureC = 70;
        s.gpuTemperatureC = 65;
        s.cpuClockMHz = 4000;
        s.gpuClockMHz = 1700;
        s.cpuUtilizationPct = 95;
        s.totalPowerW = 90.25;
        s.fanCurrentRPM = {2500};
        s.fanMaxRPM = {5000};
        samples.push_back(s);
    }
    return samples;
}
}  // namespace

TEST(TrendSection, MemoRecomputesExactlyOncePerKeyChange) {
    auto samples = history(400);
    TrendSectionInputs inputs{samples, {}, {}};
    TrendSectionMemoizer memo;
    TrendSectionComputationKey key;
    memo.value(key, inputs, 0);
    memo.value(key, inputs, 0);
    EXPECT_EQ(memo.computationCount(), 1u);
    auto changed = [&](auto mutate) {
        const auto before = memo.computationCount();
        mutate(key);
        memo.value(key, inputs, 0);
        memo.value(key, inputs, 0);
        return memo.computationCount() - before;
    };
    EXPECT_EQ(changed([](auto& k) { ++k.trendRevision; }), 1u);
    EXPECT_EQ(changed([](auto& k) { k.trendWindowModeRawValue = "oneMinute"; }), 1u);
    EXPECT_EQ(changed([](auto& k) { k.showGPUSeries = false; }), 1u);
    EXPECT_EQ(changed([](auto& k) { k.showCPUSeries = false; }), 1u);
    EXPECT_EQ(changed([](auto& k) { k.showFanSeries = false; }), 1u);
    EXPECT_EQ(changed([](auto& k) { k.showPowerSeries = false; }), 1u);
    EXPECT_EQ(changed([](auto& k) { k.runtimeModeRawValue = "quiet"; }), 1u);
    EXPECT_EQ(changed([](auto& k) { k.gpuClockWindowAnalysisConfig.referenceClockMHz = 1800; }),
              1u);
    EXPECT_EQ(changed([](auto&) {}), 0u);
}

TEST(TrendSection, ComputesScalesPowerTextAndPeakPerformance) {
    auto samples = history(1202);
    TrendSectionInputs inputs{samples, {}, {}};
    TrendSectionComputationKey key;
    key.gpuClockWindowAnalysisConfig.cpuReferenceClockMHz = 4100;
    auto value = computeTrendSection(key, inputs, 0);
    EXPECT_EQ(value.fanScaleMaxRPM, 5000);
    EXPECT_EQ(value.totalPowerScaleText, "90.2");
    EXPECT_EQ(value.latestSampleTimestamp, samples.back().timestamp);
    EXPECT_EQ(value.peakPerformanceAnalysis.domain, PeakPerformanceDomain::combined);
    ASSERT_TRUE(value.peakPerformanceAnalysis.cpu.clockDeficit);
    EXPECT_NEAR(*value.peakPerformanceAnalysis.cpu.clockDeficit, 1 - 4000.0 / 4100, 1e-9);
    EXPECT_EQ(value.snapshot.viewportDomain.referenceUpperBound, samples.back().timestamp);
    EXPECT_EQ(value.snapshot.series.size(), 7u);
    for (const auto& s : value.snapshot.series) EXPECT_LE(s.segments.size(), 1u);
}

TEST(TrendSection, EmptyHistoryUsesNowAndFloorsScalesAtOne) {
    TrendSectionComputationKey key;
    auto value = computeTrendSection(key, {}, 5000);
    EXPECT_FALSE(value.latestSampleTimestamp);
    EXPECT_EQ(value.snapshot.viewportDomain.referenceUpperBound, 5000);
    EXPECT_EQ(value.totalPowerScaleText, "1.0");
    EXPECT_EQ(value.peakPerformanceAnalysis.domain, PeakPerformanceDomain::none);
}

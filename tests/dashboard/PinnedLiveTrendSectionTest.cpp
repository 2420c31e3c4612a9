#include <gtest/gtest.h>

#include "DashboardTestSamples.h"
#include "dashboard/PinnedLiveTrendSection.h"

using namespace kelvo;

namespace {
constexpr Timestamp kNow = 1'800'000'000;
Timestamp fixedNow() {
    return kNow;
}
Timestamp clockMustNotBeRead() {
    ADD_FAILURE() << "the clock was read although there are samples";
    return 0;
}
}  // namespace

TEST(PinnedLiveTrendSection, ComputesTheScalesThePowerTextAndTheSnapshot) {
    auto samples = test::loadedHistory(1202, 1'700'000'300);
    samples[100].totalPowerW = 90.25;
    const std::vector<PreviewFanTrendPoint> preview = {{samples.back().timestamp - 1, 2500},
                                                       {samples.back().timestamp, 2600}};
    const TrendSectionInputs inputs{samples, preview, {}};
    const auto value = computeTrendSection({}, inputs, clockMustNotBeRead);
    EXPECT_EQ(value.fanScaleMaxRPM, 5000);
    EXPECT_EQ(value.gpuScaleMaxMHz, 1500);
    EXPECT_EQ(value.cpuScaleMaxMHz, 4000);
    EXPECT_EQ(value.totalPowerScaleMaxW, 90.25);
    EXPECT_EQ(value.totalPowerScaleText, "90.2");
    EXPECT_EQ(value.latestSampleTimestamp, samples.back().timestamp);
    EXPECT_EQ(value.snapshot.viewportDomain.referenceUpperBound, samples.back().timestamp);
    EXPECT_EQ(value.snapshot.series.size(), 7u);
    for (const auto& s : value.snapshot.series) EXPECT_EQ(s.segments.size(), 1u);
}

TEST(PinnedLiveTrendSection, AnEmptyHistoryEndsTheChartNowWithScalesOfOne) {
    const auto value = computeTrendSection({}, {}, fixedNow);
    EXPECT_FALSE(value.latestSampleTimestamp);
    EXPECT_EQ(value.snapshot.viewportDomain.referenceUpperBound, kNow);
    EXPECT_EQ(value.fanScaleMaxRPM, 1.0);
    EXPECT_EQ(value.gpuScaleMaxMHz, 1.0);
    EXPECT_EQ(value.cpuScaleMaxMHz, 1.0);
    EXPECT_EQ(value.totalPowerScaleMaxW, 1.0);
    EXPECT_EQ(value.totalPowerScaleText, "1.0");
    EXPECT_EQ(value.peakPerformanceAnalysis.domain, PeakPerformanceDomain::none);
    EXPECT_TRUE(value.snapshot.throttleBands.empty());
    for (const auto& s : value.snapshot.series) EXPECT_TRUE(s.segments.empty());
}

TEST(PinnedLiveTrendSection, AnalysesJudgeTheVisibleWindowWithAMinuteOfLeadIn) {
    // Five-minute window ending at R: visible [R − 301, R − 1]. Without a configured CPU
    // reference the analyser learns the best calm high-load clock from what it is given.
    const Timestamp r = 1'700'000'000;
    std::vector<TelemetrySample> samples;
    auto add = [&](Timestamp t, double cpuMHz) {
        auto s = test::loadedSample(t);
        s.totalPowerW = 80;
        s.cpuClockMHz = cpuMHz;
        samples.push_back(s);
    };
    add(r - 400, 5000);  // more than a minute before the window: never seen
    add(r - 380, 3000);  // the lead-in's entry point, kept for line continuity
    add(r - 340, 4200);  // inside the lead-in: sets the reference
    for (Timestamp t = r - 300; t <= r; t += 1) add(t, 4000);
    const auto value = computeTrendSection({}, {samples, {}, {}});
    const auto& cpu = value.peakPerformanceAnalysis.cpu;
    ASSERT_TRUE(cpu.referenceReady);
    ASSERT_TRUE(cpu.referenceClockMHz);
    EXPECT_EQ(*cpu.referenceClockMHz, 4200);
    ASSERT_TRUE(cpu.clockDeficit);
    EXPECT_NEAR(*cpu.clockDeficit, 1 - 4000.0 / 4200.0, 1e-12);
    EXPECT_EQ(cpu.highLoadSampleCount, 300);  // the window's samples only, R − 300 … R − 1
    EXPECT_EQ(value.peakPerformanceAnalysis.domain, PeakPerformanceDomain::combined);
}

TEST(PinnedLiveTrendSection, TheKeysConfigurationReachesTheAnalysers) {
    const auto samples = test::loadedHistory(400, 1'700'000'000);
    TrendSectionComputationKey key;
    key.gpuClockWindowAnalysisConfig.cpuReferenceClockMHz = 4100;
    key.gpuClockWindowAnalysisConfig.referenceClockMHz = 1600;
    key.gpuClockWindowAnalysisConfig.highLoadPowerW = 30;  // the samples draw 40 W
    const auto value = computeTrendSection(key, {samples, {}, {}});
    const auto& peak = value.peakPerformanceAnalysis;
    EXPECT_EQ(peak.domain, PeakPerformanceDomain::combined);
    EXPECT_NEAR(*peak.cpu.clockDeficit, 1 - 4000.0 / 4100.0, 1e-12);
    EXPECT_NEAR(*peak.gpu.clockDeficit, 1 - 1500.0 / 1600.0, 1e-12);
    // At the default 45 W high-load level these samples are not high load.
    key.gpuClockWindowAnalysisConfig.highLoadPowerW.reset();
    const auto idle = computeTrendSection(key, {samples, {}, {}});
    EXPECT_EQ(idle.peakPerformanceAnalysis.domain, PeakPerformanceDomain::none);
}

TEST(PinnedLiveTrendSection, TheKeysTogglesWindowAndModeShapeTheSnapshot) {
    const auto samples = test::loadedHistory(400, 1'700'000'000);
    const std::vector<PreviewFanTrendPoint> preview = {{1'699'999'999, 2500},
                                                       {1'700'000'000, 2600}};
    const TrendSectionInputs inputs{samples, preview, {}};
    auto key = makeTrendSectionComputationKey(1, "oneMinute", {true, false, true, false},
                                              ControlMode::systemAuto, {});
    const auto system = computeTrendSection(key, inputs);
    EXPECT_EQ(system.snapshot.viewportDomain.visibleWindowSeconds, 60);
    EXPECT_EQ(system.snapshot.series.size(), 4u);  // GPU ×2, fan, preview
    key = makeTrendSectionComputationKey(1, "oneMinute", {true, false, true, false},
                                         ControlMode::quietHybrid, {});
    EXPECT_EQ(key.runtimeModeRawValue, "quietHybrid");
    EXPECT_EQ(computeTrendSection(key, inputs).snapshot.series.size(), 3u);
}

TEST(PinnedLiveTrendSection, TheMemoisedSectionIsComputedOncePerKey) {
    const auto samples = test::loadedHistory(400, 1'700'000'000);
    const TrendSectionInputs inputs{samples, {}, {}};
    TrendSectionMemoizer memo;
    TrendSectionComputationKey key;
    const auto* first = &pinnedLiveTrendSection(memo, key, inputs);
    EXPECT_EQ(&pinnedLiveTrendSection(memo, key, inputs), first);
    EXPECT_EQ(memo.computationCount(), 1u);
    EXPECT_EQ(*first, computeTrendSection(key, inputs));
    // With the revision unchanged the cache stands even for other histories: the revision is
    // what says the histories changed.
    const auto shorter = test::loadedHistory(10, 1'700'000'000);
    EXPECT_EQ(pinnedLiveTrendSection(memo, key, {shorter, {}, {}}).snapshot,
              computeTrendSection(key, inputs).snapshot);
    key.trendRevision = 2;
    EXPECT_EQ(pinnedLiveTrendSection(memo, key, {shorter, {}, {}}),
              computeTrendSection(key, {shorter, {}, {}}));
    EXPECT_EQ(memo.computationCount(), 2u);
}

#include <gtest/gtest.h>

#include "dashboard/TrendSnapshot.h"

using namespace kelvo;

namespace {
TelemetrySample sample(Timestamp t) {
    TelemetrySample s;
    s.timestamp = t;
    s.cpuTemperatureC = 60;
    s.gpuTemperatureC = 55;
    s.cpuClockMHz = 4000;
    s.gpuClockMHz = 1500;
    s.totalPowerW = 40;
    s.fanCurrentRPM = {2000, 2200};
    s.fanMaxRPM = {5000, 5000};
    return s;
}

TrendSnapshotInputs inputs(const std::vector<TelemetrySample>& samples, Timestamp r) {
    TrendSnapshotInputs in;
    in.samples = samples;
    in.referenceUpperBound = r;
    in.maxima = {chartFanScaleMaxRPM(samples), chartGPUScaleMaxMHz(samples),
                 chartCPUScaleMaxMHz(samples), chartTotalPowerScaleMaxW(samples)};
    return in;
}
}  // namespace

TEST(TrendSnapshot, ASingleSampleGivesNoSegmentsButEverySeriesEntry) {
    std::vector<TelemetrySample> one = {sample(1000)};
    auto snap = fixedViewportTrendSnapshot(inputs(one, 1000), {}, {});
    ASSERT_EQ(snap.series.size(), 7u);  // GPU ×2, CPU ×2, fan, fan preview (System mode), power
    for (const auto& s : snap.series) EXPECT_TRUE(s.segments.empty());
}

TEST(TrendSnapshot, SeriesFollowTheTogglesInOrderWithTheirColours) {
    std::vector<TelemetrySample> samples;
    for (int i = 0; i < 20; ++i) samples.push_back(sample(1000 + i));
    auto in = inputs(samples, 1019);
    auto all = fixedViewportTrendSnapshot(in, {}, {});
    ASSERT_EQ(all.series.size(), 7u);
    const std::vector<TrendColor> colours = {
        TrendPalette::red,   TrendPalette::green, TrendPalette::purple,
        TrendPalette::blue,  TrendPalette::cyan,  TrendPalette::withAlpha(TrendPalette::cyan, 0.6f),
        TrendPalette::orange};
    for (std::size_t i = 0; i < colours.size(); ++i)
        EXPECT_EQ(all.series[i].color, colours[i]) << i;
    EXPECT_EQ(all.series[5].dashPatternPixels, (std::array<float, 2>{5, 6}));
    EXPECT_FALSE(all.series[0].dashPatternPixels);
    EXPECT_EQ(all.series[0].lineWidthPixels, 2.0f);
    in.toggles.cpu = false;
    in.toggles.power = false;
    auto some = fixedViewportTrendSnapshot(in, {}, {});
    ASSERT_EQ(some.series.size(), 4u);
    EXPECT_EQ(some.series[2].color, TrendPalette::cyan);
}

TEST(TrendSnapshot, HotGpuClampsToTheTopAndStoppedFansAreNotPlotted) {
    std::vector<TelemetrySample> samples = {sample(1000), sample(1001)};
    samples[0].gpuTemperatureC = 120;
    samples[0].fanCurrentRPM = {0, 0};
    auto snap = fixedViewportTrendSnapshot(inputs(samples, 1001), {}, {});
    ASSERT_EQ(snap.series[0].segments.size(), 1u);
    EXPECT_EQ(snap.series[0].segments[0][0].y, 0.0f);
    EXPECT_TRUE(snap.series[4].segments.empty());  // only one fan point left: no line
}

TEST(TrendSnapshot, QuietModeDrawsNoFanPreview) {
    std::vector<TelemetrySample> samples = {sample(1000), sample(1001), sample(1002)};
    std::vector<PreviewFanTrendPoint> preview = {{1000, 2500}, {1001, 2600}, {1002, 2700}};
    auto in = inputs(samples, 1002);
    in.previewPoints = preview;
    auto system = fixedViewportTrendSnapshot(in, {}, {});
    ASSERT_EQ(system.series.size(), 7u);
    EXPECT_EQ(system.series[5].segments.size(), 1u);
    in.runtimeMode = ControlMode::quiet;
    auto quiet = fixedViewportTrendSnapshot(in, {}, {});
    EXPECT_EQ(quiet.series.size(), 6u);
    for (const auto& s : quiet.series) EXPECT_FALSE(s.dashPatternPixels);
}

TEST(TrendSnapshot, TouchingSpansMergeAndSeparateOnesStayApart) {
    CPUClockWindowAnalysis cpu;
    GPUClockWindowAnalysis gpu;
    gpu.throttleSpans = {{20, 25}};
    cpu.throttleSpans = {{10, 20}};
    EXPECT_EQ(mergedThrottleSpans(gpu, cpu, {}), (std::vector<ClockWindowThrottleSpan>{{10, 25}}));
    gpu.throttleSpans = {{21, 25}};
    EXPECT_EQ(mergedThrottleSpans(gpu, cpu, {}),
              (std::vector<ClockWindowThrottleSpan>{{10, 20}, {21, 25}}));
    EXPECT_EQ(mergedThrottleSpans(gpu, cpu, {{5, 30}}),
              (std::vector<ClockWindowThrottleSpan>{{5, 30}}));
    EXPECT_TRUE(mergedThrottleSpans({}, {}, {}).empty());
}

TEST(TrendSnapshot, BandsAreFractionsOfTheVisibleWindowUnclamped) {
    auto domain = FixedViewportTrendViewportDomain::make(1001, 300, 1);  // visible 700..1000
    auto bands = fixedViewportThrottleBands({{640, 700}, {850, 850}, {940, 1060}}, domain);
    ASSERT_EQ(bands.size(), 2u);
    EXPECT_FLOAT_EQ(bands[0].startXFraction, -0.2f);
    EXPECT_FLOAT_EQ(bands[0].endXFraction, 0.0f);
    EXPECT_FLOAT_EQ(bands[1].endXFraction, 1.2f);
    EXPECT_EQ(bands[1].color, TrendPalette::withAlpha(TrendPalette::red, 0.12f));
}

TEST(TrendSnapshot, UnknownWindowTextBehavesAsFiveMinutes) {
    for (const char* raw : {"fiveMinutes", "tenMinutes", ""}) {
        const auto windowSpec = trendWindowSpec(trendWindowModeFromRaw(raw));
        EXPECT_EQ(windowSpec.windowSeconds, 300);
        EXPECT_EQ(windowSpec.tickStrideSeconds, 60);
        EXPECT_EQ(windowSpec.reducerBucketCount, 1200);
    }
    const auto minute = trendWindowSpec(trendWindowModeFromRaw("oneMinute"));
    EXPECT_EQ(minute.windowSeconds, 60);
    EXPECT_EQ(minute.tickStrideSeconds, 15);
    EXPECT_EQ(minute.reducerBucketCount, 180);
}

TEST(TrendSnapshot, VisibleSamplesKeepOneBeforeTheLowerBoundAndNothingAfterTheUpper) {
    std::vector<TelemetrySample> samples;
    for (int t : {90, 95, 100, 105, 110, 115}) samples.push_back(sample(t));
    auto visible = trendVisibleSamples(samples, 100, 110);
    ASSERT_EQ(visible.size(), 4u);
    EXPECT_EQ(visible.front().timestamp, 95);  // the one just before the lower bound
    EXPECT_EQ(visible.back().timestamp, 110);
    EXPECT_TRUE(trendVisibleSamples(samples, 0, 80).empty());
    auto whole = trendVisibleSamples(samples, 0, 1000);
    EXPECT_EQ(whole.data(), samples.data());  // the input itself, not a copy
    EXPECT_EQ(whole.size(), samples.size());
    EXPECT_EQ(firstTrendSampleIndex(101, samples), 3u);
    EXPECT_EQ(firstTrendSampleIndex(500, samples), samples.size());
}

TEST(TrendSnapshot, ScaleMaximaPreferRatedValuesAndFloorAtOne) {
    std::vector<TelemetrySample> samples = {sample(1), sample(2)};
    samples[1].fanMaxRPM = {6000};
    samples[1].gpuReferenceMaxClockMHz = 0.5;  // taken as it is: no floor on the preferred source
    EXPECT_EQ(chartFanScaleMaxRPM(samples), 6000);
    EXPECT_EQ(chartGPUScaleMaxMHz(samples), 0.5);
    samples[0].fanMaxRPM = samples[1].fanMaxRPM = {};
    samples[1].fanTargetRPM = {3100};
    EXPECT_EQ(chartFanScaleMaxRPM(samples), 3100);
    EXPECT_EQ(chartCPUScaleMaxMHz(samples), 4000);
    EXPECT_EQ(chartTotalPowerScaleMaxW({}), 1.0);
    EXPECT_EQ(chartFanScaleMaxRPM({}), 1.0);
}

TEST(TrendSnapshot, TickDatesDropTheUpperBoundAndRepeatedTexts) {
    // 300 s window, stride 60: ticks on whole minutes; a tick exactly at the upper bound goes.
    auto dates = fixedViewportTrendXAxisTickDates({1000, 1320}, TrendWindowMode::fiveMinutes);
    EXPECT_EQ(dates, (std::vector<Timestamp>{1020, 1080, 1140, 1200, 1260}));
    auto exact = fixedViewportTrendXAxisTickDates({1020, 1260}, TrendWindowMode::fiveMinutes);
    EXPECT_EQ(exact.back(), 1200);
}

TEST(TrendSnapshot, PreviewSegmentsNeedAPositiveScaleAndTwoPoints) {
    auto domain = FixedViewportTrendViewportDomain::make(1001, 60, 1);
    std::vector<PreviewFanTrendPoint> points = {{990, 2500}, {995, 10000}};
    EXPECT_TRUE(fixedViewportTrendPreviewSegments(points, domain, 0, 180).empty());
    auto segments = fixedViewportTrendPreviewSegments(points, domain, 5000, 180);
    ASSERT_EQ(segments.size(), 1u);
    EXPECT_FLOAT_EQ(segments[0][0].y, 1.0f - 50.0f / 105.0f);
    EXPECT_FLOAT_EQ(segments[0][1].y, 0.0f);  // 200 % clamps to 105
    EXPECT_TRUE(fixedViewportTrendPreviewSegments(std::vector<PreviewFanTrendPoint>{{990, 1}},
                                                  domain, 5000, 180)
                    .empty());
}

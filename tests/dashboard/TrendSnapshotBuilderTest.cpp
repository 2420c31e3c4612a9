#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "DashboardTestSamples.h"
#include "dashboard/SystemColors.h"
#include "dashboard/TrendRenderColor.h"
#include "dashboard/TrendSnapshotBuilder.h"

using namespace kelvo;
using test::loadedSample;

namespace {

TrendSnapshotInputs inputsFor(const std::vector<TelemetrySample>& samples, Timestamp r) {
    TrendSnapshotInputs in;
    in.samples = samples;
    in.referenceUpperBound = r;
    in.maxima = chartScaleMaxima(samples);
    return in;
}

FixedViewportTrendSnapshot build(const TrendSnapshotInputs& in) {
    return fixedViewportTrendSnapshot(in, {}, {});
}

TrendColor previewColor() {
    return trendRenderColor(SystemColor::withAlpha(SystemColor::cyan, 0.6));
}

std::vector<TrendColor> coloursOf(const FixedViewportTrendSnapshot& snapshot) {
    std::vector<TrendColor> colours;
    for (const auto& s : snapshot.series) colours.push_back(s.color);
    return colours;
}

// Five-minute window ending at R = 1000: visible 699..999, buffer from 698.
constexpr Timestamp kR = 1000;
float xAt(Timestamp t) {
    return static_cast<float>((t - 699) / 300.0);
}

}  // namespace

TEST(TrendSnapshotBuilder, ASingleSampleGivesNoSegmentsButOneSeriesEntryPerEnabledToggle) {
    const std::vector<TelemetrySample> one = {loadedSample(kR)};
    auto in = inputsFor(one, kR);
    const auto all = build(in);
    ASSERT_EQ(all.series.size(), 7u);  // GPU ×2, CPU ×2, fan, fan preview, power
    for (const auto& s : all.series) EXPECT_TRUE(s.segments.empty());

    in.toggles = {true, false, false, false};
    EXPECT_EQ(build(in).series.size(), 2u);
    in.toggles = {false, true, false, true};
    EXPECT_EQ(build(in).series.size(), 3u);
    in.toggles = {false, false, true, false};
    EXPECT_EQ(build(in).series.size(), 2u);  // fan speed and its preview
    in.toggles = {false, false, false, false};
    EXPECT_TRUE(build(in).series.empty());
}

TEST(TrendSnapshotBuilder, SeriesComeInDrawingOrderWithTheirColours) {
    const auto samples = test::loadedHistory(20, kR);
    const std::vector<PreviewFanTrendPoint> preview = {{kR - 2, 2500}, {kR - 1, 2600}};
    auto in = inputsFor(samples, kR);
    in.previewPoints = preview;
    const auto snapshot = build(in);
    const std::vector<TrendColor> expected = {
        trendRenderColor(SystemColor::red),    trendRenderColor(SystemColor::green),
        trendRenderColor(SystemColor::purple), trendRenderColor(SystemColor::blue),
        trendRenderColor(SystemColor::cyan),   previewColor(),
        trendRenderColor(SystemColor::orange)};
    EXPECT_EQ(coloursOf(snapshot), expected);
    EXPECT_EQ(std::set<TrendColor>(expected.begin(), expected.end()).size(), expected.size());
    EXPECT_NEAR(previewColor()[3], 0.6f, 1e-4);
    for (std::size_t i = 0; i < snapshot.series.size(); ++i) {
        const auto& s = snapshot.series[i];
        EXPECT_EQ(s.lineWidthPixels, 2.0f) << i;
        EXPECT_EQ(s.segments.size(), 1u) << i;
        if (i == 5) {
            EXPECT_EQ(s.dashPatternPixels, (std::array<float, 2>{5, 6}));
        } else {
            EXPECT_FALSE(s.dashPatternPixels) << i;
        }
    }
}

TEST(TrendSnapshotBuilder, EachToggleRemovesExactlyItsOwnSeries) {
    const auto samples = test::loadedHistory(20, kR);
    auto in = inputsFor(samples, kR);
    const TrendColor red = trendRenderColor(SystemColor::red),
                     green = trendRenderColor(SystemColor::green),
                     purple = trendRenderColor(SystemColor::purple),
                     blue = trendRenderColor(SystemColor::blue),
                     cyan = trendRenderColor(SystemColor::cyan),
                     orange = trendRenderColor(SystemColor::orange);
    in.toggles = {false, true, true, true};
    EXPECT_EQ(coloursOf(build(in)),
              (std::vector<TrendColor>{purple, blue, cyan, previewColor(), orange}));
    in.toggles = {true, false, true, true};
    EXPECT_EQ(coloursOf(build(in)),
              (std::vector<TrendColor>{red, green, cyan, previewColor(), orange}));
    in.toggles = {true, true, false, true};
    EXPECT_EQ(coloursOf(build(in)), (std::vector<TrendColor>{red, green, purple, blue, orange}));
    in.toggles = {true, true, true, false};
    EXPECT_EQ(coloursOf(build(in)),
              (std::vector<TrendColor>{red, green, purple, blue, cyan, previewColor()}));
}

TEST(TrendSnapshotBuilder, HotGpuIsDrawnAtTheTopAndStoppedFansAreNotDrawnAtAll) {
    std::vector<TelemetrySample> samples = {loadedSample(kR - 2), loadedSample(kR - 1),
                                            loadedSample(kR)};
    samples[1].gpuTemperatureC = 120;
    samples[1].fanCurrentRPM = {0, 0};
    const auto snapshot = build(inputsFor(samples, kR));
    const auto& gpuTemp = snapshot.series[0].segments.at(0);
    ASSERT_EQ(gpuTemp.size(), 3u);
    EXPECT_EQ(gpuTemp[1].y, 0.0f);  // clamped to 105
    EXPECT_FLOAT_EQ(gpuTemp[0].y, static_cast<float>(1.0 - 55.0 / 105.0));
    const auto& fan = snapshot.series[4].segments.at(0);
    ASSERT_EQ(fan.size(), 2u);  // the 0 RPM sample is a gap, not a zero
    EXPECT_FLOAT_EQ(fan[0].x, xAt(kR - 2));
    EXPECT_FLOAT_EQ(fan[1].x, xAt(kR));
    EXPECT_FLOAT_EQ(fan[0].y, static_cast<float>(1.0 - (2100.0 / 5000.0 * 100) / 105.0));
}

TEST(TrendSnapshotBuilder, PercentageSeriesAreScaledAndClamped) {
    std::vector<TelemetrySample> samples = {loadedSample(kR - 1), loadedSample(kR)};
    samples[1].cpuClockMHz = 9000;  // far above the scale: drawn at 105 %
    samples[0].totalPowerW = 0.5;   // power scale below 1 W is read as 1 W
    samples[1].totalPowerW = 0.25;
    auto in = inputsFor(samples, kR);
    in.maxima = {5000, 1800, 4500, 0.5};
    const auto snapshot = build(in);
    const auto& gpuClock = snapshot.series[1].segments.at(0);
    EXPECT_FLOAT_EQ(gpuClock[0].y, static_cast<float>(1.0 - (1500.0 / 1800.0 * 100) / 105.0));
    const auto& cpuClock = snapshot.series[3].segments.at(0);
    EXPECT_FLOAT_EQ(cpuClock[0].y, static_cast<float>(1.0 - (4000.0 / 4500.0 * 100) / 105.0));
    EXPECT_EQ(cpuClock[1].y, 0.0f);
    const auto& power = snapshot.series[6].segments.at(0);
    EXPECT_FLOAT_EQ(power[0].y, static_cast<float>(1.0 - 50.0 / 105.0));
    EXPECT_FLOAT_EQ(power[1].y, static_cast<float>(1.0 - 25.0 / 105.0));
}

TEST(TrendSnapshotBuilder, QuietModeProducesNoFanPreviewEvenWithPreviewPoints) {
    const auto samples = test::loadedHistory(12, kR);
    const std::vector<PreviewFanTrendPoint> preview = {{kR - 2, 2500}, {kR - 1, 2600}, {kR, 2700}};
    auto in = inputsFor(samples, kR);
    in.previewPoints = preview;
    const auto system = build(in);
    ASSERT_EQ(system.series.size(), 7u);
    ASSERT_EQ(system.series[5].segments.size(), 1u);
    EXPECT_EQ(system.series[5].segments[0].size(), 3u);
    for (ControlMode mode :
         {ControlMode::quiet, ControlMode::quietHybrid, ControlMode::performance}) {
        in.runtimeMode = mode;
        const auto snapshot = build(in);
        EXPECT_EQ(snapshot.series.size(), 6u) << rawValue(mode);
        for (const auto& s : snapshot.series) {
            EXPECT_FALSE(s.dashPatternPixels) << rawValue(mode);
            EXPECT_NE(s.color, previewColor()) << rawValue(mode);
        }
    }
}

TEST(TrendSnapshotBuilder, PreviewPointsOutsideTheBufferAreLeftOut) {
    const auto samples = test::loadedHistory(12, kR);
    const std::vector<PreviewFanTrendPoint> preview = {
        {697.9, 1000}, {698, 2500}, {850, 2600}, {kR, 2700}, {kR + 0.5, 4000}};
    auto in = inputsFor(samples, kR);
    in.previewPoints = preview;
    const auto snapshot = build(in);
    const auto& line = snapshot.series[5].segments.at(0);
    ASSERT_EQ(line.size(), 3u);
    EXPECT_FLOAT_EQ(line.front().x, xAt(698));
    EXPECT_FLOAT_EQ(line.back().x, xAt(kR));
}

TEST(TrendSnapshotBuilder,
     SamplesNewerThanTheReferenceAreExcludedAndTheOneBeforeTheBufferIncluded) {
    std::vector<TelemetrySample> samples;
    for (Timestamp t : {600.0, 697.0, 750.0, 900.0, 1000.0, 1000.25, 1003.0})
        samples.push_back(loadedSample(t));
    const auto snapshot = build(inputsFor(samples, kR));
    for (const auto& series : snapshot.series) {
        if (series.dashPatternPixels) continue;
        const auto& points = series.segments.at(0);
        ASSERT_EQ(points.size(), 4u);
        EXPECT_FLOAT_EQ(points.front().x, xAt(697));  // entry point before the buffer (698)
        EXPECT_FLOAT_EQ(points.back().x, xAt(kR));
    }
}

TEST(TrendSnapshotBuilder, DomainTicksAndRevealFollowTheWindow) {
    const auto samples = test::loadedHistory(8, 1'700'000'123.5);
    auto in = inputsFor(samples, samples.back().timestamp);
    in.window = TrendWindowMode::oneMinute;
    const auto snapshot = build(in);
    const auto& domain = snapshot.viewportDomain;
    EXPECT_EQ(domain.referenceUpperBound, samples.back().timestamp);
    EXPECT_EQ(domain.visibleWindowSeconds, 60);
    EXPECT_EQ(domain.visibleUpperBound(), samples.back().timestamp - 1);
    EXPECT_EQ(snapshot.liveRevealDurationSeconds, 1.0);
    ASSERT_EQ(snapshot.xAxisTicks.size(), 4u);
    for (std::size_t i = 0; i < snapshot.xAxisTicks.size(); ++i) {
        const auto& tick = snapshot.xAxisTicks[i];
        EXPECT_EQ(std::fmod(tick.date, 15.0), 0.0);
        EXPECT_EQ(tick.text, FixedViewportTrendAxisLabels::text(tick.date, 60));
        EXPECT_DOUBLE_EQ(tick.xFraction, (tick.date - domain.visibleLowerBound()) / 60);
        EXPECT_GE(tick.xFraction, 0);
        EXPECT_LT(tick.xFraction, 1);
        if (i > 0) {
            EXPECT_GT(tick.date, snapshot.xAxisTicks[i - 1].date);
        }
    }
}

TEST(TrendSnapshotBuilder, BandsMergeTheAnalysesWithTheControllerWarnings) {
    const auto samples = test::loadedHistory(8, kR);
    const std::vector<ThrottleWarningTrendPoint> warnings = {
        {800, false}, {820, true}, {830, true}, {850, false}, {900, false}};
    auto in = inputsFor(samples, kR);
    in.throttleHistory = warnings;
    GPUClockWindowAnalysis gpu;
    gpu.throttleSpans = {{840, 870}};
    CPUClockWindowAnalysis cpu;
    cpu.throttleSpans = {{939, 969}};
    const auto snapshot = fixedViewportTrendSnapshot(in, gpu, cpu);
    ASSERT_EQ(snapshot.throttleBands.size(), 2u);
    EXPECT_FLOAT_EQ(snapshot.throttleBands[0].startXFraction, xAt(820));
    EXPECT_FLOAT_EQ(snapshot.throttleBands[0].endXFraction, xAt(870));
    EXPECT_FLOAT_EQ(snapshot.throttleBands[1].startXFraction, xAt(939));
    EXPECT_FLOAT_EQ(snapshot.throttleBands[1].endXFraction, xAt(969));
}

TEST(TrendSnapshotBuilder, LongHistoriesAreReducedToAboutTheBucketCount) {
    const auto samples = test::loadedHistory(6000, kR, 0.05);  // 300 s at 20 Hz
    auto in = inputsFor(samples, kR);
    in.window = TrendWindowMode::oneMinute;
    for (const auto& series : build(in).series) {
        if (series.segments.empty()) continue;
        EXPECT_LE(series.segments[0].size(), 4u * 180);
    }
}

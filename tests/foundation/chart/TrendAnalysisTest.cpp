#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <random>

#include "foundation/chart/TrendAnalysis.h"
#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedMachine.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"

using namespace kelvo;

namespace {

TelemetrySample loaded(Timestamp t, double cpuClock, double gpuClock = 1800) {
    TelemetrySample s;
    s.timestamp = t;
    s.cpuUtilizationPct = 95;
    s.gpuUtilizationPct = 90;
    s.totalPowerW = 80;
    s.cpuClockMHz = cpuClock;
    s.gpuClockMHz = gpuClock;
    s.thermalPressure = ThermalPressureLevel::nominal;
    return s;
}

TelemetrySample idle(Timestamp t) {
    TelemetrySample s = loaded(t, 4200);
    s.cpuUtilizationPct = 5;
    s.gpuUtilizationPct = 3;
    s.totalPowerW = 12;
    return s;
}

}  // namespace

TEST(TrendViewportDomain, BoundsFollowFromTheReferenceUpperBound) {
    auto d = FixedViewportTrendViewportDomain::make(1000, 300, 1);
    EXPECT_EQ(d.visibleUpperBound(), 999);
    EXPECT_EQ(d.visibleLowerBound(), 699);
    EXPECT_EQ(d.bufferLowerBound(), 698);
    auto noOffscreen = FixedViewportTrendViewportDomain::make(1000, 60, -3);
    EXPECT_EQ(noOffscreen.leadingOffscreenSeconds, 0);
    EXPECT_EQ(noOffscreen.visibleLowerBound(), 940);
}

TEST(TrendReducer, SmallInputsComeBackUnchanged) {
    std::vector<TrendPoint> points;
    for (int i = 0; i < 40; ++i) points.push_back({float(i), float(i % 7)});
    EXPECT_EQ(FixedViewportTrendPointReducer::reduce(points, 10), points);
}

TEST(TrendReducer, KeepsFirstLastAndEveryBucketsExtremesWithinTheCap) {
    std::vector<TrendPoint> points;
    for (int i = 0; i < 5000; ++i)
        points.push_back({i / 5000.f, 0.5f + 0.3f * std::sin(i * 0.05f)});
    points[2345].y = 0.01f;  // a spike must survive
    points[4000].y = 0.99f;
    auto reduced = FixedViewportTrendPointReducer::reduce(points, 100);
    ASSERT_LE(reduced.size(), 400u);
    EXPECT_GT(reduced.size(), 100u);
    EXPECT_EQ(reduced.front(), points.front());
    EXPECT_EQ(reduced.back(), points.back());
    EXPECT_NE(std::find(reduced.begin(), reduced.end(), points[2345]), reduced.end());
    EXPECT_NE(std::find(reduced.begin(), reduced.end(), points[4000]), reduced.end());
    for (std::size_t i = 1; i < reduced.size(); ++i) EXPECT_LT(reduced[i - 1].x, reduced[i].x);
}

TEST(TrendReducer, SameXEverywhereKeepsEndsAndExtremes) {
    std::vector<TrendPoint> points(50, TrendPoint{0.5f, 0.5f});
    points[10].y = 0.1f;
    points[20].y = 0.9f;
    auto reduced = FixedViewportTrendPointReducer::reduce(points, 2);
    EXPECT_EQ(reduced.size(), 4u);
    EXPECT_EQ(reduced[1].y, 0.1f);
    EXPECT_EQ(reduced[2].y, 0.9f);
}

TEST(TrendReducer, EveryBucketKeepsExactlyItsFirstExtremesAndLastInOrder) {
    // x in quarter steps over [0, 1024] with 64 buckets: every bucket boundary is exact.
    std::mt19937 random(7);
    std::vector<TrendPoint> points;
    for (int i = 0; i <= 4096; ++i)
        points.push_back({i * 0.25f, static_cast<float>(random() % 1000) / 1000.f});
    const int buckets = 64;
    auto bucketOf = [](const TrendPoint& p) { return std::min(63, static_cast<int>(p.x / 16)); };

    auto reduced = FixedViewportTrendPointReducer::reduce(points, buckets);
    ASSERT_LE(reduced.size(), 4u * buckets);
    std::vector<TrendPoint> expected;
    std::size_t first = 0;
    while (first < points.size()) {
        std::size_t last = first;
        while (last + 1 < points.size() && bucketOf(points[last + 1]) == bucketOf(points[first]))
            ++last;
        std::size_t lo = first, hi = first;
        for (std::size_t i = first; i <= last; ++i) {
            if (points[i].y < points[lo].y) lo = i;
            if (points[i].y > points[hi].y) hi = i;
        }
        std::vector<std::size_t> keep = {first, lo, hi, last};
        std::sort(keep.begin(), keep.end());
        keep.erase(std::unique(keep.begin(), keep.end()), keep.end());
        for (auto index : keep) expected.push_back(points[index]);
        first = last + 1;
    }
    EXPECT_EQ(reduced, expected);
}

TEST(TrendReducer, AFiveMinuteHistoryFitsTheFineBucketsAndASpikeSurvivesTheCoarseOnes) {
    // 1202 points: five minutes at 4 Hz plus the off-screen seconds.
    std::vector<TrendPoint> points;
    for (int i = 0; i < 1202; ++i) points.push_back({i / 1200.f, 0.4f + 0.001f * (i % 5)});
    points[777].y = 0.95f;
    EXPECT_EQ(FixedViewportTrendPointReducer::reduce(points, 1200), points);
    auto coarse = FixedViewportTrendPointReducer::reduce(points, 180);
    EXPECT_LE(coarse.size(), 720u);
    EXPECT_LT(coarse.size(), points.size());
    EXPECT_NE(std::find(coarse.begin(), coarse.end(), points[777]), coarse.end());
    EXPECT_EQ(coarse.front(), points.front());
    EXPECT_EQ(coarse.back(), points.back());
}

TEST(TrendReducer, ANonPositiveBucketCountStillHonoursTheCap) {
    std::vector<TrendPoint> points;
    for (int i = 0; i < 10; ++i) points.push_back({float(i), float((i * 7 + 3) % 10)});
    for (int buckets : {0, -5}) {
        auto reduced = FixedViewportTrendPointReducer::reduce(points, buckets);
        ASSERT_EQ(reduced.size(), 4u);
        EXPECT_EQ(reduced.front(), points.front());
        EXPECT_EQ(reduced.back(), points.back());
    }
    EXPECT_TRUE(FixedViewportTrendPointReducer::reduce({}, 10).empty());
}

TEST(TrendReducer, OutOfOrderInputStillStaysWithinTheCap) {
    std::vector<TrendPoint> points;
    for (int i = 0; i < 1000; ++i) points.push_back({float(i % 100), float(i % 13)});
    points.push_back({100, 0});
    EXPECT_LE(FixedViewportTrendPointReducer::reduce(points, 10).size(), 40u);
}

TEST(TrendBandBuilder, WarningStretchesAreClippedToTheWindow) {
    std::vector<ThrottleWarningTrendPoint> history = {
        {90, true}, {105, true}, {110, false}, {120, true}, {130, false}, {140, true}, {150, true}};
    auto spans = ThrottleWarningBandBuilder::spans(history, {100, 145});
    ASSERT_EQ(spans.size(), 3u);
    EXPECT_EQ(spans[0], (ClockWindowThrottleSpan{100, 110}));  // started before the window
    EXPECT_EQ(spans[1], (ClockWindowThrottleSpan{120, 130}));
    EXPECT_EQ(spans[2], (ClockWindowThrottleSpan{140, 145}));  // still warning at the end
    EXPECT_TRUE(ThrottleWarningBandBuilder::spans(history, {111, 119}).empty());
    std::vector<ThrottleWarningTrendPoint> single = {{200, true}};
    EXPECT_TRUE(ThrottleWarningBandBuilder::spans(single, {0, 1000}).empty());  // zero length
}

TEST(TrendBandBuilder, StretchesOutsideTheWindowOrEndingOnItsEdgeLeaveNothing) {
    std::vector<ThrottleWarningTrendPoint> history = {{10, true},  {20, false}, {30, true},
                                                      {40, false}, {70, true},  {80, false}};
    EXPECT_TRUE(ThrottleWarningBandBuilder::spans(history, {40, 60}).empty());
    auto spans = ThrottleWarningBandBuilder::spans(history, {15, 75});
    ASSERT_EQ(spans.size(), 3u);
    EXPECT_EQ(spans[0], (ClockWindowThrottleSpan{15, 20}));
    EXPECT_EQ(spans[1], (ClockWindowThrottleSpan{30, 40}));
    EXPECT_EQ(spans[2], (ClockWindowThrottleSpan{70, 75}));
    EXPECT_TRUE(ThrottleWarningBandBuilder::spans({}, {0, 100}).empty());
}

TEST(ClockWindowAnalyzer, ReferenceComesFromTheConfigOrIsLearnedUnderCalmLoad) {
    std::vector<TelemetrySample> samples = {loaded(0, 4000), loaded(1, 3900)};
    samples.push_back(loaded(2, 4400));
    samples.back().thermalPressure = ThermalPressureLevel::serious;  // not a calm maximum
    auto learned = CPUClockWindowAnalyzer::analyze(samples, {0, 10}, {});
    EXPECT_TRUE(learned.referenceReady);
    EXPECT_EQ(learned.referenceClockMHz, 4000);
    GPUClockWindowAnalysisConfig config;
    config.cpuReferenceClockMHz = 5000;
    auto configured = CPUClockWindowAnalyzer::analyze(samples, {0, 10}, config);
    EXPECT_EQ(configured.referenceClockMHz, 5000);
    EXPECT_EQ(configured.highLoadSampleCount, 3);
    ASSERT_TRUE(configured.clockDeficit);
    EXPECT_NEAR(*configured.clockDeficit, 1 - (4000 + 3900 + 4400) / 3.0 / 5000, 1e-12);
}

TEST(ClockWindowAnalyzer, WithoutHighLoadThereIsNoReferenceAndNoDeficit) {
    std::vector<TelemetrySample> samples = {idle(0), idle(1), idle(2)};
    auto cpu = CPUClockWindowAnalyzer::analyze(samples, {0, 10}, {});
    EXPECT_FALSE(cpu.referenceReady);
    EXPECT_EQ(cpu.highLoadSampleCount, 0);
    EXPECT_FALSE(cpu.clockDeficit);
    auto gpu = GPUClockWindowAnalyzer::analyze(samples, {0, 10}, {});
    EXPECT_EQ(PeakPerformanceDomainSelection::select(cpu, gpu), PeakPerformanceDomain::none);
}

TEST(ClockWindowAnalyzer, OnlyDipsOfThreeSecondsOrMoreBecomeThrottleSpans) {
    GPUClockWindowAnalysisConfig config;
    config.cpuReferenceClockMHz = 4000;
    std::vector<TelemetrySample> samples;
    for (int t = 0; t < 30; ++t) {
        double clock = 4000;
        if (t >= 5 && t <= 7) clock = 3000;    // 2 s from first to last: too short
        if (t >= 15 && t <= 19) clock = 3000;  // 4 s
        samples.push_back(loaded(t, clock));
    }
    auto cpu = CPUClockWindowAnalyzer::analyze(samples, {0, 29}, config);
    ASSERT_EQ(cpu.throttleSpans.size(), 1u);
    EXPECT_EQ(cpu.throttleSpans[0], (ClockWindowThrottleSpan{15, 19}));
    // Samples outside the window do not count.
    auto later = CPUClockWindowAnalyzer::analyze(samples, {20, 29}, config);
    EXPECT_TRUE(later.throttleSpans.empty());
    EXPECT_EQ(later.highLoadSampleCount, 10);
}

TEST(ClockWindowAnalyzer, GpuProbesAverageAndIncoherentOnesAreFlagged) {
    std::vector<TelemetrySample> samples;
    for (int t = 0; t < 4; ++t) {
        auto s = loaded(t, 4000, 1800);
        s.gpuRequestedPState = 0;
        s.gpuGrantedPState = t < 2 ? 1 : 2;
        samples.push_back(s);
    }
    auto trusted = GPUClockWindowAnalyzer::analyze(samples, {0, 10}, {});
    EXPECT_EQ(trusted.probeSampleCount, 4);
    EXPECT_EQ(trusted.averageRequestedState, 0);
    EXPECT_EQ(trusted.averageGrantedState, 1.5);
    EXPECT_EQ(trusted.averageStateDeficit, 1.5);
    EXPECT_EQ(trusted.probeConsistency, GPUProbeConsistency::trusted);
    EXPECT_EQ(trusted.constrainedSampleCount, 4);  // every sample granted a slower state
    samples[0].gpuRequestedPState = 3;             // granted faster than requested: impossible
    auto incoherent = GPUClockWindowAnalyzer::analyze(samples, {0, 10}, {});
    EXPECT_EQ(incoherent.probeConsistency, GPUProbeConsistency::incoherent);
    EXPECT_EQ(incoherent.constrainedSampleCount, 0);  // probes ignored, clocks at reference
    auto none =
        GPUClockWindowAnalyzer::analyze(std::vector<TelemetrySample>{loaded(0, 4000)}, {0, 10}, {});
    EXPECT_EQ(none.probeConsistency, GPUProbeConsistency::unknown);
}

TEST(ClockWindowAnalyzer, GpuLimiterNamesTheDominantReportedCause) {
    GPUClockWindowAnalysisConfig config;
    config.referenceClockMHz = 1800;
    auto window = [&](auto mutate) {
        std::vector<TelemetrySample> samples;
        for (int t = 0; t < 6; ++t) {
            auto s = loaded(t, 4000, 1200);
            mutate(s, t);
            samples.push_back(s);
        }
        return GPUClockWindowAnalyzer::analyze(samples, {0, 10}, config).limiter;
    };
    EXPECT_EQ(window([](TelemetrySample& s, int) { s.gpuClockMHz = 1800; }), GPULimiter::none);
    EXPECT_EQ(
        window([](TelemetrySample& s, int) { s.thermalPressure = ThermalPressureLevel::critical; }),
        GPULimiter::osThermalPressure);
    EXPECT_EQ(window([](TelemetrySample& s, int) { s.gpuThrottleReasons = gpuThrottleThermal; }),
              GPULimiter::driverThermal);
    EXPECT_EQ(window([](TelemetrySample& s, int t) {
                  s.gpuThrottleReasons = t < 4 ? gpuThrottlePowerCap : gpuThrottleThermal;
              }),
              GPULimiter::driverPowerCap);
    EXPECT_EQ(window([](TelemetrySample&, int) {}), GPULimiter::unexplainedDeficit);
}

TEST(ClockWindowAnalyzer, LearnedReferenceTakesCalmOrUnreportedPressureOnly) {
    std::vector<TelemetrySample> samples = {loaded(0, 3800), loaded(1, 4100), loaded(2, 4300),
                                            idle(3)};
    samples[1].thermalPressure.reset();  // nothing reported counts as calm
    samples[2].thermalPressure = ThermalPressureLevel::fair;
    samples[3].cpuClockMHz = 4600;  // idle: not a high-load clock
    auto cpu = CPUClockWindowAnalyzer::analyze(samples, {0, 3}, {});
    EXPECT_EQ(cpu.referenceClockMHz, 4100);
    EXPECT_EQ(cpu.highLoadSampleCount, 3);
    EXPECT_EQ(cpu.meanHighLoadClockMHz, (3800 + 4100 + 4300) / 3.0);
}

TEST(ClockWindowAnalyzer, HighLoadFollowsTheConfiguredThresholdsAndTheMachinePowerLevel) {
    auto s = loaded(0, 4000);
    s.cpuUtilizationPct = 65;
    s.gpuUtilizationPct = 10;
    s.totalPowerW = 30;
    std::vector<TelemetrySample> samples = {s};
    GPUClockWindowAnalysisConfig config;
    EXPECT_EQ(CPUClockWindowAnalyzer::analyze(samples, {0, 1}, config).highLoadSampleCount, 0);
    config.highLoadUtilizationPct = 60;
    EXPECT_EQ(CPUClockWindowAnalyzer::analyze(samples, {0, 1}, config).highLoadSampleCount, 0);
    config.highLoadPowerW = 25;  // a small machine's own high-load level
    EXPECT_EQ(CPUClockWindowAnalyzer::analyze(samples, {0, 1}, config).highLoadSampleCount, 1);
    config.highLoadPowerW = 200;  // never above the common 45 W line
    samples[0].totalPowerW = 50;
    EXPECT_EQ(CPUClockWindowAnalyzer::analyze(samples, {0, 1}, config).highLoadSampleCount, 1);
}

TEST(ClockWindowAnalyzer, DeficitThresholdCanBeOverridden) {
    GPUClockWindowAnalysisConfig config;
    config.cpuReferenceClockMHz = 4000;
    std::vector<TelemetrySample> samples;
    for (int t = 0; t < 10; ++t) samples.push_back(loaded(t, 3800));  // 5 % under
    EXPECT_TRUE(CPUClockWindowAnalyzer::analyze(samples, {0, 9}, config).throttleSpans.empty());
    config.deficitThresholdPct = 3;
    auto strict = CPUClockWindowAnalyzer::analyze(samples, {0, 9}, config);
    ASSERT_EQ(strict.throttleSpans.size(), 1u);
    EXPECT_EQ(strict.throttleSpans[0], (ClockWindowThrottleSpan{0, 9}));
    ASSERT_TRUE(strict.clockDeficit);
    EXPECT_NEAR(*strict.clockDeficit, 0.05, 1e-12);
}

TEST(ClockWindowAnalyzer, GpuConstrainedSamplesAreShortOnClockOrGrantedASlowerState) {
    GPUClockWindowAnalysisConfig config;
    config.referenceClockMHz = 2000;
    std::vector<TelemetrySample> samples;
    for (int t = 0; t < 12; ++t) {
        auto s = loaded(t, 4000, 2000);
        s.gpuRequestedPState = 0;
        s.gpuGrantedPState = 0;
        samples.push_back(s);
    }
    samples[1].gpuClockMHz = 1800;  // 10 % short
    samples[2].gpuClockMHz = 1850;  // 7.5 % short
    samples[3].gpuClockMHz = 1870;  // 6.5 %: within the threshold
    samples[4].gpuGrantedPState = 1;
    samples[5].gpuGrantedPState = 2;
    samples[5].gpuClockMHz.reset();  // a probe alone is enough
    samples[6] = idle(6);
    samples[6].gpuClockMHz = 1000;  // short, but not under load
    auto trusted = GPUClockWindowAnalyzer::analyze(samples, {0, 11}, config);
    EXPECT_EQ(trusted.probeConsistency, GPUProbeConsistency::trusted);
    EXPECT_EQ(trusted.highLoadSampleCount, 10);
    EXPECT_EQ(trusted.constrainedSampleCount, 4);
    EXPECT_EQ(trusted.limiter, GPULimiter::unexplainedDeficit);

    // Two impossible grants among eleven probes: more than 10 %, so the probes no longer count.
    samples[7].gpuRequestedPState = 1;
    samples[8].gpuRequestedPState = 1;
    auto incoherent = GPUClockWindowAnalyzer::analyze(samples, {0, 11}, config);
    EXPECT_EQ(incoherent.probeConsistency, GPUProbeConsistency::incoherent);
    EXPECT_EQ(incoherent.constrainedSampleCount, 2);
    // One of eleven stays under the line.
    samples[8].gpuRequestedPState = 0;
    auto oneOff = GPUClockWindowAnalyzer::analyze(samples, {0, 11}, config);
    EXPECT_EQ(oneOff.probeConsistency, GPUProbeConsistency::trusted);
    ASSERT_TRUE(oneOff.averageStateDeficit);
    EXPECT_NEAR(*oneOff.averageStateDeficit, 2 / 11.0, 1e-12);
    // ... unless it outweighs the rest: a negative average deficit is impossible too.
    samples[7].gpuRequestedPState = 4;
    auto negative = GPUClockWindowAnalyzer::analyze(samples, {0, 11}, config);
    EXPECT_EQ(negative.probeConsistency, GPUProbeConsistency::incoherent);
}

TEST(ClockWindowAnalyzer, GpuLimiterTiesGoToDriverThermalThenPowerCapThenTheOs) {
    GPUClockWindowAnalysisConfig config;
    config.referenceClockMHz = 1800;
    auto limiter = [&](std::vector<std::pair<std::uint32_t, ThermalPressureLevel>> causes) {
        std::vector<TelemetrySample> samples;
        for (std::size_t i = 0; i < causes.size(); ++i) {
            auto s = loaded(static_cast<Timestamp>(i), 4000, 1200);
            s.gpuThrottleReasons = causes[i].first;
            s.thermalPressure = causes[i].second;
            samples.push_back(s);
        }
        return GPUClockWindowAnalyzer::analyze(samples, {0, 100}, config).limiter;
    };
    const auto calm = ThermalPressureLevel::nominal;
    const auto serious = ThermalPressureLevel::serious;
    EXPECT_EQ(limiter({{gpuThrottlePowerCap, calm}, {gpuThrottleThermal, calm}}),
              GPULimiter::driverThermal);
    EXPECT_EQ(limiter({{gpuThrottleNone, serious}, {gpuThrottlePowerCap, calm}}),
              GPULimiter::driverPowerCap);
    EXPECT_EQ(
        limiter(
            {{gpuThrottleNone, serious}, {gpuThrottleNone, serious}, {gpuThrottlePowerCap, calm}}),
        GPULimiter::osThermalPressure);
    // Unexplained samples need a majority: half of them is not enough.
    EXPECT_EQ(limiter({{gpuThrottleNone, calm}, {gpuThrottlePowerCap, calm}}),
              GPULimiter::driverPowerCap);
    // A reason outside the three named causes explains nothing.
    EXPECT_EQ(limiter({{gpuThrottleNone, calm},
                       {gpuThrottleNone, calm},
                       {gpuThrottleOther, calm},
                       {gpuThrottlePowerCap, calm}}),
              GPULimiter::unexplainedDeficit);
}

TEST(PeakDomainSelection, PicksCombinedSingleOrNone) {
    CPUClockWindowAnalysis cpu;
    GPUClockWindowAnalysis gpu;
    cpu.referenceReady = gpu.referenceReady = true;
    cpu.highLoadSampleCount = gpu.highLoadSampleCount = 3;
    EXPECT_EQ(PeakPerformanceDomainSelection::select(cpu, gpu), PeakPerformanceDomain::combined);
    gpu.referenceReady = false;
    EXPECT_EQ(PeakPerformanceDomainSelection::select(cpu, gpu), PeakPerformanceDomain::cpu);
    gpu.referenceReady = true;
    cpu.highLoadSampleCount = 0;
    EXPECT_EQ(PeakPerformanceDomainSelection::select(cpu, gpu), PeakPerformanceDomain::gpu);
    gpu.highLoadSampleCount = 0;
    EXPECT_EQ(PeakPerformanceDomainSelection::select(cpu, gpu), PeakPerformanceDomain::none);
}

TEST(AxisLabels, TickDatesSitOnWholeMultiplesOfTheStrideInclusive) {
    auto dates = FixedViewportTrendAxisLabels::referenceTickDates({1000, 1240}, 60);
    EXPECT_EQ(dates, (std::vector<Timestamp>{1020, 1080, 1140, 1200}));
    auto inclusive = FixedViewportTrendAxisLabels::referenceTickDates({1020, 1080}, 15);
    EXPECT_EQ(inclusive, (std::vector<Timestamp>{1020, 1035, 1050, 1065, 1080}));
    EXPECT_TRUE(FixedViewportTrendAxisLabels::referenceTickDates({10, 5}, 15).empty());
}

TEST(AxisLabels, TickDatesOnRealTimestampsAndDegenerateStrides) {
    const ClosedTimeRange window{1'700'000'010.25, 1'700'000'310.25};
    auto dates = FixedViewportTrendAxisLabels::referenceTickDates(window, 60);
    ASSERT_EQ(dates.size(), 5u);
    for (std::size_t i = 0; i < dates.size(); ++i) {
        EXPECT_EQ(std::fmod(dates[i], 60), 0);
        EXPECT_TRUE(window.contains(dates[i]));
        if (i > 0) {
            EXPECT_EQ(dates[i] - dates[i - 1], 60);
        }
    }
    EXPECT_EQ(dates.front(), 1'700'000'040);
    EXPECT_EQ(FixedViewportTrendAxisLabels::referenceTickDates({60, 60}, 60),
              (std::vector<Timestamp>{60}));
    EXPECT_TRUE(FixedViewportTrendAxisLabels::referenceTickDates({61, 119}, 60).empty());
    EXPECT_TRUE(FixedViewportTrendAxisLabels::referenceTickDates({0, 100}, 0).empty());
    EXPECT_TRUE(FixedViewportTrendAxisLabels::referenceTickDates(window, 1e-7).empty());
}

TEST(AxisLabels, TextShowsSecondsOnlyForTheOneMinuteWindow) {
    const char* previous = std::getenv("TZ");
    std::string saved = previous ? previous : "";
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(FixedViewportTrendAxisLabels::text(3723.9, 300), "01:02");
    EXPECT_EQ(FixedViewportTrendAxisLabels::text(3723.9, 60), "01:02:03");
    EXPECT_EQ(FixedViewportTrendAxisLabels::liveTimestampDisplayDate(3723.9), 3723);
    if (previous)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

namespace {
// Drives the real loop against the simulated machine and keeps every sample it published.
struct Recorded {
    std::vector<TelemetrySample> samples;
    GPUClockWindowAnalysisConfig config;
};

Recorded recordSimulatedRun(sim::PlantConfig plant, double load, int seconds) {
    auto machine = std::make_shared<sim::SimulatedMachine>(plant, 11);
    auto fans = std::make_shared<SimulatedFanController>(machine);
    auto telemetry = std::make_shared<SimulatedTelemetryProvider>(machine);
    auto ring = std::make_shared<EventRing>(160, 1e9);
    ControlEngine engine(telemetry, fans, nullptr, ring, nullptr);
    engine.applyMode(ControlMode::performance);
    machine->setLoad(load, load);
    Recorded run;
    Timestamp now = 1'700'000'000;
    for (int i = 0; i < seconds; ++i) {
        auto snap = engine.tick(now += 1.0);
        run.samples.push_back(snap.sample);
        run.config = snap.gpuConfig;
    }
    return run;
}
}  // namespace

TEST(ClockWindowAnalyzerSim, AThrottledStretchYieldsASpanAndADeficitAnUnthrottledOneDoesNot) {
    sim::PlantConfig clogged;
    clogged.sinkAirflowWPerK = 1.5;  // even full fans cannot hold the limit
    auto hot = recordSimulatedRun(clogged, 1.0, 900);
    const Timestamp end = hot.samples.back().timestamp;
    const ClosedTimeRange late{end - 300, end};
    // What the dashboard passes: the window plus a minute of lead-in.
    std::vector<TelemetrySample> visible;
    for (const auto& s : hot.samples)
        if (s.timestamp >= late.lower - 60) visible.push_back(s);

    auto cpu = CPUClockWindowAnalyzer::analyze(visible, late, hot.config);
    EXPECT_TRUE(cpu.referenceReady);
    EXPECT_GT(cpu.highLoadSampleCount, 250);
    ASSERT_TRUE(cpu.clockDeficit);
    EXPECT_GT(*cpu.clockDeficit, 0.07);
    ASSERT_FALSE(cpu.throttleSpans.empty());
    for (const auto& span : cpu.throttleSpans) {
        EXPECT_TRUE(late.contains(span.start));
        EXPECT_TRUE(late.contains(span.end));
    }
    EXPECT_GT(cpu.throttleSpans.front().end - cpu.throttleSpans.front().start, 200);

    auto gpu = GPUClockWindowAnalyzer::analyze(visible, late, hot.config);
    EXPECT_TRUE(gpu.referenceReady);
    ASSERT_TRUE(gpu.clockDeficit);
    EXPECT_GT(*gpu.clockDeficit, 0.07);
    EXPECT_FALSE(gpu.throttleSpans.empty());
    EXPECT_EQ(gpu.probeConsistency, GPUProbeConsistency::trusted);
    EXPECT_GT(gpu.constrainedSampleCount, 250);
    // The machine reports its own thermal slowdown alongside the OS pressure: the driver wins.
    EXPECT_EQ(gpu.limiter, GPULimiter::driverThermal);
    EXPECT_EQ(PeakPerformanceDomainSelection::select(cpu, gpu), PeakPerformanceDomain::combined);

    // Load 0.85 keeps utilisation above the 70 % high-load line on a machine that keeps cool.
    auto cool = recordSimulatedRun(sim::PlantConfig{}, 0.85, 600);
    const ClosedTimeRange settled{cool.samples.back().timestamp - 300,
                                  cool.samples.back().timestamp};
    auto cpuCool = CPUClockWindowAnalyzer::analyze(cool.samples, settled, cool.config);
    EXPECT_TRUE(cpuCool.referenceReady);
    ASSERT_TRUE(cpuCool.clockDeficit);
    EXPECT_LT(*cpuCool.clockDeficit, 0.07);
    EXPECT_TRUE(cpuCool.throttleSpans.empty());
    EXPECT_GT(cpuCool.highLoadSampleCount, 200);
    auto gpuCool = GPUClockWindowAnalyzer::analyze(cool.samples, settled, cool.config);
    EXPECT_TRUE(gpuCool.referenceReady);
    ASSERT_TRUE(gpuCool.clockDeficit);
    EXPECT_LT(*gpuCool.clockDeficit, 0.07);
    EXPECT_TRUE(gpuCool.throttleSpans.empty());
    EXPECT_EQ(gpuCool.limiter, GPULimiter::none);
}

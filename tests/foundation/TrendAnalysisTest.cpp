#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>

#include "foundation/ControlEngine.h"
#include "foundation/EventRing.h"
#include "foundation/TrendAnalysis.h"
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
    const ClosedTimeRange late{hot.samples.back().timestamp - 300, hot.samples.back().timestamp};
    auto cpu = CPUClockWindowAnalyzer::analyze(hot.samples, late, hot.config);
    EXPECT_TRUE(cpu.referenceReady);
    ASSERT_TRUE(cpu.clockDeficit);
    EXPECT_GT(*cpu.clockDeficit, 0.07);
    EXPECT_FALSE(cpu.throttleSpans.empty());
    auto gpu = GPUClockWindowAnalyzer::analyze(hot.samples, late, hot.config);
    EXPECT_FALSE(gpu.throttleSpans.empty());
    EXPECT_NE(gpu.limiter, GPULimiter::none);

    auto cool = recordSimulatedRun(sim::PlantConfig{}, 0.85, 600);
    const ClosedTimeRange settled{cool.samples.back().timestamp - 300,
                                  cool.samples.back().timestamp};
    auto cpuCool = CPUClockWindowAnalyzer::analyze(cool.samples, settled, cool.config);
    EXPECT_TRUE(cpuCool.referenceReady);
    ASSERT_TRUE(cpuCool.clockDeficit);
    EXPECT_LT(*cpuCool.clockDeficit, 0.07);
    EXPECT_TRUE(cpuCool.throttleSpans.empty());
    EXPECT_GT(cpuCool.highLoadSampleCount, 200);
}

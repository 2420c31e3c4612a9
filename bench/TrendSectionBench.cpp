// Cost of recomputing the dashboard's trend section from full live histories, and of a memo hit.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>

#include "dashboard/PinnedLiveTrendSection.h"

namespace {

struct Histories {
    std::vector<kelvo::TelemetrySample> samples;
    std::vector<kelvo::PreviewFanTrendPoint> preview;
    std::vector<kelvo::ThrottleWarningTrendPoint> throttle;
};

// A machine cycling through load phases at the store's 0.25 s trend spacing, with sensor noise.
Histories makeHistories(int count) {
    Histories h;
    h.samples.reserve(static_cast<std::size_t>(count));
    h.preview.reserve(static_cast<std::size_t>(count));
    h.throttle.reserve(static_cast<std::size_t>(count));
    std::uint32_t seed = 12345;
    auto noise = [&seed] {  // uniform in [-1, 1)
        seed = seed * 1664525u + 1013904223u;
        return static_cast<double>(seed >> 8) / double(1u << 23) - 1.0;
    };
    const kelvo::Timestamp start = 1'700'000'000;
    for (int i = 0; i < count; ++i) {
        const double t = start + i * 0.25;
        const double load = 0.5 + 0.5 * std::sin(i * 0.02);        // slow load cycle
        const double heat = 0.5 + 0.5 * std::sin(i * 0.02 - 0.6);  // temperature lags load
        kelvo::TelemetrySample s;
        s.timestamp = t;
        s.cpuTemperatureC = 48 + 45 * heat + noise();
        s.gpuTemperatureC = 44 + 38 * heat + noise();
        s.cpuClockMHz = 2800 + 1400 * load - 250 * heat * heat + 40 * noise();
        s.gpuClockMHz = 900 + 800 * load - 120 * heat + 25 * noise();
        s.gpuReferenceMaxClockMHz = 1800;
        s.cpuUtilizationPct = 15 + 83 * load + 2 * noise();
        s.gpuUtilizationPct = 10 + 85 * load + 3 * noise();
        s.totalPowerW = 18 + 95 * load + 3 * noise();
        s.thermalPressure = heat > 0.9 ? kelvo::ThermalPressureLevel::serious
                                       : kelvo::ThermalPressureLevel::nominal;
        const double fan = 1400 + 3200 * heat + 30 * noise();
        s.fanCurrentRPM = {fan, fan + 120};
        s.fanTargetRPM = {fan + 50, fan + 170};
        s.fanMaxRPM = {5400, 5600};
        s.gpuRequestedPState = 0;
        s.gpuGrantedPState = heat > 0.8 ? 1 : 0;
        s.gpuThrottleReasons = heat > 0.85 ? kelvo::gpuThrottleThermal : kelvo::gpuThrottleNone;
        h.samples.push_back(s);
        h.preview.push_back({t, fan + 200 + 20 * noise()});
        h.throttle.push_back({t, heat > 0.88});
    }
    return h;
}

// Every series on and System mode, so the fan preview is drawn too.
kelvo::TrendSectionComputationKey allSeriesKey() {
    return kelvo::makeTrendSectionComputationKey(1, "fiveMinutes", {},
                                                 kelvo::ControlMode::systemAuto, {});
}

void BM_TrendSectionRecompute(benchmark::State& state) {
    const auto h = makeHistories(static_cast<int>(state.range(0)));
    const kelvo::TrendSectionInputs inputs{h.samples, h.preview, h.throttle};
    kelvo::TrendSectionMemoizer memo;
    auto key = allSeriesKey();
    for (auto _ : state) {
        ++key.trendRevision;  // a new store revision forces the whole computation
        benchmark::DoNotOptimize(&kelvo::pinnedLiveTrendSection(memo, key, inputs));
    }
    state.counters["recomputes"] = static_cast<double>(memo.computationCount());
}
BENCHMARK(BM_TrendSectionRecompute)
    ->Arg(1202)
    ->Arg(100)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_TrendSectionMemoHit(benchmark::State& state) {
    const auto h = makeHistories(1202);
    const kelvo::TrendSectionInputs inputs{h.samples, h.preview, h.throttle};
    kelvo::TrendSectionMemoizer memo;
    kelvo::pinnedLiveTrendSection(memo, allSeriesKey(), inputs);
    for (auto _ : state) {
        // The dashboard rebuilds its key on every evaluation; that is part of a hit's cost.
        const auto evaluated = allSeriesKey();
        benchmark::DoNotOptimize(&kelvo::pinnedLiveTrendSection(memo, evaluated, inputs));
    }
    if (memo.computationCount() != 1) state.SkipWithError("a memo hit recomputed");
}
BENCHMARK(BM_TrendSectionMemoHit)
    ->Unit(benchmark::kNanosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

// Cost of recomputing the dashboard's trend section from full histories, and of a memo hit.
#include <benchmark/benchmark.h>

#include <cmath>

#include "dashboard/TrendSection.h"

namespace {

struct Histories {
    std::vector<kelvo::TelemetrySample> samples;
    std::vector<kelvo::PreviewFanTrendPoint> preview;
    std::vector<kelvo::ThrottleWarningTrendPoint> throttle;
};

Histories makeHistories(int count) {
    Histories h;
    const kelvo::Timestamp start = 1'700'000'000;
    for (int i = 0; i < count; ++i) {
        const double t = start + i * 0.25;
        const double wave = std::sin(i * 0.05);
        kelvo::TelemetrySample s;
        s.timestamp = t;
        s.cpuTemperatureC = 70 + 10 * wave;
        s.gpuTemperatureC = 65 + 8 * wave;
        s.cpuClockMHz = 3900 + 200 * wave;
        s.gpuClockMHz = 1600 + 150 * wave;
        s.gpuReferenceMaxClockMHz = 1800;
        s.cpuUtilizationPct = 85 + 10 * wave;
        s.gpuUtilizationPct = 80;
        s.totalPowerW = 90 + 20 * wave;
        s.thermalPressure = kelvo::ThermalPressureLevel::nominal;
        s.fanCurrentRPM = {2500 + 400 * wave, 2600 + 400 * wave};
        s.fanTargetRPM = {2500, 2600};
        s.fanMaxRPM = {5400, 5400};
        s.gpuRequestedPState = 0;
        s.gpuGrantedPState = wave > 0.5 ? 1 : 0;
        h.samples.push_back(s);
        h.preview.push_back({t, 2700 + 300 * wave});
        h.throttle.push_back({t, wave > 0.8});
    }
    return h;
}

void BM_TrendSectionRecompute(benchmark::State& state) {
    const auto h = makeHistories(static_cast<int>(state.range(0)));
    kelvo::TrendSectionInputs inputs{h.samples, h.preview, h.throttle};
    kelvo::TrendSectionMemoizer memo;
    kelvo::TrendSectionComputationKey key;  // all series on, System mode: the preview is drawn
    for (auto _ : state) {
        ++key.trendRevision;  // a new store revision forces the full computation
        benchmark::DoNotOptimize(&memo.value(key, inputs, 0));
    }
}
BENCHMARK(BM_TrendSectionRecompute)
    ->Arg(1202)
    ->Arg(100)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_TrendSectionMemoHit(benchmark::State& state) {
    const auto h = makeHistories(1202);
    kelvo::TrendSectionInputs inputs{h.samples, h.preview, h.throttle};
    kelvo::TrendSectionMemoizer memo;
    kelvo::TrendSectionComputationKey key;
    memo.value(key, inputs, 0);
    for (auto _ : state) benchmark::DoNotOptimize(&memo.value(key, inputs, 0));
}
BENCHMARK(BM_TrendSectionMemoHit)
    ->Unit(benchmark::kNanosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

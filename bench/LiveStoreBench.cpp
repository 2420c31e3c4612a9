// Cost of handing one snapshot to the live store once its five-minute histories are full.
#include <benchmark/benchmark.h>

#include "live/LiveDashboardStore.h"

namespace {

kelvo::LiveSnapshot makeSnapshot(kelvo::Timestamp t) {
    kelvo::LiveSnapshot s;
    s.sample.timestamp = t;
    s.sample.cpuTemperatureC = 70;
    s.sample.gpuTemperatureC = 65;
    s.sample.cpuClockMHz = 4100;
    s.sample.gpuClockMHz = 1700;
    s.sample.totalPowerW = 90;
    s.sample.fanCurrentRPM = {2400, 2450};
    s.sample.fanTargetRPM = {2400, 2450};
    s.sample.fanMaxRPM = {5400, 5400};
    s.sample.fanNames = {"Simulated fan 1", "Simulated fan 2"};
    kelvo::ControlDecision preview;
    preview.targetRPM = {2500, 2500};
    s.previewDecision = preview;
    s.previewActive = true;
    s.status = kelvo::ControlStatus::monitoring;
    for (int i = 0; i < 160; ++i) {
        kelvo::RuntimeEvent e;
        e.id.bytes[0] = static_cast<std::uint8_t>(i);
        e.timestamp = t - 160 + i;
        e.message = "event";
        s.events.push_back(e);
    }
    return s;
}

void BM_LiveStoreIngest(benchmark::State& state) {
    kelvo::LiveDashboardStore store;
    kelvo::Timestamp t = 1'700'000'000;
    auto snapshot = makeSnapshot(t);
    // Fill the histories to their cap first: the steady state is what matters.
    for (int i = 0; i < 1300; ++i) {
        snapshot.sample.timestamp = (t += 0.25);
        store.ingest(snapshot);
    }
    for (auto _ : state) {
        snapshot.sample.timestamp = (t += 0.25);
        if (store.shouldRefresh(t)) store.ingest(snapshot);
    }
    state.counters["history"] = static_cast<double>(store.sampleHistory().size());
}
BENCHMARK(BM_LiveStoreIngest)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

// Cost of one control-loop tick on the simulated back-end (sample, decide, write, assess).
#include <benchmark/benchmark.h>

#include "foundation/control/ControlEngine.h"
#include "foundation/control/HardwareCapabilityTracker.h"
#include "foundation/core/EventRing.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedMachine.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"
#include "foundation/store/SQLiteStore.h"

namespace {

void BM_ControlLoopTick(benchmark::State& state) {
    using namespace kelvo;
    auto machine = std::make_shared<sim::SimulatedMachine>(sim::PlantConfig{}, 3);
    auto fans = std::make_shared<SimulatedFanController>(machine);
    auto telemetry = std::make_shared<SimulatedTelemetryProvider>(machine);
    // The store the application uses, in memory so the figure is not a disk benchmark.
    auto store = std::make_shared<SQLiteStore>(":memory:");
    auto ring = std::make_shared<EventRing>(160, 300.0);
    auto tracker = std::make_shared<HardwareCapabilityTracker>();
    ControlEngine engine(telemetry, fans, store, ring, tracker);
    engine.applyMode(static_cast<ControlMode>(state.range(0)));
    machine->setLoad(0.7, 0.5);
    Timestamp now = 1'700'000'000;
    for (auto _ : state) {
        auto snapshot = engine.tick(now += 1.0);
        benchmark::DoNotOptimize(snapshot);
    }
    state.SetLabel(std::string(displayName(engine.currentMode())));
}
BENCHMARK(BM_ControlLoopTick)
    ->Arg(static_cast<int>(kelvo::ControlMode::systemAuto))
    ->Arg(static_cast<int>(kelvo::ControlMode::quiet))
    ->Arg(static_cast<int>(kelvo::ControlMode::performance))
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

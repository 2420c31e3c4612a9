#include "QualityRun.h"

#include "ForesightPlanner.h"
#include "LimitHoldPolicy.h"
#include "LinearCurvePolicy.h"
#include "PidPolicy.h"
#include "SoundLevel.h"
#include "SteppedHysteresisPolicy.h"
#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedMachine.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"

namespace kelvo::quality {

namespace {

constexpr Timestamp kStart = 1'700'000'000;
constexpr double kTickSeconds = 1.0;

struct Rig {
    std::shared_ptr<sim::SimulatedMachine> machine;
    std::shared_ptr<SimulatedFanController> fans;
    std::shared_ptr<SimulatedTelemetryProvider> telemetry;

    Rig(const MachineProfile& profile, std::uint64_t seed)
        : machine(std::make_shared<sim::SimulatedMachine>(profile.plant, seed)),
          fans(std::make_shared<SimulatedFanController>(machine)),
          telemetry(std::make_shared<SimulatedTelemetryProvider>(machine)) {}
};

// Same duty-to-speed map as the engine: 0 is each fan's minimum, 1 its maximum.
std::vector<double> targetsFor(const sim::PlantConfig& plant, double duty) {
    std::vector<double> targets;
    for (const auto& fan : plant.fans)
        targets.push_back(fan.minRPM + duty * (fan.maxRPM - fan.minRPM));
    return targets;
}

// Drives the trace; `tick` runs the controller for the second that just ended at `now`.
template <typename Tick>
RunResult drive(Rig& rig, const MachineProfile& profile, const LoadTrace& trace, Tick&& tick) {
    QualityMetrics metrics(profile.plant);
    RunResult result;
    result.series.reserve(static_cast<std::size_t>(trace.seconds()));
    Timestamp now = kStart;
    rig.telemetry->sample(now);  // starts the machine's clock
    for (int second = 0; second < trace.seconds(); ++second) {
        LoadLevel load = trace.at(second);
        rig.machine->setLoad(load.cpu, load.gpu);
        now += kTickSeconds;
        tick(now);
        sim::PlantState state = rig.machine->state();
        metrics.add(state, load, kTickSeconds);
        result.series.push_back(seriesPoint(profile.plant, state));
    }
    result.row = metrics.result();
    return result;
}

}  // namespace

SeriesPoint seriesPoint(const sim::PlantConfig& plant, const sim::PlantState& state) {
    double rpm = 0;
    for (double fan : state.fanCurrentRPM) rpm += fan;
    if (!state.fanCurrentRPM.empty()) rpm /= static_cast<double>(state.fanCurrentRPM.size());
    return {state.cpuTemperatureC, state.gpuTemperatureC, rpm,
            soundLevelDb(plant, state.fanCurrentRPM)};
}

RunResult runController(const MachineProfile& machine, const LoadTrace& trace,
                        const ControllerSpec& controller, const RunSettings& settings) {
    Rig rig(machine, settings.seed);
    RunResult result;
    if (controller.kelvoMode) {
        auto ring = std::make_shared<EventRing>(160, 300.0);
        ControlEngine engine(rig.telemetry, rig.fans, nullptr, ring, nullptr);
        if (*controller.kelvoMode == ControlMode::quietHybrid)
            engine.setAdaptiveLeadModel(settings.leadModel);
        engine.applyMode(*controller.kelvoMode);
        result = drive(rig, machine, trace, [&](Timestamp now) { engine.tick(now); });
        engine.releaseFans(nullptr);
    } else if (controller.plan) {
        const DutyPlan plan = controller.plan(machine, trace, settings);
        std::size_t second = 0;
        result = drive(rig, machine, trace, [&](Timestamp now) {
            rig.telemetry->sample(now);
            const double duty = second < plan.size() ? plan[second] : 1.0;
            ++second;
            rig.fans->setTargets(targetsFor(machine.plant, duty));
        });
    } else if (!controller.makeBaseline) {
        // Nothing writes: the fans stay on the firmware curve the machine starts on.
        result = drive(rig, machine, trace, [&](Timestamp now) { rig.telemetry->sample(now); });
    } else {
        auto policy = controller.makeBaseline();
        result = drive(rig, machine, trace, [&](Timestamp now) {
            TelemetrySample sample = rig.telemetry->sample(now);
            rig.fans->setTargets(targetsFor(machine.plant, policy->duty(sample, kTickSeconds)));
        });
    }
    result.row.machine = machine.name;
    result.row.controller = controller.name;
    result.row.trace = trace.name();
    return result;
}

std::vector<ControllerSpec> standardControllers() {
    std::vector<ControllerSpec> controllers = {
        {"firmware", std::nullopt, {}, {}, "the machine's own curve, nothing written"},
        {"quiet", ControlMode::quiet, {}, {}, {}},
        {"quietHybrid", ControlMode::quietHybrid, {}, {}, {}},
        {"performance", ControlMode::performance, {}, {}, {}},
        {"linear-curve",
         std::nullopt,
         [] { return std::make_unique<LinearCurvePolicy>(); },
         {},
         {}},
        {"stepped-hysteresis",
         std::nullopt,
         [] { return std::make_unique<SteppedHysteresisPolicy>(); },
         {},
         {}},
        {"pid", std::nullopt, [] { return std::make_unique<PidPolicy>(); }, {}, {}},
        {"limit-hold", std::nullopt, [] { return std::make_unique<LimitHoldPolicy>(); }, {}, {}},
        {"foresight",
         std::nullopt,
         {},
         foresightPlan,
         "reference: knows the whole trace and the exact machine; quietest found under 88/85 C"},
    };
    return controllers;
}

}  // namespace kelvo::quality

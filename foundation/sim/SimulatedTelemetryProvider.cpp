#include "foundation/sim/SimulatedTelemetryProvider.h"

namespace kelvo {

SimulatedTelemetryProvider::SimulatedTelemetryProvider(
    std::shared_ptr<sim::SimulatedMachine> machine)
    : machine_(machine ? std::move(machine) : std::make_shared<sim::SimulatedMachine>()) {
    config_ = machine_->config();
    highLoadPowerW_ =
        kHighLoadPowerFraction * (config_.cpuFullLoadPowerW + config_.gpuFullLoadPowerW);
}

TelemetrySample SimulatedTelemetryProvider::sample(Timestamp now) {
    machine_->advanceTo(now);
    const sim::PlantState state = machine_->state();
    TelemetrySample s;
    s.timestamp = now;
    s.cpuTemperatureC = sim::sensedTemperature(config_, state.cpuTemperatureC);
    s.gpuTemperatureC = sim::sensedTemperature(config_, state.gpuTemperatureC);
    s.cpuClockMHz = state.cpuClockMHz;
    s.gpuClockMHz = state.gpuClockMHz;
    s.gpuReferenceMaxClockMHz = state.gpuReferenceMaxClockMHz;
    s.cpuUtilizationPct = state.cpuUtilizationPct;
    s.gpuUtilizationPct = state.gpuUtilizationPct;
    s.totalPowerW = state.totalPowerW;
    s.thermalPressure = state.thermalPressure;
    if (!machine_->fanReadFailure()) {
        s.fanCurrentRPM = state.fanCurrentRPM;
        s.fanTargetRPM = state.fanTargetRPM;
        s.fanMaxRPM = state.fanMaxRPM;
        s.fanMinRPM = state.fanMinRPM;
        s.fanNames = state.fanNames;
    }
    s.gpuRequestedPState = state.gpuRequestedPState;
    s.gpuGrantedPState = state.gpuGrantedPState;
    s.gpuThrottleReasons = state.gpuThrottleReasons;
    return s;
}

std::optional<double> SimulatedTelemetryProvider::highLoadPowerW() const {
    return highLoadPowerW_;
}

}  // namespace kelvo

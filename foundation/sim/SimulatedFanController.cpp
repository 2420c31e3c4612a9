#include "foundation/sim/SimulatedFanController.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

namespace kelvo {

SimulatedFanController::SimulatedFanController()
    : machine_(std::make_shared<sim::SimulatedMachine>()) {
    machine_->advanceTo(wallClockNow());
}

SimulatedFanController::SimulatedFanController(std::shared_ptr<sim::SimulatedMachine> machine)
    : machine_(machine ? std::move(machine) : std::make_shared<sim::SimulatedMachine>()) {}

std::string SimulatedFanController::typeName() const {
    return "SimulatedFanController";
}

FanReadResult SimulatedFanController::readFans() {
    if (auto failure = machine_->fanReadFailure()) return {false, *failure, {}};
    const sim::PlantState state = machine_->state();
    FanReadResult result;
    const sim::PlantConfig config = machine_->config();
    for (std::size_t i = 0; i < state.fanCurrentRPM.size(); ++i) {
        FanState fan{state.fanNames[i],  state.fanCurrentRPM[i], state.fanTargetRPM[i],
                     state.fanMinRPM[i], state.fanMaxRPM[i],     {}};
        // The simulated machine knows its fans: no need to learn what they do at rest.
        fan.canStop = i < config.fans.size() && config.fans[i].canStop();
        fan.firmwareStops = fan.canStop && config.firmwareStopBelowC > 0;
        fan.stopCommanded = isFanStopTarget(state.fanTargetRPM[i]) && state.fanCurrentRPM[i] <= 0;
        result.fans.push_back(std::move(fan));
    }
    return result;
}

FanResult SimulatedFanController::setTargets(const std::vector<double>& targetRPM) {
    const sim::PlantConfig config = machine_->config();
    const std::size_t fans = config.fans.size();
    if (fans == 0) return FanResult::failure("no controllable fans found");
    if (targetRPM.size() != fans) {
        return FanResult::failure("expected " + std::to_string(fans) + " fan targets, got " +
                                  std::to_string(targetRPM.size()));
    }
    std::vector<double> clamped(fans, 0.0);
    for (std::size_t i = 0; i < fans; ++i) {
        const double target = targetRPM[i];
        if (!std::isfinite(target)) {
            return FanResult::failure("invalid target for " + config.fans[i].name);
        }
        if (isFanStopTarget(target)) {
            // A fan that cannot stop runs at its lowest speed instead.
            clamped[i] = config.fans[i].canStop() ? kFanStopRPM : config.fans[i].minRPM;
        } else if (target > 0)
            clamped[i] = std::clamp(target, config.fans[i].minRPM, config.fans[i].maxRPM);
    }

    // The delay is served outside the machine's lock, as a slow device would: telemetry keeps
    // flowing while the write is stuck.
    if (const double delay = machine_->fanWriteDelay(); delay > 0)
        std::this_thread::sleep_for(
            std::chrono::ceil<std::chrono::nanoseconds>(std::chrono::duration<double>(delay)));
    if (auto failure = machine_->fanWriteFailure()) return FanResult::failure(*failure);
    machine_->setFanCommand(std::move(clamped));
    return FanResult::success();
}

// Handing fans back is the firmware taking over, which works even when writes are failing.
FanResult SimulatedFanController::releaseToAutomatic() {
    machine_->setFirmwareControl(true);
    return FanResult::success();
}

bool SimulatedFanController::holdsControl() const {
    return machine_->holdsControl();
}

}  // namespace kelvo

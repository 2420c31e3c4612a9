// Fan back-end over a simulated machine: for VMs, CI and desktops without fan control, and for
// exercising the control loop against fans that really change temperatures.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/core/FanController.h"
#include "foundation/sim/SimulatedMachine.h"

namespace kelvo {

class SimulatedFanController : public FanController {
public:
    // A machine of its own (default plant, seed 1) whose clock starts at the wall clock.
    SimulatedFanController();
    explicit SimulatedFanController(std::shared_ptr<sim::SimulatedMachine> machine);

    std::string typeName() const override;
    FanBackendKind backendKind() const override { return FanBackendKind::simulated; }
    FanReadResult readFans() override;
    // Non-zero targets are clamped to each fan's range; 0 leaves that fan to the firmware.
    FanResult setTargets(const std::vector<double>& targetRPM) override;
    FanResult releaseToAutomatic() override;
    bool holdsControl() const override;

    std::shared_ptr<sim::SimulatedMachine> machine() const { return machine_; }

private:
    std::shared_ptr<sim::SimulatedMachine> machine_;
};

}  // namespace kelvo

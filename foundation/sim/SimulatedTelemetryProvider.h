// Telemetry read from the same simulated machine the simulated fans drive.
#pragma once

#include <memory>

#include "foundation/core/TelemetryProvider.h"
#include "foundation/sim/SimulatedMachine.h"

namespace kelvo {

class SimulatedTelemetryProvider : public TelemetryProvider {
public:
    explicit SimulatedTelemetryProvider(std::shared_ptr<sim::SimulatedMachine> machine);

    // Advances the machine to `now`, then reads every sensor. The fan lists stay empty while
    // fan reads are failing, as a real unreadable sensor would leave them.
    TelemetrySample sample(Timestamp now) override;
    // A throttled machine still counts as loaded: its power falls well under full-load power.
    std::optional<double> highLoadPowerW() const override;

    std::shared_ptr<sim::SimulatedMachine> machine() const { return machine_; }

    static constexpr double kHighLoadPowerFraction = 0.3;

private:
    std::shared_ptr<sim::SimulatedMachine> machine_;
    double highLoadPowerW_ = 0;
    sim::PlantConfig config_;  // as the machine was made: its sensors' step
};

}  // namespace kelvo

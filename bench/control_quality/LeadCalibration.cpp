#include "LeadCalibration.h"

#include "QualityRun.h"

namespace kelvo::quality {

namespace {
constexpr int kIdleSeconds = 120;
constexpr int kStepSeconds = 300;
constexpr double kUtilizationThresholdPct = 70;
constexpr double kRaisedRPM = 50;  // over the idle speed: the controller has reacted
}  // namespace

std::optional<AdaptiveLeadModel> calibrateLeadModel(const MachineProfile& machine,
                                                    std::uint64_t seed) {
    LoadTrace step("calibration");
    step.hold(kIdleSeconds, {0.03, 0.02});
    step.hold(kStepSeconds, {1.0, 1.0});
    ControllerSpec quiet{"quiet", ControlMode::quiet, {}, {}, {}};
    RunResult run = runController(machine, step, quiet, RunSettings{seed, std::nullopt});
    const double idleRPM = run.series.at(kIdleSeconds - 1).rpm;
    for (int second = kIdleSeconds; second < step.seconds(); ++second) {
        if (run.series.at(static_cast<std::size_t>(second)).rpm > idleRPM + kRaisedRPM) {
            AdaptiveLeadModel model;
            model.utilizationThresholdPct = kUtilizationThresholdPct;
            model.averageLeadMs = (second - kIdleSeconds) * 1000.0;
            return model;
        }
    }
    return std::nullopt;
}

}  // namespace kelvo::quality

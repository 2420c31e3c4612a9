// Runs one controller through one trace on one simulated machine, in virtual time: Kelvo's modes
// through the real ControlEngine tick, the baselines through the same telemetry provider and fan
// back-end, one tick a second.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BaselinePolicy.h"
#include "LoadTrace.h"
#include "MachineProfile.h"
#include "QualityMetrics.h"
#include "foundation/Types.h"

namespace kelvo::quality {

struct ControllerSpec {
    std::string name;
    std::optional<ControlMode> kelvoMode;  // set: Kelvo's engine in this mode
    std::function<std::unique_ptr<BaselinePolicy>()> makeBaseline;
};

struct SeriesPoint {
    double cpuC = 0;
    double gpuC = 0;
    double rpm = 0;
};

struct RunResult {
    QualityRow row;
    std::vector<SeriesPoint> series;  // one point per second
};

struct RunSettings {
    std::uint64_t seed = 1;
    // Given to the engine in quietHybrid (the model the application restores from its captures).
    std::optional<AdaptiveLeadModel> leadModel;
};

RunResult runController(const MachineProfile& machine, const LoadTrace& trace,
                        const ControllerSpec& controller, const RunSettings& settings);

// Kelvo's three modes, the three baselines and the limit-hold reference, in table order.
std::vector<ControllerSpec> standardControllers();

}  // namespace kelvo::quality

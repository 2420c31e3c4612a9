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
#include "foundation/core/Types.h"

namespace kelvo::quality {

struct RunSettings;

// A whole run's fan duty (0..1 between each fan's minimum and maximum), one entry per second,
// planned before the run from the machine and the whole trace.
using DutyPlan = std::vector<double>;

struct ControllerSpec {
    std::string name;
    std::optional<ControlMode> kelvoMode;  // set: Kelvo's engine in this mode
    std::function<std::unique_ptr<BaselinePolicy>()> makeBaseline;
    // set: the plan is played back, one duty a second
    std::function<DutyPlan(const MachineProfile&, const LoadTrace&, const RunSettings&)> plan;
    // What it is, for the report's set-up lines (a baseline says it itself).
    std::string description;
};

struct SeriesPoint {
    double cpuC = 0;
    double gpuC = 0;
    double rpm = 0;
    double db = 0;  // the fans' sound level
};

// One second of a run as the charts and series files show it.
SeriesPoint seriesPoint(const sim::PlantConfig& plant, const sim::PlantState& state);

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

// Nothing written: the machine's own firmware curve, then Kelvo's three modes, the three
// baselines and the two references, in table order.
std::vector<ControllerSpec> standardControllers();

}  // namespace kelvo::quality

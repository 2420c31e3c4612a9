// Runs one controller through one trace on one simulated machine, in virtual time, one tick a
// second. The machine is kelvo-simhw's: its sysfs tree mounted in-process (no FUSE) under a root
// of its own. Kelvo's modes run the application's own stack on it: the hwmon telemetry provider,
// the local fan back-end writing pwm files, a fresh store. The baselines read the same telemetry
// and write pwm files as fancontrol-style programs do.
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
#include "foundation/core/FanCoupling.h"
#include "foundation/core/Types.h"

namespace kelvo::quality {

struct RunSettings;

// A whole run's fan duties, planned before the run from the machine and the whole trace: one
// entry per second, each either one duty per fan or a single duty for every fan. A duty is 0..1
// between the fan's minimum and maximum; below 0 a fan that can stop stands still.
using DutyPlan = std::vector<std::vector<double>>;

struct ControllerSpec {
    std::string name;
    std::optional<ControlMode> kelvoMode;  // set: Kelvo's engine in this mode
    std::function<std::unique_ptr<BaselinePolicy>()> makeBaseline;
    // set: the plan is played back, one duty a second
    std::function<DutyPlan(const MachineProfile&, const LoadTrace&, const RunSettings&)> plan;
    // What it is, for the report's set-up lines (a baseline says it itself).
    std::string description;
    // Kelvo's mode launched again on the profile its quiet mode built on the same machine
    // through a long stretch of mixed use (RunSettings::startDatabase).
    bool afterLearning = false;
    // Kelvo's mode launched on a profile that holds the machine file's coupling as if measured
    // exactly: what sharing the work does once the coupling is known, apart from how well it is
    // learned. No user's Kelvo starts so.
    bool knownCoupling = false;
    // Kelvo's mode with the sharing of the work among the fans turned off (nothing probed, every
    // fan at one duty): the mode as it was before it measured the fans.
    bool oneDuty = false;
};

struct SeriesPoint {
    double cpuC = 0;
    double gpuC = 0;
    double rpm = 0;
    double db = 0;               // the fans' sound level
    std::vector<double> fanRPM;  // each fan's speed, in the machine's order
};

// One second of a run as the charts and series files show it.
SeriesPoint seriesPoint(const sim::PlantConfig& plant, const sim::PlantState& state);

// What a run did to the machine and, for Kelvo's modes, what landed in its store: shows that
// the run went through the files a user's Kelvo reads and writes.
struct RunEvidence {
    long pwmWrites = 0;             // accepted pwmN writes, every fan
    long enableWrites = 0;          // accepted pwmN_enable writes, every fan
    std::size_t storedSamples = 0;  // telemetry rows in the run's store
    std::size_t learnedCurves = 0;  // fans with a learned curve in the run's store
    // What Kelvo measured of which die each fan cools, from the run's store, in the machine's
    // fan order (empty for other controllers).
    std::vector<FanCoupling> couplings;
};

struct RunResult {
    QualityRow row;
    std::vector<SeriesPoint> series;  // one point per second
    RunEvidence evidence;
};

struct RunSettings {
    std::uint64_t seed = 1;
    // Kelvo's modes start from a copy of this database, a profile an earlier run of Kelvo left
    // on the same machine; empty: a fresh profile.
    std::string startDatabase;
    // Kelvo's modes leave a copy of their database here when the run ends; empty: none.
    std::string keepDatabase;
};

RunResult runController(const MachineProfile& machine, const LoadTrace& trace,
                        const ControllerSpec& controller, const RunSettings& settings);

// Nothing written: the machine's own firmware curve, then Kelvo's three modes, the three
// baselines and the two references, in table order.
std::vector<ControllerSpec> standardControllers();

}  // namespace kelvo::quality

// Reads the per-second CSV log that kelvo-simhw writes (--log) back into plant states, so a run
// on the real-time mount can be judged by the same metrics as an in-process run.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "LoadTrace.h"
#include "QualityRun.h"
#include "foundation/sim/ThermalPlant.h"

namespace kelvo::hil {

struct LogSecond {
    sim::PlantState state;
    quality::LoadLevel load;  // the offered load the trace played in that second
};

// The first `rows` data rows (every row when `rows` is negative). Fails, with one line in
// *error, on a missing column, a malformed number, a fan count other than the machine's, or
// fewer rows than asked for: a run that stopped early must not pass as a complete one.
std::optional<std::vector<LogSecond>> readSimhwLog(const std::filesystem::path& path,
                                                   const sim::PlantConfig& plant, int rows,
                                                   std::string* error);

// The metrics row and the chart series of one logged run.
quality::RunResult evaluateLog(const std::vector<LogSecond>& seconds,
                               const sim::PlantConfig& plant);

}  // namespace kelvo::hil

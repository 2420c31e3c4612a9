// Writes one run's export folder: run.json (the run, the machine, the model and summary
// figures), samples.csv, events.csv and summary.svg (temperatures, clocks, power and fan speed
// over time with the run's events marked), so the export opens in ordinary tools.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "foundation/core/ProfilingTypes.h"
#include "foundation/store/SQLiteStore.h"

namespace kelvo {

struct ProfileExportInput {
    ProfilingRunRecord run;
    std::vector<TelemetrySample> samples;
    std::vector<ProfilingRunEvent> events;
    std::optional<LearnedModel> model;
    Timestamp exportedAt = 0;
};

namespace ProfileExportWriter {

inline constexpr const char* kFileNames[] = {"run.json", "samples.csv", "events.csv",
                                             "summary.svg"};

std::string runJson(const ProfileExportInput& input);
std::string samplesCsv(const std::vector<TelemetrySample>& samples);
std::string eventsCsv(const std::vector<ProfilingRunEvent>& events);
std::string summarySvg(const ProfileExportInput& input);

// Creates `folder` (which must not exist yet) and writes the four files. On failure nothing of
// the folder is left behind and the result says why.
ProfilingResult<ProfilingExportArtifacts> write(const std::string& folder,
                                                const ProfileExportInput& input);

}  // namespace ProfileExportWriter

}  // namespace kelvo

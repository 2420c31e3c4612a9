// Values that pass between the capture coordinator and the profiling side of the framework.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

enum class ProfilingScenario { cpuStress, gpuStress, mixedStress, realWorkflow };

inline constexpr ProfilingScenario kAllProfilingScenarios[] = {
    ProfilingScenario::cpuStress, ProfilingScenario::gpuStress, ProfilingScenario::mixedStress,
    ProfilingScenario::realWorkflow};

std::string_view rawValue(ProfilingScenario scenario);
// An unknown stored string falls back to the first case.
ProfilingScenario profilingScenarioFromRaw(std::string_view raw);

// Who started a capture, as the auto-stop policy sees it.
enum class CaptureWorkflowKind { backgroundCapture, developerCapture, scriptedWorkload };

// Stop this many whole seconds after the start; package the export at that stop or not.
struct CaptureAutoStopPlan {
    std::int64_t seconds = 0;
    bool packageBundle = false;
    bool operator==(const CaptureAutoStopPlan&) const = default;
};

// One signal recorded during a run, with the sample's figures that explain it.
struct ProfilingRunEvent {
    Uuid id;
    Timestamp timestamp = 0;
    std::string kind;      // "thermal_pressure", "freq_droop", "burst_ramp"
    std::string severity;  // "serious", "critical", "moderate", "high"
    std::vector<std::pair<std::string, double>> values;
    bool operator==(const ProfilingRunEvent&) const = default;
};

// What an export wrote: the folder and the files in it (names only), in writing order.
struct ProfilingExportArtifacts {
    std::string folder;
    std::vector<std::string> files;
    std::size_t sampleCount = 0;
    std::size_t eventCount = 0;
};

struct AdaptiveModelRefreshResult {
    std::optional<AdaptiveLeadModel> model;  // none when the run showed no load rise to learn from
    int loadRises = 0;
};

// A framework call's outcome: a value, or the description of what went wrong.
template <class T>
struct ProfilingResult {
    std::optional<T> value;
    std::string error;

    static ProfilingResult success(T v) { return {std::move(v), {}}; }
    static ProfilingResult failure(std::string message) {
        return {std::nullopt, message.empty() ? std::string("unknown error") : std::move(message)};
    }
    bool ok() const { return value.has_value(); }
};

}  // namespace kelvo

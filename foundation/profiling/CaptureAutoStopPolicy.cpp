#include "foundation/profiling/CaptureAutoStopPolicy.h"

#include <algorithm>

namespace kelvo::CaptureAutoStopPolicy {

std::optional<CaptureAutoStopPlan> plan(CaptureWorkflowKind workflow, ProfilingScenario scenario,
                                        bool startWorkload, int fallbackDurationMinutes) {
    if (workflow == CaptureWorkflowKind::developerCapture) return std::nullopt;
    if (startWorkload && scenario != ProfilingScenario::realWorkflow)
        return CaptureAutoStopPlan{kScriptedWorkloadSeconds, true};
    // A zero or negative duration stops at once rather than never.
    const std::int64_t minutes = std::max(0, fallbackDurationMinutes);
    return CaptureAutoStopPlan{minutes * 60, true};
}

}  // namespace kelvo::CaptureAutoStopPolicy

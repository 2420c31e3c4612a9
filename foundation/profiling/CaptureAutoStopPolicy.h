// When a capture stops on its own. Background captures of real work run for the user's chosen
// duration, scripted stress runs for five minutes (long enough to heat-soak, short enough to
// repeat), and developer captures run until stopped by hand.
#pragma once

#include <optional>

#include "foundation/core/ProfilingTypes.h"

namespace kelvo {

namespace CaptureAutoStopPolicy {

inline constexpr std::int64_t kScriptedWorkloadSeconds = 5 * 60;

std::optional<CaptureAutoStopPlan> plan(CaptureWorkflowKind workflow, ProfilingScenario scenario,
                                        bool startWorkload, int fallbackDurationMinutes);

}  // namespace CaptureAutoStopPolicy

}  // namespace kelvo

// One set of throttle intervals from the GPU and CPU analyses and the controller's warnings.
#pragma once

#include <span>
#include <vector>

#include "foundation/chart/TrendAnalysis.h"

namespace kelvo {

// Ascending, with overlapping and touching spans merged.
std::vector<ClockWindowThrottleSpan> mergedThrottleSpans(
    const GPUClockWindowAnalysis& gpu, const CPUClockWindowAnalysis& cpu,
    std::span<const ClockWindowThrottleSpan> controllerWarningSpans);

}  // namespace kelvo

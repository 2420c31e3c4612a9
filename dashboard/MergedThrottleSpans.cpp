#include "dashboard/MergedThrottleSpans.h"

#include <algorithm>

namespace kelvo {

std::vector<ClockWindowThrottleSpan> mergedThrottleSpans(
    const GPUClockWindowAnalysis& gpu, const CPUClockWindowAnalysis& cpu,
    std::span<const ClockWindowThrottleSpan> controllerWarningSpans) {
    std::vector<ClockWindowThrottleSpan> all;
    all.reserve(gpu.throttleSpans.size() + cpu.throttleSpans.size() +
                controllerWarningSpans.size());
    all.insert(all.end(), gpu.throttleSpans.begin(), gpu.throttleSpans.end());
    all.insert(all.end(), cpu.throttleSpans.begin(), cpu.throttleSpans.end());
    all.insert(all.end(), controllerWarningSpans.begin(), controllerWarningSpans.end());
    std::stable_sort(all.begin(), all.end(),
                     [](const ClockWindowThrottleSpan& a, const ClockWindowThrottleSpan& b) {
                         return a.start < b.start || (a.start == b.start && a.end < b.end);
                     });
    std::vector<ClockWindowThrottleSpan> merged;
    merged.reserve(all.size());
    for (const auto& span : all) {
        if (!merged.empty() && span.start <= merged.back().end)
            merged.back().end = std::max(merged.back().end, span.end);
        else
            merged.push_back(span);
    }
    return merged;
}

}  // namespace kelvo

#include "dashboard/FixedViewportThrottleBands.h"

#include "dashboard/SystemColors.h"
#include "dashboard/TrendPlotCoordinates.h"
#include "dashboard/TrendRenderColor.h"

namespace kelvo {

std::vector<FixedViewportThrottleBandSnapshot> fixedViewportThrottleBands(
    std::span<const ClockWindowThrottleSpan> spans,
    const FixedViewportTrendViewportDomain& domain) {
    std::vector<FixedViewportThrottleBandSnapshot> bands;
    if (domain.visibleWindowSeconds <= 0) return bands;
    const TrendColor color = trendRenderColor(SystemColor::withAlpha(SystemColor::red, 0.12));
    bands.reserve(spans.size());
    for (const auto& span : spans) {
        const float s = trendXFraction(span.start, domain);
        const float e = trendXFraction(span.end, domain);
        if (s < e) bands.push_back({s, e, color});
    }
    return bands;
}

}  // namespace kelvo

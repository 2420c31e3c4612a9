// The fan preview: what the fans would be asked to do, drawn as a dashed line.
#pragma once

#include <span>
#include <vector>

#include "dashboard/TrendWindowMode.h"
#include "foundation/chart/TrendAnalysis.h"
#include "live/PreviewFanTrendPoint.h"

namespace kelvo {

// Points in the domain's fractions against the fan scale; no segment for a non-positive scale
// or fewer than two points.
std::vector<std::vector<TrendPoint>> fixedViewportTrendPreviewSegments(
    std::span<const PreviewFanTrendPoint> points, const FixedViewportTrendViewportDomain& domain,
    double fanScaleMaxRPM, TrendWindowMode mode);

}  // namespace kelvo

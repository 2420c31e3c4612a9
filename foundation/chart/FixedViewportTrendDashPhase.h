// Dash phase of a dashed trend series, anchored to the timeline rather than to the viewport, so
// that dashes travel with the line as the chart scrolls instead of crawling along it.
#pragma once

#include "foundation/core/Types.h"

namespace kelvo::FixedViewportTrendDashPhase {

// The position in pixels, measured from the epoch on a timeline drawn at the plot's scale, of
// the point at `xFraction` of a viewport whose visible window starts at `visibleLowerBound`.
// Successive snapshots give the same value for the same moment in time.
double anchorPixels(double xFraction, Timestamp visibleLowerBound, double visibleWindowSeconds,
                    double plotWidthPixels);

}  // namespace kelvo::FixedViewportTrendDashPhase

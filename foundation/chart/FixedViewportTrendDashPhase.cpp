#include "foundation/chart/FixedViewportTrendDashPhase.h"

namespace kelvo::FixedViewportTrendDashPhase {

double anchorPixels(double xFraction, Timestamp visibleLowerBound, double visibleWindowSeconds,
                    double plotWidthPixels) {
    if (visibleWindowSeconds <= 0) return xFraction * plotWidthPixels;
    const double pixelsPerSecond = plotWidthPixels / visibleWindowSeconds;
    return visibleLowerBound * pixelsPerSecond + xFraction * plotWidthPixels;
}

}  // namespace kelvo::FixedViewportTrendDashPhase

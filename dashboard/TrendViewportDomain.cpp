#include "dashboard/TrendViewportDomain.h"

#include <QtGlobal>

#include "dashboard/TrendChartConstants.h"

namespace kelvo {

FixedViewportTrendViewportDomain trendViewportDomain(Timestamp referenceUpperBound,
                                                     TrendWindowMode mode) {
    const double offscreen =
        kFixedViewportBaseOffscreenWriteSeconds > 0 ? kFixedViewportBaseOffscreenWriteSeconds : 0;
    return FixedViewportTrendViewportDomain::make(referenceUpperBound,
                                                  trendWindowShape(mode).windowSeconds, offscreen);
}

ClosedTimeRange liveClockAnalysisWindow(Timestamp referenceUpperBound, TrendWindowMode mode) {
    const auto domain = trendViewportDomain(referenceUpperBound, mode);
    const ClosedTimeRange window{domain.visibleLowerBound(), domain.visibleUpperBound()};
    // Window lengths are positive constants: an inverted range means broken arithmetic.
    if (window.lower > window.upper) qFatal("Inverted trend analysis window");
    return window;
}

}  // namespace kelvo

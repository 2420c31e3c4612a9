#include "dashboard/TrendPlotCoordinates.h"

#include <algorithm>

#include "dashboard/TrendChartConstants.h"

namespace kelvo {

float trendXFraction(Timestamp t, const FixedViewportTrendViewportDomain& domain) {
    const double w = domain.visibleWindowSeconds;
    return w > 0 ? static_cast<float>((t - domain.visibleLowerBound()) / w) : 0.0f;
}

float trendYFraction(double value) {
    return static_cast<float>(1.0 - value / kTrendChartYDomainMax);
}

double trendPercentOfScale(double value, double scale) {
    return std::clamp(value / scale * 100.0, 0.0, kTrendChartYDomainMax);
}

std::vector<std::vector<TrendPoint>> trendSeriesSegments(std::span<const TrendPoint> points,
                                                         int bucketCount) {
    std::vector<std::vector<TrendPoint>> segments;
    if (points.size() < 2) return segments;
    auto reduced = FixedViewportTrendPointReducer::reduce(points, bucketCount);
    if (reduced.size() < 2) return segments;
    segments.push_back(std::move(reduced));
    return segments;
}

}  // namespace kelvo

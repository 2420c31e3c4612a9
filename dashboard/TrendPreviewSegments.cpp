#include "dashboard/TrendPreviewSegments.h"

#include "dashboard/TrendPlotCoordinates.h"

namespace kelvo {

std::vector<std::vector<TrendPoint>> fixedViewportTrendPreviewSegments(
    std::span<const PreviewFanTrendPoint> points, const FixedViewportTrendViewportDomain& domain,
    double fanScaleMaxRPM, TrendWindowMode mode) {
    if (fanScaleMaxRPM <= 0 || points.size() < 2) return {};
    std::vector<TrendPoint> line;
    line.reserve(points.size());
    for (const auto& p : points)
        line.push_back({trendXFraction(p.timestamp, domain),
                        trendYFraction(trendPercentOfScale(p.averageRPM, fanScaleMaxRPM))});
    return trendSeriesSegments(line, trendWindowShape(mode).reducerBucketCount);
}

}  // namespace kelvo

#include "trend_render/TrendPlotGeometry.h"

#include <algorithm>

#include "dashboard/TrendChartConstants.h"

namespace kelvo {

namespace {
Vertex vertex(double x, double y, bool scrolls, const TrendColor& color) {
    return Vertex{{static_cast<float>(x), static_cast<float>(y), scrolls ? 1.0f : 0.0f, 0.0f},
                  color};
}
}  // namespace

std::vector<Vertex> buildPlotGridVertices(std::span<const FixedViewportTrendTickSnapshot> ticks,
                                          const QSizeF& plotSize, const TrendColor& horizontal,
                                          const TrendColor& vertical) {
    std::vector<Vertex> vertices;
    for (double value : kTrendGridValues) {
        const double y = 1.0 - value / kTrendChartYDomainMax;
        vertices.push_back(vertex(0, y, false, horizontal));
        vertices.push_back(vertex(1, y, false, horizontal));
    }
    const double height = std::max(1.0, plotSize.height());
    const double dash = kTrendGridDashPoints / height;
    const double gap = kTrendGridGapPoints / height;
    for (const auto& tick : ticks) {
        for (double y = 0; y < 1; y += dash + gap) {
            vertices.push_back(vertex(tick.xFraction, y, true, vertical));
            vertices.push_back(vertex(tick.xFraction, std::min(y + dash, 1.0), true, vertical));
        }
    }
    return vertices;
}

std::vector<Vertex> buildAxisTickVertices(std::span<const FixedViewportTrendTickSnapshot> ticks,
                                          const QSizeF& plotSize, const TrendColor& color) {
    std::vector<Vertex> vertices;
    vertices.reserve(ticks.size() * 2);
    const double bottom = 1.0 + kTrendAxisTickLengthPoints / std::max(1.0, plotSize.height());
    for (const auto& tick : ticks) {
        vertices.push_back(vertex(tick.xFraction, 1, true, color));
        vertices.push_back(vertex(tick.xFraction, bottom, true, color));
    }
    return vertices;
}

std::vector<Vertex> buildThrottleBandVertices(
    std::span<const FixedViewportThrottleBandSnapshot> bands, bool shifted) {
    std::vector<Vertex> vertices;
    vertices.reserve(bands.size() * 6);
    for (const auto& band : bands) {
        if (!(band.startXFraction < band.endXFraction)) continue;
        const double s = band.startXFraction;
        const double e = band.endXFraction;
        for (auto [x, y] : {std::pair{s, 0.0}, {e, 0.0}, {e, 1.0}, {s, 0.0}, {e, 1.0}, {s, 1.0}})
            vertices.push_back(vertex(x, y, shifted, band.color));
    }
    return vertices;
}

}  // namespace kelvo

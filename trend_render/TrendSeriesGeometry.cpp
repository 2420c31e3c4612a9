#include "trend_render/TrendSeriesGeometry.h"

#include <algorithm>
#include <cmath>

#include "foundation/chart/FixedViewportTrendDashPhase.h"

namespace kelvo {

namespace {
constexpr double kSamePointTolerance = 1e-6;
constexpr double kShortestStepPixels = 0.0001;
constexpr double kDegenerateJoin = 0.0001;

TrendPoint lerp(const TrendPoint& a, const TrendPoint& b, double t) {
    return {static_cast<float>(a.x + (b.x - a.x) * t), static_cast<float>(a.y + (b.y - a.y) * t)};
}

Vertex scrollingVertex(double x, double y, const TrendColor& color) {
    return Vertex{{static_cast<float>(x), static_cast<float>(y), 1.0f, 0.0f}, color};
}
}  // namespace

TrendPolyline deduplicatedPolyline(std::span<const TrendPoint> points) {
    TrendPolyline kept;
    kept.reserve(points.size());
    for (const auto& point : points) {
        if (!kept.empty() && std::abs(point.x - kept.back().x) <= kSamePointTolerance &&
            std::abs(point.y - kept.back().y) <= kSamePointTolerance)
            continue;
        kept.push_back(point);
    }
    return kept;
}

DashState anchoredDashState(double anchorPixels, double dashPixels, double gapPixels) {
    const double period = dashPixels + gapPixels;
    if (period <= 0) return {true, dashPixels};
    double phase = std::fmod(anchorPixels, period);
    if (phase < 0) phase += period;
    if (phase < dashPixels) return {true, dashPixels - phase};
    return {false, period - phase};
}

std::vector<TrendPolyline> dashedSegments(std::span<const TrendPoint> polyline, double widthScale,
                                          double heightScale, double dashPixels, double gapPixels,
                                          DashState start) {
    std::vector<TrendPolyline> pieces;
    if (polyline.size() < 2 || dashPixels <= 0) return pieces;
    DashState state = start;
    TrendPolyline current;
    if (state.drawing) current.push_back(polyline.front());
    for (size_t i = 1; i < polyline.size(); ++i) {
        const TrendPoint& a = polyline[i - 1];
        const TrendPoint& b = polyline[i];
        const double length = std::hypot((b.x - a.x) * widthScale, (b.y - a.y) * heightScale);
        if (length <= 0) continue;
        double position = 0;
        while (length - position > state.remaining) {
            position += state.remaining;
            const TrendPoint cut = lerp(a, b, position / length);
            if (state.drawing) {
                current.push_back(cut);
                pieces.push_back(std::move(current));
                current.clear();
            } else {
                current = {cut};
            }
            state.drawing = !state.drawing;
            state.remaining = state.drawing ? dashPixels : gapPixels;
            if (state.remaining <= 0) state.remaining = dashPixels;
        }
        state.remaining -= length - position;
        if (state.drawing) current.push_back(b);
    }
    if (state.drawing && current.size() >= 2) pieces.push_back(std::move(current));
    return pieces;
}

std::array<double, 2> joinedOffsetPixels(std::array<double, 2> previous, std::array<double, 2> next,
                                         double halfWidth) {
    const double sx = previous[0] + next[0];
    const double sy = previous[1] + next[1];
    const double lengthSquared = sx * sx + sy * sy;
    if (lengthSquared <= kDegenerateJoin) return {next[0] * halfWidth, next[1] * halfWidth};
    const double length = std::sqrt(lengthSquared);
    const double mx = sx / length;
    const double my = sy / length;
    const double projection = mx * next[0] + my * next[1];
    if (projection <= kDegenerateJoin) return {next[0] * halfWidth, next[1] * halfWidth};
    const double scale = halfWidth / projection;
    return {mx * scale, my * scale};
}

void strokedSegmentVertices(std::span<const TrendPoint> segment, const TrendColor& color,
                            double widthScale, double heightScale, double halfWidth,
                            std::vector<Vertex>& out) {
    // Points joined by steps long enough to have a direction, and each step's unit normal.
    std::vector<TrendPoint> points;
    std::vector<std::array<double, 2>> normals;
    points.reserve(segment.size());
    normals.reserve(segment.size());
    for (const auto& point : segment) {
        if (points.empty()) {
            points.push_back(point);
            continue;
        }
        const double dx = (point.x - points.back().x) * widthScale;
        const double dy = (point.y - points.back().y) * heightScale;
        const double length = std::hypot(dx, dy);
        if (length < kShortestStepPixels) continue;
        points.push_back(point);
        normals.push_back({-dy / length, dx / length});
    }
    if (normals.empty()) return;

    auto offsetAt = [&](size_t i) -> std::array<double, 2> {
        if (i == 0) return {normals[0][0] * halfWidth, normals[0][1] * halfWidth};
        if (i == points.size() - 1)
            return {normals[i - 1][0] * halfWidth, normals[i - 1][1] * halfWidth};
        return joinedOffsetPixels(normals[i - 1], normals[i], halfWidth);
    };
    auto rails = [&](size_t i) {
        const auto offset = offsetAt(i);
        const double ox = offset[0] / widthScale;
        const double oy = offset[1] / heightScale;
        return std::pair{scrollingVertex(points[i].x + ox, points[i].y + oy, color),
                         scrollingVertex(points[i].x - ox, points[i].y - oy, color)};
    };
    out.reserve(out.size() + normals.size() * 6);
    auto [left, right] = rails(0);
    for (size_t i = 1; i < points.size(); ++i) {
        auto [nextLeft, nextRight] = rails(i);
        out.insert(out.end(), {left, right, nextLeft, right, nextRight, nextLeft});
        left = nextLeft;
        right = nextRight;
    }
}

std::vector<Vertex> buildSeriesVertices(const FixedViewportTrendSeriesSnapshot& series,
                                        const QSizeF& plotSize,
                                        const FixedViewportTrendViewportDomain& domain) {
    std::vector<Vertex> vertices;
    buildSeriesVertices(series, plotSize, domain, vertices);
    return vertices;
}

void buildSeriesVertices(const FixedViewportTrendSeriesSnapshot& series, const QSizeF& plotSize,
                         const FixedViewportTrendViewportDomain& domain,
                         std::vector<Vertex>& vertices) {
    vertices.clear();
    const double widthScale = std::max(1.0, plotSize.width());
    const double heightScale = std::max(1.0, plotSize.height());
    const double halfWidth = series.lineWidthPixels / 2.0;
    for (const auto& segment : series.segments) {
        const TrendPolyline line = deduplicatedPolyline(segment);
        if (line.size() < 2) continue;
        if (!series.dashPatternPixels) {
            strokedSegmentVertices(line, series.color, widthScale, heightScale, halfWidth,
                                   vertices);
            continue;
        }
        const auto [dash, gap] = *series.dashPatternPixels;
        const double anchor = FixedViewportTrendDashPhase::anchorPixels(
            line.front().x, domain.visibleLowerBound(), domain.visibleWindowSeconds, widthScale);
        const DashState start = anchoredDashState(anchor, dash, gap);
        for (const auto& piece : dashedSegments(line, widthScale, heightScale, dash, gap, start))
            strokedSegmentVertices(piece, series.color, widthScale, heightScale, halfWidth,
                                   vertices);
    }
}

}  // namespace kelvo

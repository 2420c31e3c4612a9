#include <gtest/gtest.h>

#include <cmath>

#include "foundation/chart/FixedViewportTrendDashPhase.h"
#include "trend_render/FixedViewportTrendRenderer.h"
#include "trend_render/ReusableVertexBuffer.h"
#include "trend_render/TrendPlotGeometry.h"
#include "trend_render/TrendSeriesGeometry.h"

namespace kelvo {
namespace {

const TrendColor kRed{1, 0, 0, 1};
const TrendColor kGrey{0.5f, 0.5f, 0.5f, 1};
const QSizeF kPlot{360, 210};

TEST(TrendGeometry, SnapshotWithoutSeriesBandsOrTicksBuildsOnlySixHorizontalGridLines) {
    FixedViewportTrendRenderer renderer;
    FixedViewportTrendSnapshot snapshot;
    snapshot.viewportDomain = FixedViewportTrendViewportDomain::make(1000, 60, 1);
    renderer.update(snapshot, QRectF(QPointF(20, 20), kPlot),
                    TrendChartAppearance::fromPalette(QPalette(Qt::black, Qt::white)));
    ASSERT_EQ(renderer.gridVertices().size(), 12u);
    for (std::size_t i = 0; i < 12; i += 2) {
        const auto& a = renderer.gridVertices()[i];
        const auto& b = renderer.gridVertices()[i + 1];
        EXPECT_EQ(a.positionAndShift[1], b.positionAndShift[1]) << "line " << i / 2;
        EXPECT_EQ(a.positionAndShift[0], 0.0f);
        EXPECT_EQ(b.positionAndShift[0], 1.0f);
        EXPECT_EQ(a.positionAndShift[2], 0.0f) << "horizontal grid lines do not scroll";
    }
    EXPECT_TRUE(renderer.axisTickVertices().empty());
    EXPECT_TRUE(renderer.throttleBandVertices().empty());
    EXPECT_TRUE(renderer.seriesVertices().empty());
}

TEST(TrendGeometry, HorizontalGridLinesSitAtValuesOverTheChartRange) {
    const auto vertices = buildPlotGridVertices({}, kPlot, kGrey, kGrey);
    const double expected[] = {100, 80, 60, 40, 20, 0};
    for (int i = 0; i < 6; ++i)
        EXPECT_FLOAT_EQ(vertices[2 * i].positionAndShift[1],
                        static_cast<float>(1.0 - expected[i] / 105.0));
}

TEST(TrendGeometry, TickLinesAreDashedScrollingAndStayInsideThePlot) {
    const FixedViewportTrendTickSnapshot tick{0, "12:00", 0.5};
    const auto vertices = buildPlotGridVertices(std::span(&tick, 1), kPlot, kGrey, kRed);
    ASSERT_GT(vertices.size(), 12u);
    const double dash = 4.0 / kPlot.height();
    const double period = 10.0 / kPlot.height();
    std::size_t pieces = 0;
    for (std::size_t i = 12; i < vertices.size(); i += 2, ++pieces) {
        EXPECT_FLOAT_EQ(vertices[i].positionAndShift[0], 0.5f);
        EXPECT_EQ(vertices[i].positionAndShift[2], 1.0f);
        EXPECT_NEAR(vertices[i].positionAndShift[1], pieces * period, 1e-5);
        EXPECT_LE(vertices[i + 1].positionAndShift[1], 1.0f);
        EXPECT_LE(vertices[i + 1].positionAndShift[1] - vertices[i].positionAndShift[1],
                  dash + 1e-6);
    }
    EXPECT_EQ(pieces, static_cast<std::size_t>(std::ceil(1.0 / period)));
}

TEST(TrendGeometry, AxisTicksHangFourPointsBelowThePlot) {
    const FixedViewportTrendTickSnapshot tick{0, "12:00", 0.25};
    const auto vertices = buildAxisTickVertices(std::span(&tick, 1), kPlot, kGrey);
    ASSERT_EQ(vertices.size(), 2u);
    EXPECT_FLOAT_EQ(vertices[0].positionAndShift[1], 1.0f);
    EXPECT_FLOAT_EQ(vertices[1].positionAndShift[1], static_cast<float>(1.0 + 4.0 / 210.0));
    EXPECT_EQ(vertices[1].positionAndShift[2], 1.0f);
}

TEST(TrendGeometry, ABandWithStartNotBeforeEndYieldsNothing) {
    const FixedViewportThrottleBandSnapshot bands[] = {{0.5f, 0.5f, kRed}, {0.6f, 0.4f, kRed}};
    EXPECT_TRUE(buildThrottleBandVertices(bands, true).empty());
    const FixedViewportThrottleBandSnapshot band{0.2f, 0.4f, kRed};
    const auto vertices = buildThrottleBandVertices(std::span(&band, 1), false);
    ASSERT_EQ(vertices.size(), 6u);
    EXPECT_EQ(vertices[0].positionAndShift[2], 0.0f);
    EXPECT_FLOAT_EQ(vertices[2].positionAndShift[0], 0.4f);
    EXPECT_FLOAT_EQ(vertices[2].positionAndShift[1], 1.0f);
}

TEST(TrendGeometry, APolylineOfIdenticalPointsStrokesToNothing) {
    FixedViewportTrendSeriesSnapshot series;
    series.color = kRed;
    series.segments = {{{0.3f, 0.5f}, {0.3f, 0.5f}, {0.3f, 0.5f}}};
    EXPECT_TRUE(buildSeriesVertices(series, kPlot, FixedViewportTrendViewportDomain::make(0, 60, 1))
                    .empty());
    std::vector<Vertex> out;
    const TrendPoint same[] = {{0.1f, 0.1f}, {0.1f, 0.1f}};
    strokedSegmentVertices(same, kRed, kPlot.width(), kPlot.height(), 1, out);
    EXPECT_TRUE(out.empty());
}

TEST(TrendGeometry, DeduplicationDropsPointsWithinTolerance) {
    const TrendPoint points[] = {{0, 0}, {0.0000005f, 0}, {0.5f, 0.5f}, {0.5f, 0.5f}, {1, 1}};
    const auto kept = deduplicatedPolyline(points);
    ASSERT_EQ(kept.size(), 3u);
    EXPECT_EQ(kept[1], (TrendPoint{0.5f, 0.5f}));
}

TEST(TrendGeometry, AHorizontalStrokeIsOffsetByHalfItsWidthInPixels) {
    std::vector<Vertex> out;
    const TrendPoint line[] = {{0.0f, 0.5f}, {1.0f, 0.5f}};
    strokedSegmentVertices(line, kRed, kPlot.width(), kPlot.height(), 1.0, out);
    ASSERT_EQ(out.size(), 6u);
    for (const auto& v : out) {
        EXPECT_NEAR(std::abs(v.positionAndShift[1] - 0.5) * kPlot.height(), 1.0, 1e-4);
        EXPECT_EQ(v.positionAndShift[2], 1.0f) << "series scroll";
        EXPECT_EQ(v.color, kRed);
    }
}

TEST(TrendGeometry, InnerPointsGetAMiterJoin) {
    // A right angle: the miter offset reaches the corner of both rails, √2 × half width away.
    const auto offset = joinedOffsetPixels({0, 1}, {-1, 0}, 2.0);
    EXPECT_NEAR(std::hypot(offset[0], offset[1]), 2.0 * std::sqrt(2.0), 1e-9);
    EXPECT_NEAR(offset[0], -2.0, 1e-9);
    EXPECT_NEAR(offset[1], 2.0, 1e-9);
    // Turning straight back has no miter: the next normal is used.
    const auto reversed = joinedOffsetPixels({0, 1}, {0, -1}, 2.0);
    EXPECT_NEAR(reversed[0], 0.0, 1e-12);
    EXPECT_NEAR(reversed[1], -2.0, 1e-12);
}

TEST(TrendGeometry, DashStateFollowsTheAnchorModuloThePeriod) {
    EXPECT_EQ(anchoredDashState(0, 5, 6), (DashState{true, 5}));
    EXPECT_EQ(anchoredDashState(3, 5, 6), (DashState{true, 2}));
    EXPECT_EQ(anchoredDashState(7, 5, 6), (DashState{false, 4}));
    EXPECT_EQ(anchoredDashState(11 * 1000 + 3, 5, 6), (DashState{true, 2}));
    EXPECT_EQ(anchoredDashState(-8, 5, 6), (DashState{true, 2}));
}

TEST(TrendGeometry, DashesTravelWithTheContentAcrossSnapshots) {
    // The same horizontal line, seen from two snapshots 2.5 s apart: its dash pieces must sit
    // at the same moments in time.
    const double width = 300;  // 60 s over 300 px: 5 px a second
    auto dashStartsInSeconds = [&](Timestamp reference) {
        const auto domain = FixedViewportTrendViewportDomain::make(reference, 60, 1);
        const Timestamp lower = domain.visibleLowerBound();
        const float x0 = static_cast<float>((1000.0 - lower) / 60.0);
        const float x1 = static_cast<float>((1030.0 - lower) / 60.0);
        const TrendPoint line[] = {{x0, 0.5f}, {x1, 0.5f}};
        const double anchor = FixedViewportTrendDashPhase::anchorPixels(x0, lower, 60, width);
        std::vector<double> starts;
        for (const auto& piece :
             dashedSegments(line, width, 100, 5, 6, anchoredDashState(anchor, 5, 6)))
            starts.push_back(lower + piece.front().x * 60.0);
        return starts;
    };
    const auto first = dashStartsInSeconds(1040);
    const auto later = dashStartsInSeconds(1042.5);
    ASSERT_GT(first.size(), 5u);
    ASSERT_EQ(first.size(), later.size());
    for (std::size_t i = 0; i < first.size(); ++i) EXPECT_NEAR(first[i], later[i], 1e-3);
}

TEST(TrendGeometry, DashedSegmentsAlternateDashAndGapLengths) {
    const TrendPoint line[] = {{0, 0}, {1, 0}};  // 100 px long at width 100
    const auto pieces = dashedSegments(line, 100, 100, 5, 6, DashState{true, 5});
    ASSERT_EQ(pieces.size(), 10u);  // 9 full periods of 11 px and a 1 px tail dash
    EXPECT_NEAR(pieces[0].back().x * 100, 5, 1e-4);
    EXPECT_NEAR(pieces[1].front().x * 100, 11, 1e-4);
    EXPECT_NEAR(pieces[9].front().x * 100, 99, 1e-4);
}

TEST(TrendGeometry, BufferCapacityGrowsByDoublingFromFourKilobytesAndIsReused) {
    EXPECT_EQ(reusableBufferCapacity(0, 8192), 0);
    EXPECT_EQ(reusableBufferCapacity(1, 0), 4096);
    EXPECT_EQ(reusableBufferCapacity(128, 4096), 4096) << "128 × 32 bytes fit exactly";
    EXPECT_EQ(reusableBufferCapacity(129, 4096), 8192);
    EXPECT_EQ(reusableBufferCapacity(10, 8192), 8192) << "shrinking keeps the buffer";
    EXPECT_EQ(reusableBufferCapacity(1000, 4096), 32000) << "a big jump takes what it needs";
}

TEST(TrendGeometry, ReusableBufferKeepsItsStorageForSmallerUploads) {
    ReusableVertexBuffer buffer(QSGGeometry::DrawTriangles, nullptr);
    std::vector<Vertex> vertices(200);
    buffer.upload(vertices);
    EXPECT_EQ(buffer.capacityBytes(), 6400);
    EXPECT_EQ(buffer.node()->geometry()->vertexCount(), 200);
    const void* storage = buffer.node()->geometry()->vertexData();
    vertices.resize(20);
    buffer.upload(vertices);
    EXPECT_EQ(buffer.capacityBytes(), 6400);
    EXPECT_EQ(buffer.vertexCount(), 20);
    EXPECT_EQ(buffer.node()->geometry()->vertexCount(), 200) << "the rest is parked";
    vertices.resize(201);
    buffer.upload(vertices);
    EXPECT_EQ(buffer.capacityBytes(), 12800) << "doubles when it must grow";
    storage = buffer.node()->geometry()->vertexData();
    vertices.resize(150);
    buffer.upload(vertices);
    EXPECT_EQ(buffer.node()->geometry()->vertexData(), storage);
    buffer.upload({});
    EXPECT_EQ(buffer.capacityBytes(), 0);
    EXPECT_EQ(buffer.node()->geometry()->vertexCount(), 0);
    delete buffer.node();
}

}  // namespace
}  // namespace kelvo

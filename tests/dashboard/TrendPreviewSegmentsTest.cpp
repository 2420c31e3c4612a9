#include <gtest/gtest.h>

#include "dashboard/TrendPreviewSegments.h"

using namespace kelvo;

namespace {
const auto kDomain = FixedViewportTrendViewportDomain::make(1001, 60, 1);  // visible 940..1000
}

TEST(TrendPreviewSegments, PointsArePlacedAgainstTheFanScaleAndClamped) {
    const std::vector<PreviewFanTrendPoint> points = {{940, 2500}, {970, 10000}, {1000, -50}};
    const auto segments =
        fixedViewportTrendPreviewSegments(points, kDomain, 5000, TrendWindowMode::oneMinute);
    ASSERT_EQ(segments.size(), 1u);
    ASSERT_EQ(segments[0].size(), 3u);
    EXPECT_FLOAT_EQ(segments[0][0].x, 0.0f);
    EXPECT_FLOAT_EQ(segments[0][0].y, static_cast<float>(1.0 - 50.0 / 105.0));
    EXPECT_FLOAT_EQ(segments[0][1].x, 0.5f);
    EXPECT_FLOAT_EQ(segments[0][1].y, 0.0f);  // 200 % is drawn at the 105 % top
    EXPECT_FLOAT_EQ(segments[0][2].x, 1.0f);
    EXPECT_FLOAT_EQ(segments[0][2].y, 1.0f);  // below zero is drawn at zero
}

TEST(TrendPreviewSegments, NoSegmentWithoutAPositiveScaleOrTwoPoints) {
    const std::vector<PreviewFanTrendPoint> two = {{950, 2500}, {960, 2600}};
    EXPECT_TRUE(
        fixedViewportTrendPreviewSegments(two, kDomain, 0, TrendWindowMode::oneMinute).empty());
    EXPECT_TRUE(
        fixedViewportTrendPreviewSegments(two, kDomain, -1, TrendWindowMode::oneMinute).empty());
    EXPECT_TRUE(fixedViewportTrendPreviewSegments(std::span(two).first(1), kDomain, 5000,
                                                  TrendWindowMode::oneMinute)
                    .empty());
    EXPECT_EQ(
        fixedViewportTrendPreviewSegments(two, kDomain, 5000, TrendWindowMode::oneMinute).size(),
        1u);
}

TEST(TrendPreviewSegments, AWindowWithoutLengthPutsEveryPointAtZero) {
    const auto flat = FixedViewportTrendViewportDomain::make(1001, 0, 1);
    const std::vector<PreviewFanTrendPoint> two = {{950, 2500}, {960, 2600}};
    const auto segments =
        fixedViewportTrendPreviewSegments(two, flat, 5000, TrendWindowMode::oneMinute);
    ASSERT_EQ(segments.size(), 1u);
    for (const auto& p : segments[0]) EXPECT_EQ(p.x, 0.0f);
}

TEST(TrendPreviewSegments, LongTracesAreReducedWithTheWindowsBucketCount) {
    std::vector<PreviewFanTrendPoint> points;
    for (int i = 0; i < 3000; ++i) points.push_back({940 + i * 0.02, 2000.0 + (i % 7) * 100});
    const auto minute =
        fixedViewportTrendPreviewSegments(points, kDomain, 5000, TrendWindowMode::oneMinute);
    ASSERT_EQ(minute.size(), 1u);
    EXPECT_LE(minute[0].size(), 4u * 180);
    EXPECT_GE(minute[0].size(), 2u * 180);
    const auto five =
        fixedViewportTrendPreviewSegments(points, kDomain, 5000, TrendWindowMode::fiveMinutes);
    ASSERT_EQ(five.size(), 1u);
    EXPECT_EQ(five[0].size(), 3000u);  // within 4 × 1200: left as it is
}

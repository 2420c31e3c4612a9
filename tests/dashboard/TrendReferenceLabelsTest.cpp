#include <gtest/gtest.h>

#include <QFontMetricsF>

#include "dashboard/TrendReferenceLabels.h"

using namespace kelvo;

namespace {
FixedViewportTrendTickSnapshot tick(Timestamp date, const char* text, double fraction) {
    return {date, text, fraction};
}
}  // namespace

TEST(TrendReferenceLabels, OfTwoLabelsFivePointsApartOnlyTheNewerIsKept) {
    const QRectF plot(0, 0, 500, 100);
    // 5 points apart at a 500-point plot: 0.01 of the width.
    auto labels = fixedViewportTrendReferenceXAxisLabels(
        {tick(1000, "10:00", 0.50), tick(1060, "10:01", 0.51)}, plot);
    ASSERT_EQ(labels.size(), 1u);
    EXPECT_EQ(labels[0].text, "10:01");
    EXPECT_DOUBLE_EQ(labels[0].rawX, 255);
}

TEST(TrendReferenceLabels, LabelsAreClampedInsideThePlotAndReturnedOldestFirst) {
    const QRectF plot(20, 0, 400, 100);
    const QFont font = trendReferenceLabelFont();
    const double half = QFontMetricsF(font).horizontalAdvance(QStringLiteral("10:00")) / 2;
    auto labels =
        fixedViewportTrendReferenceXAxisLabels({tick(1000, "10:00", 0.0), tick(1060, "10:01", 0.5),
                                                tick(1120, "10:02", 1.0), tick(1180, "10:03", 1.2)},
                                               plot, font);
    ASSERT_EQ(labels.size(), 3u);  // the tick beyond the plot is skipped
    EXPECT_EQ(labels[0].text, "10:00");
    EXPECT_DOUBLE_EQ(labels[0].x, 20 + half);  // pushed right of the left edge
    EXPECT_DOUBLE_EQ(labels[0].rawX, 20);
    EXPECT_DOUBLE_EQ(labels[1].x, 220);
    EXPECT_NEAR(labels[2].x,
                420 - QFontMetricsF(font).horizontalAdvance(QStringLiteral("10:02")) / 2, 1e-9);
}

TEST(TrendReferenceLabels, ASixPointGapSeparatesNeighbours) {
    const QRectF plot(0, 0, 1000, 100);
    const QFont font = trendReferenceLabelFont();
    const double width = QFontMetricsF(font).horizontalAdvance(QStringLiteral("10:00"));
    const double apart = (width + 6.0) / 1000.0;
    auto fits = fixedViewportTrendReferenceXAxisLabels(
        {tick(1, "10:00", 0.5), tick(2, "10:00", 0.5 + apart)}, plot, font);
    EXPECT_EQ(fits.size(), 2u);
    auto tooClose = fixedViewportTrendReferenceXAxisLabels(
        {tick(1, "10:00", 0.5), tick(2, "10:00", 0.5 + apart - 0.001)}, plot, font);
    EXPECT_EQ(tooClose.size(), 1u);
}

TEST(TrendRenderColor, ConvertsToRgbFloats) {
    EXPECT_EQ(trendRenderColor(QColor(255, 0, 0, 255)), (TrendColor{1, 0, 0, 1}));
    const auto hsv = trendRenderColor(QColor::fromHsvF(1.0 / 3.0, 1, 1, 0.5));
    EXPECT_NEAR(hsv[1], 1.0f, 1e-4);
    EXPECT_NEAR(hsv[0], 0.0f, 1e-4);
    EXPECT_NEAR(hsv[3], 0.5f, 1e-3);
}

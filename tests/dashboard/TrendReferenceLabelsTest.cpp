#include <gtest/gtest.h>

#include <QFontDatabase>
#include <QFontMetricsF>

#include "dashboard/TrendReferenceLabels.h"

using namespace kelvo;

namespace {
FixedViewportTrendTickSnapshot tick(Timestamp date, const char* text, double fraction) {
    return {date, text, fraction};
}
double widthOf(const char* text, const QFont& font = trendReferenceLabelFont()) {
    return QFontMetricsF(font).horizontalAdvance(QString::fromUtf8(text));
}
}  // namespace

TEST(TrendReferenceLabels, OfTwoLabelsFivePointsApartOnlyTheNewerIsKept) {
    const QRectF plot(0, 0, 500, 100);
    const std::vector<FixedViewportTrendTickSnapshot> ticks = {tick(1000, "10:00", 0.50),
                                                               tick(1060, "10:01", 0.51)};
    const auto labels = fixedViewportTrendReferenceXAxisLabels(ticks, plot);
    ASSERT_EQ(labels.size(), 1u);
    EXPECT_EQ(labels[0].date, 1060);
    EXPECT_EQ(labels[0].text, "10:01");
    EXPECT_DOUBLE_EQ(labels[0].rawX, 255);
    EXPECT_DOUBLE_EQ(labels[0].x, 255);
}

TEST(TrendReferenceLabels, LabelsAreClampedInsideThePlotAndReturnedOldestFirst) {
    const QRectF plot(20, 0, 400, 100);
    const std::vector<FixedViewportTrendTickSnapshot> ticks = {
        tick(1000, "10:00", 0.0), tick(1060, "10:01", 0.5), tick(1120, "10:02", 1.0),
        tick(1180, "10:03", 1.2)};
    const auto labels = fixedViewportTrendReferenceXAxisLabels(ticks, plot);
    ASSERT_EQ(labels.size(), 3u);  // the tick right of the plot is skipped
    EXPECT_EQ(labels[0].text, "10:00");
    EXPECT_DOUBLE_EQ(labels[0].rawX, 20);
    EXPECT_DOUBLE_EQ(labels[0].x, 20 + widthOf("10:00") / 2);  // pushed right of the left edge
    EXPECT_EQ(labels[1].text, "10:01");
    EXPECT_DOUBLE_EQ(labels[1].x, 220);
    EXPECT_EQ(labels[2].text, "10:02");
    EXPECT_DOUBLE_EQ(labels[2].rawX, 420);
    EXPECT_DOUBLE_EQ(labels[2].x, 420 - widthOf("10:02") / 2);  // pulled left of the right edge
}

TEST(TrendReferenceLabels, ASixPointGapSeparatesNeighbours) {
    const QRectF plot(0, 0, 1000, 100);
    const double width = widthOf("10:00");
    ASSERT_GT(width, 10);
    // Centres one width plus six points apart: they just fit.
    const double apart = (width + 6.0) / 1000.0;
    const std::vector<FixedViewportTrendTickSnapshot> fits = {tick(1, "10:00", 0.5),
                                                              tick(2, "10:00", 0.5 + apart)};
    EXPECT_EQ(fixedViewportTrendReferenceXAxisLabels(fits, plot).size(), 2u);
    // Half a point closer and the older one goes.
    const std::vector<FixedViewportTrendTickSnapshot> close = {
        tick(1, "10:00", 0.5), tick(2, "10:00", 0.5 + apart - 0.0005)};
    const auto kept = fixedViewportTrendReferenceXAxisLabels(close, plot);
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].date, 2);
}

TEST(TrendReferenceLabels, AClampedNewestLabelCanPushOutItsNeighbour) {
    const QRectF plot(0, 0, 300, 100);
    const double half = widthOf("10:02") / 2;
    // The newest tick sits on the right edge and is pulled left by half its width; the older
    // one, a width plus two points left of the edge, now overlaps it.
    const double olderX = 300 - 2 * half - 2;
    const std::vector<FixedViewportTrendTickSnapshot> ticks = {tick(1, "10:01", olderX / 300),
                                                               tick(2, "10:02", 1.0)};
    const auto labels = fixedViewportTrendReferenceXAxisLabels(ticks, plot);
    ASSERT_EQ(labels.size(), 1u);
    EXPECT_EQ(labels[0].date, 2);
}

TEST(TrendReferenceLabels, TheLabelFontIsTheSmallSystemFont) {
    const QFont font = trendReferenceLabelFont();
    EXPECT_EQ(font.pixelSize(), 11);
    EXPECT_EQ(font.weight(), QFont::Normal);
    EXPECT_EQ(font.family(), QFontDatabase::systemFont(QFontDatabase::GeneralFont).family());
    // Tabular digits: every time of day is as wide as any other.
    EXPECT_DOUBLE_EQ(widthOf("11:11"), widthOf("08:08"));
}

TEST(TrendReferenceLabels, NoTicksGiveNoLabels) {
    EXPECT_TRUE(fixedViewportTrendReferenceXAxisLabels({}, QRectF(0, 0, 300, 100)).empty());
}

#include <gtest/gtest.h>

#include "foundation/chart/FixedViewportTrendDashPhase.h"
#include "foundation/chart/FixedViewportXAxisLabelLayout.h"

namespace kelvo {
namespace {

using FixedViewportXAxisLabelLayout::reachesPastLeftEdge;
using FixedViewportXAxisLabelLayout::scrollingLabelPlacement;

ScrollingLabelPlacementInput labelAt(double x, double rawX, double shift = 0) {
    ScrollingLabelPlacementInput input;
    input.anchoredX = x;
    input.rawX = rawX;
    input.width = 40;
    input.shiftPixels = shift;
    input.plotFrame = {20, 380};
    input.viewportWidth = 400;
    input.liveLabel = HorizontalExtent{330, 380};
    return input;
}

TEST(FixedViewportXAxisLabelLayout, ALabelMovesLeftWithTheShiftAtFullOpacity) {
    const auto placement = scrollingLabelPlacement(labelAt(200, 200, 12.5));
    ASSERT_TRUE(placement.has_value());
    EXPECT_DOUBLE_EQ(placement->x, 187.5);
    EXPECT_FLOAT_EQ(placement->opacity, 1.0f);
}

TEST(FixedViewportXAxisLabelLayout, TheFadeStartsWhenTheTickPassesTheLeftEdge) {
    // Clamped inside the plot (centre 40) while its tick sits at 25: steady until the tick
    // itself leaves.
    EXPECT_FALSE(reachesPastLeftEdge(labelAt(40, 25, 4)));
    EXPECT_TRUE(reachesPastLeftEdge(labelAt(40, 25, 6)));
}

TEST(FixedViewportXAxisLabelLayout, OpacityFollowsTheFadeAndAFinishedFadeHidesTheLabel) {
    auto input = labelAt(40, 25, 6);
    input.retirementFadeProgress = 0.25;
    EXPECT_FLOAT_EQ(scrollingLabelPlacement(input)->opacity, 0.75f);
    input.retirementFadeProgress = 1.0;
    EXPECT_FALSE(scrollingLabelPlacement(input).has_value());
}

TEST(FixedViewportXAxisLabelLayout, ALabelNeverComesCloserThanSixPointsToTheLiveLabel) {
    EXPECT_TRUE(scrollingLabelPlacement(labelAt(304, 304)).has_value());  // right edge 324
    EXPECT_FALSE(scrollingLabelPlacement(labelAt(305, 305)).has_value());
    auto input = labelAt(305, 305);
    input.liveLabel.reset();
    EXPECT_TRUE(scrollingLabelPlacement(input).has_value());
}

TEST(FixedViewportXAxisLabelLayout, ALabelThatSaysWhatTheLiveLabelSaysIsNotShownTwice) {
    // On the 5-minute window the newest minute's tick and the live label both read "18:24".
    auto input = labelAt(200, 200);
    input.sameTextAsLiveLabel = true;
    EXPECT_FALSE(scrollingLabelPlacement(input).has_value());
    input.sameTextAsLiveLabel = false;
    EXPECT_TRUE(scrollingLabelPlacement(input).has_value());
}

TEST(FixedViewportXAxisLabelLayout, LabelsPastThePlotsRightEdgeOrOutsideTheViewportAreNotShown) {
    auto input = labelAt(370, 370);
    input.liveLabel.reset();
    EXPECT_FALSE(scrollingLabelPlacement(input).has_value());
    EXPECT_FALSE(scrollingLabelPlacement(labelAt(-30, -30)).has_value());
}

TEST(FixedViewportTrendDashPhase, TheSameMomentGetsTheSameAnchorFromAnySnapshot) {
    // 60 s over 300 px: 5 px a second. The moment 1030 seen from two visible windows.
    const double a = FixedViewportTrendDashPhase::anchorPixels((1030.0 - 1000) / 60, 1000, 60, 300);
    const double b = FixedViewportTrendDashPhase::anchorPixels((1030.0 - 1012) / 60, 1012, 60, 300);
    EXPECT_NEAR(a, b, 1e-6);
    EXPECT_NEAR(a, 1030 * 5.0, 1e-6);
}

}  // namespace
}  // namespace kelvo

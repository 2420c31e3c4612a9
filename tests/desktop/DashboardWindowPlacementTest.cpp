#include <gtest/gtest.h>

#include "desktop/DashboardWindowPlacement.h"

namespace kelvo {
namespace {

const QRectF left(0, 0, 1440, 900);
const QRectF right(1440, 0, 1920, 1080);

TEST(ConstrainedDashboardFrame, KeepsAFrameThatFitsWhereItWas) {
    const QRectF frame =
        constrainedDashboardFrame(QSizeF(900, 700), QPointF(100, 50), {left, right}, left);
    EXPECT_EQ(frame, QRectF(100, 50, 900, 700));
}

TEST(ConstrainedDashboardFrame, ATopLeftJustOutsideAScreenCountsAsOnIt) {
    // 30 px beyond the right screen's right edge: inside the 40 px tolerance, so it stays on
    // that screen and is pulled back inside it.
    const QRectF frame =
        constrainedDashboardFrame(QSizeF(900, 700), QPointF(3390, 10), {left, right}, left);
    EXPECT_EQ(frame, QRectF(3360 - 900, 10, 900, 700));
}

TEST(ConstrainedDashboardFrame, PointOnADetachedScreenMovesOntoTheScreenTheFrameIntersects) {
    // Top-left far above the right screen; the frame still overlaps it.
    const QRectF frame =
        constrainedDashboardFrame(QSizeF(900, 700), QPointF(1500, -600), {left, right}, left);
    EXPECT_EQ(frame, QRectF(1500, 0, 900, 700));
}

TEST(ConstrainedDashboardFrame, PointFarAwayGoesToTheMainScreenAndShrinksToFit) {
    const QRectF small(0, 0, 800, 600);
    const QRectF frame =
        constrainedDashboardFrame(QSizeF(900, 700), QPointF(5000, 4000), {small}, small);
    EXPECT_EQ(frame, QRectF(0, 0, 800, 600));
}

TEST(ConstrainedDashboardFrame, WithoutAnyScreenTheProposedFrameIsKept) {
    const QRectF frame =
        constrainedDashboardFrame(QSizeF(900, 700), QPointF(5000, 4000), {}, QRectF());
    EXPECT_EQ(frame, QRectF(5000, 4000, 900, 700));
}

}  // namespace
}  // namespace kelvo

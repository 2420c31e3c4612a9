#include <gtest/gtest.h>

#include "dashboard/TrendViewportDomain.h"

using namespace kelvo;

TEST(TrendViewportDomain, VisibleWindowEndsOneSecondBeforeTheNewestSample) {
    const auto domain = trendViewportDomain(1000, TrendWindowMode::fiveMinutes);
    EXPECT_EQ(domain.referenceUpperBound, 1000);
    EXPECT_EQ(domain.visibleWindowSeconds, 300);
    EXPECT_EQ(domain.leadingOffscreenSeconds, 1);
    EXPECT_EQ(domain.trailingOffscreenSeconds, 1);
    EXPECT_EQ(domain.visibleUpperBound(), 999);
    EXPECT_EQ(domain.visibleLowerBound(), 699);
    EXPECT_EQ(domain.bufferLowerBound(), 698);
}

TEST(TrendViewportDomain, AnalysisWindowIsTheVisibleRange) {
    EXPECT_EQ(liveClockAnalysisWindow(1000, TrendWindowMode::fiveMinutes),
              (ClosedTimeRange{699, 999}));
    EXPECT_EQ(liveClockAnalysisWindow(1000, TrendWindowMode::oneMinute),
              (ClosedTimeRange{939, 999}));
}

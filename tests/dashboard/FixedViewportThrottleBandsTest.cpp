#include <gtest/gtest.h>

#include "dashboard/FixedViewportThrottleBands.h"
#include "dashboard/SystemColors.h"
#include "dashboard/TrendRenderColor.h"

using namespace kelvo;

TEST(FixedViewportThrottleBands, BandsAreUnclampedFractionsOfTheVisibleWindow) {
    const auto domain = FixedViewportTrendViewportDomain::make(1001, 300, 1);  // visible 700..1000
    const std::vector<ClockWindowThrottleSpan> spans = {{640, 700}, {850, 850}, {940, 1060}};
    const auto bands = fixedViewportThrottleBands(spans, domain);
    ASSERT_EQ(bands.size(), 2u);  // the empty span gives no band
    EXPECT_FLOAT_EQ(bands[0].startXFraction, -0.2f);
    EXPECT_FLOAT_EQ(bands[0].endXFraction, 0.0f);
    EXPECT_FLOAT_EQ(bands[1].startXFraction, 0.8f);
    EXPECT_FLOAT_EQ(bands[1].endXFraction, 1.2f);
}

TEST(FixedViewportThrottleBands, BandsAreTranslucentSystemRed) {
    const auto domain = FixedViewportTrendViewportDomain::make(1001, 300, 1);
    const std::vector<ClockWindowThrottleSpan> spans = {{800, 900}};
    const auto bands = fixedViewportThrottleBands(spans, domain);
    ASSERT_EQ(bands.size(), 1u);
    const auto red = trendRenderColor(SystemColor::red);
    EXPECT_EQ(bands[0].color[0], red[0]);
    EXPECT_EQ(bands[0].color[1], red[1]);
    EXPECT_EQ(bands[0].color[2], red[2]);
    EXPECT_NEAR(bands[0].color[3], 0.12f, 1e-4);
}

TEST(FixedViewportThrottleBands, AWindowWithoutLengthGivesNoBands) {
    const auto domain = FixedViewportTrendViewportDomain::make(1001, 0, 1);
    const std::vector<ClockWindowThrottleSpan> spans = {{800, 900}};
    EXPECT_TRUE(fixedViewportThrottleBands(spans, domain).empty());
}

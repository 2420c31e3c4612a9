#include <gtest/gtest.h>

#include <set>

#include "dashboard/SystemColors.h"
#include "dashboard/TrendRenderColor.h"

using namespace kelvo;

TEST(TrendRenderColor, RgbColoursBecomeTheirFloatComponents) {
    EXPECT_EQ(trendRenderColor(QColor(255, 0, 0)), (TrendColor{1, 0, 0, 1}));
    const auto c = trendRenderColor(QColor(51, 102, 204, 153));
    EXPECT_FLOAT_EQ(c[0], 0.2f);
    EXPECT_FLOAT_EQ(c[1], 0.4f);
    EXPECT_FLOAT_EQ(c[2], 0.8f);
    EXPECT_FLOAT_EQ(c[3], 0.6f);
}

TEST(TrendRenderColor, OtherColourModelsAreConvertedToRgb) {
    const auto green = trendRenderColor(QColor::fromHsvF(1.0f / 3.0f, 1, 1, 0.5f));
    EXPECT_NEAR(green[0], 0.0f, 1e-4);
    EXPECT_NEAR(green[1], 1.0f, 1e-4);
    EXPECT_NEAR(green[2], 0.0f, 1e-4);
    EXPECT_NEAR(green[3], 0.5f, 1e-3);
    const auto yellow = trendRenderColor(QColor::fromCmykF(0, 0, 1, 0));
    EXPECT_NEAR(yellow[0], 1.0f, 1e-4);
    EXPECT_NEAR(yellow[1], 1.0f, 1e-4);
    EXPECT_NEAR(yellow[2], 0.0f, 1e-4);
}

TEST(TrendRenderColor, AColourThatCannotBeConvertedIsUsedAsItIs) {
    const QColor invalid;
    ASSERT_FALSE(invalid.toRgb().isValid());
    const auto c = trendRenderColor(invalid);
    EXPECT_EQ(
        c, (TrendColor{static_cast<float>(invalid.redF()), static_cast<float>(invalid.greenF()),
                       static_cast<float>(invalid.blueF()), static_cast<float>(invalid.alphaF())}));
}

TEST(SystemColors, TheNamedColoursAreOpaqueAndDistinct) {
    const std::vector<QColor> colours = {
        SystemColor::red,  SystemColor::green,  SystemColor::purple, SystemColor::blue,
        SystemColor::cyan, SystemColor::orange, SystemColor::yellow, SystemColor::secondary};
    std::set<QRgb> seen;
    for (const auto& c : colours) {
        EXPECT_TRUE(c.isValid());
        EXPECT_EQ(c.alpha(), 255);
        seen.insert(c.rgb());
    }
    EXPECT_EQ(seen.size(), colours.size());
    const QColor faded = SystemColor::withAlpha(SystemColor::cyan, 0.6);
    EXPECT_EQ(faded.rgb(), SystemColor::cyan.rgb());
    EXPECT_NEAR(faded.alphaF(), 0.6, 1e-4);
}

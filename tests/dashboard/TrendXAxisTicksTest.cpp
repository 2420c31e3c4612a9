#include <gtest/gtest.h>

#include <set>

#include "dashboard/TrendXAxisTicks.h"

using namespace kelvo;

TEST(TrendXAxisTicks, FiveMinuteTicksFallOnWholeMinutes) {
    const auto dates = fixedViewportTrendXAxisTickDates({1000, 1310}, TrendWindowMode::fiveMinutes);
    EXPECT_EQ(dates, (std::vector<Timestamp>{1020, 1080, 1140, 1200, 1260}));
}

TEST(TrendXAxisTicks, ATickExactlyAtTheUpperBoundIsDropped) {
    EXPECT_EQ(fixedViewportTrendXAxisTickDates({1000, 1320}, TrendWindowMode::fiveMinutes),
              (std::vector<Timestamp>{1020, 1080, 1140, 1200, 1260}));
    // At the lower bound it stays.
    EXPECT_EQ(fixedViewportTrendXAxisTickDates({1020, 1200}, TrendWindowMode::fiveMinutes),
              (std::vector<Timestamp>{1020, 1080, 1140}));
}

TEST(TrendXAxisTicks, OneMinuteTicksAreFifteenSecondsApartWithDistinctTexts) {
    const auto dates = fixedViewportTrendXAxisTickDates({1000, 1060}, TrendWindowMode::oneMinute);
    EXPECT_EQ(dates, (std::vector<Timestamp>{1005, 1020, 1035, 1050}));
    std::set<std::string> texts;
    for (Timestamp d : dates) texts.insert(FixedViewportTrendAxisLabels::text(d, 60));
    EXPECT_EQ(texts.size(), dates.size());
}

TEST(TrendXAxisTicks, ARangeWithoutStrideMultiplesHasNoTicks) {
    EXPECT_TRUE(
        fixedViewportTrendXAxisTickDates({1001, 1019}, TrendWindowMode::fiveMinutes).empty());
    // The only multiple is the upper bound itself.
    EXPECT_TRUE(
        fixedViewportTrendXAxisTickDates({1001, 1020}, TrendWindowMode::fiveMinutes).empty());
}

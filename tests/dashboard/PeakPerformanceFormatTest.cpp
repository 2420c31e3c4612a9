#include <gtest/gtest.h>

#include "dashboard/PeakPerformanceFormat.h"

using namespace kelvo;

TEST(PeakPerformanceFormat, PerformanceLevelsRoundOnlyWhenWithinAFiftieth) {
    EXPECT_EQ(formatPerformanceLevel(15.96), "16");
    EXPECT_EQ(formatPerformanceLevel(15.9), "15.9");  // 0.1 from 16
    EXPECT_EQ(formatPerformanceLevel(16.04), "16");
    EXPECT_EQ(formatPerformanceLevel(16.06), "16.1");
    EXPECT_EQ(formatPerformanceLevel(0), "0");
    EXPECT_EQ(formatPerformanceLevel(2.5), "2.5");
    EXPECT_EQ(formatPerformanceLevel(-0.01), "0");
}

TEST(PeakPerformanceFormat, RetentionPercentOfADeficit) {
    EXPECT_EQ(formatRetentionPercent(0.015), "98.5%");
    EXPECT_EQ(formatRetentionPercent(-0.02), "100.0%");
    EXPECT_EQ(formatRetentionPercent(1.5), "0.0%");
    EXPECT_EQ(formatRetentionPercent(std::nullopt), "\u2014");
    EXPECT_EQ(formatRetentionFraction(0.97), "97.0%");
    EXPECT_EQ(formatRetentionFraction(-0.2), "0.0%");
}

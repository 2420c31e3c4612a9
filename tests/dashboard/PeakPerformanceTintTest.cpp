#include <gtest/gtest.h>

#include <cmath>

#include "dashboard/PeakPerformanceTint.h"
#include "dashboard/SystemColors.h"

using namespace kelvo;

namespace {
PeakPerformanceAnalysis gpuRetaining(double retention) {
    PeakPerformanceAnalysis a;
    a.domain = PeakPerformanceDomain::gpu;
    a.gpu.clockDeficit = 1.0 - retention;
    return a;
}
}  // namespace

TEST(PeakPerformanceTint, ThresholdsAreInclusive) {
    for (double r : {0.98, 0.93, 0.9299})
        ASSERT_EQ(*gpuRetaining(r).clockRetentionPct(), r) << "the retention must be exact";
    EXPECT_EQ(peakPerformanceTint(gpuRetaining(0.98)), PeakPerformanceTint::green);
    EXPECT_EQ(peakPerformanceTint(gpuRetaining(0.93)), PeakPerformanceTint::yellow);
    EXPECT_EQ(peakPerformanceTint(gpuRetaining(0.9299)), PeakPerformanceTint::red);
    EXPECT_EQ(peakPerformanceTint(gpuRetaining(1.0)), PeakPerformanceTint::green);
    EXPECT_EQ(peakPerformanceTint(gpuRetaining(0.9799)), PeakPerformanceTint::yellow);
    EXPECT_EQ(peakPerformanceTint(gpuRetaining(0.0)), PeakPerformanceTint::red);
}

TEST(PeakPerformanceTint, CombinedNinetySevenPercentIsYellow) {
    PeakPerformanceAnalysis a;
    a.domain = PeakPerformanceDomain::combined;
    a.cpu.clockDeficit = 0.01;
    a.gpu.clockDeficit = 0.05;
    EXPECT_EQ(peakPerformanceTint(a), PeakPerformanceTint::yellow);
}

TEST(PeakPerformanceTint, NoFigureIsNeutralAndNotANumberIsRed) {
    PeakPerformanceAnalysis none;
    none.cpu.clockDeficit = none.gpu.clockDeficit = 0;
    EXPECT_EQ(peakPerformanceTint(none), PeakPerformanceTint::secondary);
    PeakPerformanceAnalysis missing;
    missing.domain = PeakPerformanceDomain::combined;
    missing.cpu.clockDeficit = 0;
    EXPECT_EQ(peakPerformanceTint(missing), PeakPerformanceTint::secondary);
    PeakPerformanceAnalysis nan;
    nan.domain = PeakPerformanceDomain::cpu;
    nan.cpu.clockDeficit = std::nan("");
    EXPECT_EQ(peakPerformanceTint(nan), PeakPerformanceTint::red);
}

TEST(PeakPerformanceTint, TintsUseTheNamedColours) {
    EXPECT_EQ(peakPerformanceTintColor(PeakPerformanceTint::green), SystemColor::green);
    EXPECT_EQ(peakPerformanceTintColor(PeakPerformanceTint::yellow), SystemColor::yellow);
    EXPECT_EQ(peakPerformanceTintColor(PeakPerformanceTint::red), SystemColor::red);
    EXPECT_EQ(peakPerformanceTintColor(PeakPerformanceTint::secondary), SystemColor::secondary);
}

#include <gtest/gtest.h>

#include <cmath>

#include "dashboard/PeakPerformanceAnalysis.h"

using namespace kelvo;

namespace {
PeakPerformanceAnalysis analysis(PeakPerformanceDomain domain, std::optional<double> cpuDeficit,
                                 std::optional<double> gpuDeficit) {
    PeakPerformanceAnalysis a;
    a.domain = domain;
    a.cpu.clockDeficit = cpuDeficit;
    a.gpu.clockDeficit = gpuDeficit;
    return a;
}
}  // namespace

TEST(PeakPerformanceAnalysis, CombinedRetentionIsTheMeanOfBothDomains) {
    const auto a = analysis(PeakPerformanceDomain::combined, 0.01, 0.05);
    ASSERT_TRUE(a.clockRetentionPct());
    EXPECT_NEAR(*a.clockRetentionPct(), 0.97, 1e-12);
    EXPECT_FALSE(analysis(PeakPerformanceDomain::combined, 0.01, std::nullopt).clockRetentionPct());
    EXPECT_FALSE(analysis(PeakPerformanceDomain::combined, std::nullopt, 0.05).clockRetentionPct());
}

TEST(PeakPerformanceAnalysis, EachSingleDomainReadsOnlyItsOwnDeficit) {
    EXPECT_NEAR(*analysis(PeakPerformanceDomain::cpu, 0.1, 0.3).clockRetentionPct(), 0.9, 1e-12);
    EXPECT_FALSE(analysis(PeakPerformanceDomain::cpu, std::nullopt, 0.3).clockRetentionPct());
    EXPECT_NEAR(*analysis(PeakPerformanceDomain::gpu, 0.1, 0.3).clockRetentionPct(), 0.7, 1e-12);
    EXPECT_FALSE(analysis(PeakPerformanceDomain::gpu, 0.1, std::nullopt).clockRetentionPct());
    EXPECT_FALSE(analysis(PeakPerformanceDomain::none, 0.1, 0.3).clockRetentionPct());
}

TEST(PeakPerformanceAnalysis, OverDeliveryCountsAsFullRetentionNeverMore) {
    EXPECT_EQ(analysis(PeakPerformanceDomain::cpu, -0.02, std::nullopt).clockRetentionPct(), 1.0);
    EXPECT_EQ(analysis(PeakPerformanceDomain::combined, -0.02, -0.5).clockRetentionPct(), 1.0);
    EXPECT_NEAR(*analysis(PeakPerformanceDomain::combined, -0.02, 0.1).clockRetentionPct(), 0.95,
                1e-12);
    // A deficit above the whole clock is no retention, not a negative one.
    EXPECT_EQ(analysis(PeakPerformanceDomain::gpu, std::nullopt, 1.4).clockRetentionPct(), 0.0);
}

TEST(PeakPerformanceAnalysis, ANotANumberDeficitStaysNotANumber) {
    const auto a = analysis(PeakPerformanceDomain::cpu, std::nan(""), std::nullopt);
    ASSERT_TRUE(a.clockRetentionPct());
    EXPECT_TRUE(std::isnan(*a.clockRetentionPct()));
}

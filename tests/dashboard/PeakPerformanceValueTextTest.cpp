#include <gtest/gtest.h>

#include "dashboard/PeakPerformanceValueText.h"

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

TEST(PeakPerformanceValueText, CombinedOnePercentAndFivePercentDeficitsShowNinetySeven) {
    EXPECT_EQ(peakPerformanceValueText(analysis(PeakPerformanceDomain::combined, 0.01, 0.05)),
              "97.0%");
}

TEST(PeakPerformanceValueText, OverDeliveryShowsOneHundredPercent) {
    EXPECT_EQ(peakPerformanceValueText(analysis(PeakPerformanceDomain::cpu, -0.02, std::nullopt)),
              "100.0%");
}

TEST(PeakPerformanceValueText, OneDecimalOfTheRetention) {
    EXPECT_EQ(peakPerformanceValueText(analysis(PeakPerformanceDomain::gpu, 0.3, 0.0123)), "98.8%");
    EXPECT_EQ(peakPerformanceValueText(analysis(PeakPerformanceDomain::cpu, 0.5, 0.0)), "50.0%");
    EXPECT_EQ(peakPerformanceValueText(analysis(PeakPerformanceDomain::cpu, 3.0, 0.0)), "0.0%");
}

TEST(PeakPerformanceValueText, NoDomainOrNoRetentionShowsADash) {
    EXPECT_EQ(peakPerformanceValueText(analysis(PeakPerformanceDomain::none, 0.0, 0.0)), "\u2014");
    EXPECT_EQ(peakPerformanceValueText(analysis(PeakPerformanceDomain::cpu, std::nullopt, 0.0)),
              "\u2014");
    EXPECT_EQ(
        peakPerformanceValueText(analysis(PeakPerformanceDomain::combined, 0.0, std::nullopt)),
        "\u2014");
}

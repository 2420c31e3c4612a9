#include <gtest/gtest.h>

#include "dashboard/PeakPerformance.h"

using namespace kelvo;

namespace {
PeakPerformanceAnalysis analysis(PeakPerformanceDomain domain, std::optional<double> cpuDeficit,
                                 std::optional<double> gpuDeficit) {
    PeakPerformanceAnalysis a;
    a.domain = domain;
    a.cpu.referenceReady = a.gpu.referenceReady = true;
    a.cpu.clockDeficit = cpuDeficit;
    a.gpu.clockDeficit = gpuDeficit;
    a.cpu.highLoadSampleCount = 12;
    a.gpu.highLoadSampleCount = 8;
    return a;
}
}  // namespace

TEST(PeakPerformance, CombinedAveragesRetentionIntoAYellowCard) {
    auto a = analysis(PeakPerformanceDomain::combined, 0.01, 0.05);
    ASSERT_TRUE(a.clockRetentionPct());
    EXPECT_NEAR(*a.clockRetentionPct(), 0.97, 1e-12);
    EXPECT_EQ(peakPerformanceValueText(a), "97.0%");
    EXPECT_EQ(peakPerformanceTint(a), PeakPerformanceTint::yellow);
    a.gpu.clockDeficit.reset();
    EXPECT_FALSE(a.clockRetentionPct());
    EXPECT_EQ(peakPerformanceValueText(a), "\u2014");
    EXPECT_EQ(peakPerformanceTint(a), PeakPerformanceTint::secondary);
}

TEST(PeakPerformance, OverDeliveryIsClampedToOneHundredPercent) {
    auto a = analysis(PeakPerformanceDomain::cpu, -0.02, std::nullopt);
    EXPECT_EQ(a.clockRetentionPct(), 1.0);
    EXPECT_EQ(peakPerformanceValueText(a), "100.0%");
    EXPECT_EQ(peakPerformanceTint(a), PeakPerformanceTint::green);
}

TEST(PeakPerformance, TintThresholdsAreInclusive) {
    auto at = [](double retention) {
        auto a = analysis(PeakPerformanceDomain::gpu, std::nullopt, 1.0 - retention);
        EXPECT_EQ(*a.clockRetentionPct(), 1.0 - (1.0 - retention));
        return peakPerformanceTint(a);
    };
    EXPECT_EQ(at(0.98), PeakPerformanceTint::green);
    EXPECT_EQ(at(0.93), PeakPerformanceTint::yellow);
    EXPECT_EQ(at(0.9299), PeakPerformanceTint::red);
    EXPECT_EQ(peakPerformanceTint(analysis(PeakPerformanceDomain::none, 0.0, 0.0)),
              PeakPerformanceTint::secondary);
}

TEST(PeakPerformance, PerformanceLevelsRoundOnlyWhenClose) {
    EXPECT_EQ(formatPerformanceLevel(15.96), "16");
    EXPECT_EQ(formatPerformanceLevel(15.9), "15.9");
    EXPECT_EQ(formatPerformanceLevel(2.0), "2");
}

TEST(PeakPerformance, LearningTextNamesTheWaitingDomains) {
    auto a = analysis(PeakPerformanceDomain::none, std::nullopt, std::nullopt);
    a.cpu.referenceReady = a.gpu.referenceReady = false;
    EXPECT_EQ(waitingPeakPerformanceDomains(a), (std::vector<std::string>{"CPU", "GPU"}));
    EXPECT_EQ(peakPerformanceHelp(a, "5m"),
              "Kelvo is still learning this machine's CPU and GPU high-load clock references. "
              "Peak Performance stays blank until a learned reference is available and qualified "
              "load appears in the current 5m window.");
    a.cpu.referenceReady = true;
    EXPECT_EQ(peakPerformanceHelp(a, "1m"),
              "Kelvo is still learning this machine's GPU high-load clock reference. Peak "
              "Performance stays blank until a learned reference is available and qualified load "
              "appears in the current 1m window.");
    a.gpu.referenceReady = true;
    EXPECT_EQ(peakPerformanceHelp(a, "5m"),
              "No qualified high-load CPU or GPU samples are present in the current 5m window.");
}

TEST(PeakPerformance, CpuHelpStatesCountWindowAndResult) {
    auto a = analysis(PeakPerformanceDomain::cpu, 0.015, std::nullopt);
    EXPECT_EQ(peakPerformanceHelp(a, "5m"),
              "Peak Performance shows realized CPU P-cluster clock as a share of the learned "
              "high-load reference across 12 high-load samples in the current 5m window. 100% "
              "means the CPU kept its learned high-load ceiling. Current result: 98.5%.");
    a.cpu.highLoadSampleCount = 1;
    a.cpu.clockDeficit.reset();
    EXPECT_EQ(peakPerformanceHelp(a, "1m"),
              "Peak Performance shows realized CPU P-cluster clock as a share of the learned "
              "high-load reference across 1 high-load sample in the current 1m window. 100% "
              "means the CPU kept its learned high-load ceiling. Current result: \u2014.");
}

TEST(PeakPerformance, GpuHelpWithOneSampleProbesAndLimiter) {
    GPUClockWindowAnalysis gpu;
    gpu.referenceReady = true;
    gpu.highLoadSampleCount = 1;
    gpu.clockDeficit = 0.1;
    gpu.probeSampleCount = 1;
    gpu.averageRequestedState = 0;
    gpu.averageGrantedState = 1.96;
    gpu.averageStateDeficit = 1.96;
    gpu.probeConsistency = GPUProbeConsistency::trusted;
    gpu.constrainedSampleCount = 1;
    gpu.limiter = GPULimiter::driverPowerCap;
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, "5m"),
              "Peak Performance shows realized GPU clock as a share of the learned high-load "
              "reference across 1 high-load sample in the current 5m window. 100% means the GPU "
              "kept its learned high-load ceiling. Current result: 90.0%. Average requested "
              "versus granted GPU state was P0 to P2, with an average deficit of 1.96 state "
              "levels. 1 of 1 high-load samples (100%) were meaningfully constrained. Likely "
              "limiter: GPU power-target reduction.");
}

TEST(PeakPerformance, GpuHelpThreeOfFourConstrainedAndIncoherentProbes) {
    GPUClockWindowAnalysis gpu;
    gpu.highLoadSampleCount = 4;
    gpu.constrainedSampleCount = 3;
    gpu.probeConsistency = GPUProbeConsistency::incoherent;
    gpu.limiter = GPULimiter::none;
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, "1m"),
              "Peak Performance shows realized GPU clock as a share of the learned high-load "
              "reference across 4 high-load samples in the current 1m window. 100% means the GPU "
              "kept its learned high-load ceiling. Current result: \u2014. Granted and deficit "
              "GPU state probes were internally inconsistent on this machine, so they were "
              "ignored for throttle and limiter conclusions. 3 of 4 high-load samples (75%) were "
              "meaningfully constrained. No dominant limiter was detected in this window.");
    gpu.probeConsistency = GPUProbeConsistency::unknown;
    gpu.limiter = GPULimiter::unexplainedDeficit;
    const auto text = gpuPeakPerformanceHelp(gpu, "1m");
    EXPECT_NE(text.find("Requested and granted GPU state probes were unavailable in this window. "),
              std::string::npos);
    EXPECT_NE(text.find("Likely limiter: hidden internal package-budget or soak limit."),
              std::string::npos);
    gpu.highLoadSampleCount = 0;
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, "5m"),
              "No high-load GPU samples are present in the current 5m window.");
}

TEST(PeakPerformance, CombinedHelpReportsBothDomains) {
    auto a = analysis(PeakPerformanceDomain::combined, 0.01, 0.05);
    EXPECT_EQ(peakPerformanceHelp(a, "5m"),
              "Peak Performance averages CPU and GPU realized high-load retention when both "
              "domains are qualified in the current 5m window. CPU retained 99.0% across 12 "
              "high-load samples; GPU retained 95.0% across 8 high-load samples. Combined result: "
              "97.0%.");
    a.gpu.highLoadSampleCount = 0;
    EXPECT_EQ(peakPerformanceHelp(a, "5m"),
              "No qualified simultaneous high-load CPU and GPU samples are present in the current "
              "5m window.");
}

TEST(PeakPerformance, WindowTokenIsOneMinuteOnlyForThatWindow) {
    EXPECT_EQ(peakPerformanceWindowToken("oneMinute"), "1m");
    EXPECT_EQ(peakPerformanceWindowToken("fiveMinutes"), "5m");
    EXPECT_EQ(peakPerformanceWindowToken("tenMinutes"), "5m");
}

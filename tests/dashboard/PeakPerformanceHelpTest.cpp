#include <gtest/gtest.h>

#include "dashboard/PeakPerformanceHelp.h"

using namespace kelvo;

namespace {

constexpr auto kOne = TrendWindowMode::oneMinute;
constexpr auto kFive = TrendWindowMode::fiveMinutes;

PeakPerformanceAnalysis ready(PeakPerformanceDomain domain) {
    PeakPerformanceAnalysis a;
    a.domain = domain;
    a.cpu.referenceReady = a.gpu.referenceReady = true;
    return a;
}

GPUClockWindowAnalysis gpuWith(int highLoad, std::optional<double> deficit) {
    GPUClockWindowAnalysis gpu;
    gpu.referenceReady = true;
    gpu.highLoadSampleCount = highLoad;
    gpu.clockDeficit = deficit;
    return gpu;
}

const std::string kGpuFourSamplesNoResult =
    "Peak Performance shows realized GPU clock as a share of the learned high-load reference "
    "across 4 high-load samples in the current 1m window. 100% means the GPU kept its learned "
    "high-load ceiling. Current result: \u2014. Requested and granted GPU state probes were "
    "unavailable in this window. 0 of 4 high-load samples (0%) were meaningfully constrained. ";

}  // namespace

TEST(PeakPerformanceHelp, WindowTokenIsOneMinuteOnlyForThatWindow) {
    EXPECT_EQ(peakPerformanceWindowToken(kOne), "1m");
    EXPECT_EQ(peakPerformanceWindowToken(kFive), "5m");
    EXPECT_EQ(peakPerformanceWindowToken(trendWindowModeFromRaw("hour")), "5m");
}

TEST(PeakPerformanceHelp, WaitingDomainsAreCpuThenGpu) {
    PeakPerformanceAnalysis a;
    EXPECT_EQ(waitingPeakPerformanceDomains(a), (std::vector<std::string>{"CPU", "GPU"}));
    a.cpu.referenceReady = true;
    EXPECT_EQ(waitingPeakPerformanceDomains(a), (std::vector<std::string>{"GPU"}));
    a.cpu.referenceReady = false;
    a.gpu.referenceReady = true;
    EXPECT_EQ(waitingPeakPerformanceDomains(a), (std::vector<std::string>{"CPU"}));
    a.cpu.referenceReady = true;
    EXPECT_TRUE(waitingPeakPerformanceDomains(a).empty());
}

TEST(PeakPerformanceHelp, WithNeitherReferenceReadyBothAreNamedAndTheNounIsPlural) {
    PeakPerformanceAnalysis a;
    EXPECT_EQ(peakPerformanceHelp(a, kFive),
              "Kelvo is still learning this machine's CPU and GPU high-load clock references. "
              "Peak Performance stays blank until a learned reference is available and qualified "
              "load appears in the current 5m window.");
}

TEST(PeakPerformanceHelp, WithOnlyTheGpuWaitingItIsNamedAloneAndTheNounIsSingular) {
    PeakPerformanceAnalysis a;
    a.cpu.referenceReady = true;
    EXPECT_EQ(peakPerformanceHelp(a, kOne),
              "Kelvo is still learning this machine's GPU high-load clock reference. Peak "
              "Performance stays blank until a learned reference is available and qualified load "
              "appears in the current 1m window.");
    a.cpu.referenceReady = false;
    a.gpu.referenceReady = true;
    EXPECT_EQ(peakPerformanceHelp(a, kFive),
              "Kelvo is still learning this machine's CPU high-load clock reference. Peak "
              "Performance stays blank until a learned reference is available and qualified load "
              "appears in the current 5m window.");
}

TEST(PeakPerformanceHelp, WithBothReferencesReadyButNoLoadTheWindowIsEmpty) {
    const auto a = ready(PeakPerformanceDomain::none);
    EXPECT_EQ(peakPerformanceHelp(a, kFive),
              "No qualified high-load CPU or GPU samples are present in the current 5m window.");
    EXPECT_EQ(peakPerformanceHelp(a, kOne),
              "No qualified high-load CPU or GPU samples are present in the current 1m window.");
}

TEST(PeakPerformanceHelp, CpuHelpStatesCountWindowAndResult) {
    auto a = ready(PeakPerformanceDomain::cpu);
    a.cpu.highLoadSampleCount = 12;
    a.cpu.clockDeficit = 0.015;
    EXPECT_EQ(peakPerformanceHelp(a, kFive),
              "Peak Performance shows realized CPU P-cluster clock as a share of the learned "
              "high-load reference across 12 high-load samples in the current 5m window. 100% "
              "means the CPU kept its learned high-load ceiling. Current result: 98.5%.");
    a.cpu.highLoadSampleCount = 1;
    a.cpu.clockDeficit = 0.2;
    EXPECT_EQ(peakPerformanceHelp(a, kOne),
              "Peak Performance shows realized CPU P-cluster clock as a share of the learned "
              "high-load reference across 1 high-load sample in the current 1m window. 100% "
              "means the CPU kept its learned high-load ceiling. Current result: 80.0%.");
}

TEST(PeakPerformanceHelp, CpuHelpShowsADashWithoutSamplesOrDeficit) {
    auto a = ready(PeakPerformanceDomain::cpu);
    a.cpu.highLoadSampleCount = 0;
    a.cpu.clockDeficit = 0.1;
    EXPECT_EQ(peakPerformanceHelp(a, kFive),
              "Peak Performance shows realized CPU P-cluster clock as a share of the learned "
              "high-load reference across 0 high-load samples in the current 5m window. 100% "
              "means the CPU kept its learned high-load ceiling. Current result: \u2014.");
    a.cpu.highLoadSampleCount = 3;
    a.cpu.clockDeficit.reset();
    EXPECT_EQ(peakPerformanceHelp(a, kFive),
              "Peak Performance shows realized CPU P-cluster clock as a share of the learned "
              "high-load reference across 3 high-load samples in the current 5m window. 100% "
              "means the CPU kept its learned high-load ceiling. Current result: \u2014.");
}

TEST(PeakPerformanceHelp, GpuWindowWithOneHighLoadSampleUsesTheSingular) {
    auto gpu = gpuWith(1, 0.1);
    gpu.probeSampleCount = 1;
    gpu.averageRequestedState = 0;
    gpu.averageGrantedState = 1.96;
    gpu.averageStateDeficit = 1.96;
    gpu.probeConsistency = GPUProbeConsistency::trusted;
    gpu.constrainedSampleCount = 1;
    gpu.limiter = GPULimiter::driverPowerCap;
    const std::string expected =
        "Peak Performance shows realized GPU clock as a share of the learned high-load reference "
        "across 1 high-load sample in the current 5m window. 100% means the GPU kept its learned "
        "high-load ceiling. Current result: 90.0%. Average requested versus granted GPU state "
        "was P0 to P2, with an average deficit of 1.96 state levels. 1 of 1 high-load samples "
        "(100%) were meaningfully constrained. Likely limiter: GPU power-target reduction.";
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kFive), expected);
    PeakPerformanceAnalysis a = ready(PeakPerformanceDomain::gpu);
    a.gpu = gpu;
    EXPECT_EQ(peakPerformanceHelp(a, kFive), expected);
}

TEST(PeakPerformanceHelp, ThreeConstrainedOfFourIsSeventyFivePercent) {
    auto gpu = gpuWith(4, std::nullopt);
    gpu.constrainedSampleCount = 3;
    gpu.probeConsistency = GPUProbeConsistency::incoherent;
    gpu.probeSampleCount = 4;  // incoherent wins over available averages
    gpu.averageRequestedState = 1;
    gpu.averageGrantedState = 0;
    gpu.averageStateDeficit = -1;
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kOne),
              "Peak Performance shows realized GPU clock as a share of the learned high-load "
              "reference across 4 high-load samples in the current 1m window. 100% means the GPU "
              "kept its learned high-load ceiling. Current result: \u2014. Granted and deficit "
              "GPU state probes were internally inconsistent on this machine, so they were "
              "ignored for throttle and limiter conclusions. 3 of 4 high-load samples (75%) were "
              "meaningfully constrained. No dominant limiter was detected in this window.");
}

TEST(PeakPerformanceHelp, ConstrainedShareIsRoundedToAWholePercent) {
    auto gpu = gpuWith(3, 0.0);
    gpu.constrainedSampleCount = 2;
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kFive),
              "Peak Performance shows realized GPU clock as a share of the learned high-load "
              "reference across 3 high-load samples in the current 5m window. 100% means the GPU "
              "kept its learned high-load ceiling. Current result: 100.0%. Requested and granted "
              "GPU state probes were unavailable in this window. 2 of 3 high-load samples (67%) "
              "were meaningfully constrained. No dominant limiter was detected in this window.");
}

TEST(PeakPerformanceHelp, ProbesAreUnavailableWithoutSamplesOrAnyAverage) {
    auto gpu = gpuWith(4, std::nullopt);
    gpu.probeConsistency = GPUProbeConsistency::trusted;
    gpu.averageRequestedState = 0;
    gpu.averageGrantedState = 0.5;
    gpu.averageStateDeficit = 0.5;
    gpu.probeSampleCount = 0;
    const std::string unavailable =
        kGpuFourSamplesNoResult + "No dominant limiter was detected in this window.";
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kOne), unavailable);
    gpu.probeSampleCount = 2;
    gpu.averageStateDeficit.reset();
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kOne), unavailable);
    gpu.averageStateDeficit = 0.5;
    gpu.averageGrantedState.reset();
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kOne), unavailable);
    gpu.averageGrantedState = 0.5;
    gpu.averageRequestedState.reset();
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kOne), unavailable);
    gpu.averageRequestedState = 15.96;
    gpu.averageGrantedState = 15.9;
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kOne),
              "Peak Performance shows realized GPU clock as a share of the learned high-load "
              "reference across 4 high-load samples in the current 1m window. 100% means the GPU "
              "kept its learned high-load ceiling. Current result: \u2014. Average requested "
              "versus granted GPU state was P16 to P15.9, with an average deficit of 0.50 state "
              "levels. 0 of 4 high-load samples (0%) were meaningfully constrained. No dominant "
              "limiter was detected in this window.");
}

TEST(PeakPerformanceHelp, EveryLimiterHasItsSentence) {
    auto gpu = gpuWith(4, std::nullopt);
    const std::vector<std::pair<GPULimiter, std::string>> sentences = {
        {GPULimiter::none, "No dominant limiter was detected in this window."},
        {GPULimiter::osThermalPressure,
         "Likely limiter: public OS graphics or thermal constraint."},
        {GPULimiter::driverThermal, "Likely limiter: CLTM-style internal thermal budgeting."},
        {GPULimiter::driverPowerCap, "Likely limiter: GPU power-target reduction."},
        {GPULimiter::unexplainedDeficit,
         "Likely limiter: hidden internal package-budget or soak limit."},
    };
    for (const auto& [limiter, sentence] : sentences) {
        gpu.limiter = limiter;
        EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kOne), kGpuFourSamplesNoResult + sentence)
            << static_cast<int>(limiter);
    }
}

TEST(PeakPerformanceHelp, NoGpuHighLoadSamplesSaySoAndNothingElse) {
    auto gpu = gpuWith(0, 0.05);
    gpu.constrainedSampleCount = 2;
    gpu.limiter = GPULimiter::driverThermal;
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kFive),
              "No high-load GPU samples are present in the current 5m window.");
    EXPECT_EQ(gpuPeakPerformanceHelp(gpu, kOne),
              "No high-load GPU samples are present in the current 1m window.");
}

TEST(PeakPerformanceHelp, CombinedHelpReportsBothDomains) {
    auto a = ready(PeakPerformanceDomain::combined);
    a.cpu.highLoadSampleCount = 12;
    a.gpu.highLoadSampleCount = 8;
    a.cpu.clockDeficit = 0.01;
    a.gpu.clockDeficit = 0.05;
    const std::string expected =
        "Peak Performance averages CPU and GPU realized high-load retention when both domains "
        "are qualified in the current 5m window. CPU retained 99.0% across 12 high-load samples; "
        "GPU retained 95.0% across 8 high-load samples. Combined result: 97.0%.";
    EXPECT_EQ(combinedPeakPerformanceHelp(a, kFive), expected);
    EXPECT_EQ(peakPerformanceHelp(a, kFive), expected);
}

TEST(PeakPerformanceHelp, CombinedHelpWithOneSampleEachAndAMissingDeficit) {
    auto a = ready(PeakPerformanceDomain::combined);
    a.cpu.highLoadSampleCount = 1;
    a.gpu.highLoadSampleCount = 1;
    a.cpu.clockDeficit = -0.02;
    EXPECT_EQ(peakPerformanceHelp(a, kOne),
              "Peak Performance averages CPU and GPU realized high-load retention when both "
              "domains are qualified in the current 1m window. CPU retained 100.0% across 1 "
              "high-load sample; GPU retained \u2014 across 1 high-load sample. Combined result: "
              "\u2014.");
}

TEST(PeakPerformanceHelp, CombinedHelpNeedsHighLoadInBothDomains) {
    auto a = ready(PeakPerformanceDomain::combined);
    a.cpu.clockDeficit = a.gpu.clockDeficit = 0.01;
    a.cpu.highLoadSampleCount = 0;
    a.gpu.highLoadSampleCount = 5;
    const std::string none =
        "No qualified simultaneous high-load CPU and GPU samples are present in the current 5m "
        "window.";
    EXPECT_EQ(peakPerformanceHelp(a, kFive), none);
    a.cpu.highLoadSampleCount = 5;
    a.gpu.highLoadSampleCount = 0;
    EXPECT_EQ(peakPerformanceHelp(a, kFive), none);
}

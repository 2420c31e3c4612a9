#include "dashboard/PinnedLiveTrendSection.h"

#include <cstdio>

#include "dashboard/TrendViewportDomain.h"
#include "dashboard/TrendVisibleSamples.h"

namespace kelvo {

namespace {
// The analysers get a minute before the window too, so a run that began before the window is
// judged on all of it.
constexpr double kAnalysisLeadInSeconds = 60;
}  // namespace

TrendSectionComputationValue computeTrendSection(const TrendSectionComputationKey& key,
                                                 const TrendSectionInputs& in,
                                                 Timestamp (*clock)()) {
    TrendSectionComputationValue value;
    const TrendScaleMaxima maxima = chartScaleMaxima(in.samples);
    value.fanScaleMaxRPM = maxima.fanRPM;
    value.gpuScaleMaxMHz = maxima.gpuMHz;
    value.cpuScaleMaxMHz = maxima.cpuMHz;
    value.totalPowerScaleMaxW = maxima.totalPowerW;
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", maxima.totalPowerW);
    value.totalPowerScaleText = text;
    if (!in.samples.empty()) value.latestSampleTimestamp = in.samples.back().timestamp;
    const Timestamp r = value.latestSampleTimestamp ? *value.latestSampleTimestamp : clock();

    const TrendWindowMode window = trendWindowModeFromRaw(key.trendWindowModeRawValue);
    const ClosedTimeRange analysisWindow = liveClockAnalysisWindow(r, window);
    const auto visible = trendVisibleSamples(
        in.samples, analysisWindow.lower - kAnalysisLeadInSeconds, analysisWindow.upper);
    auto& peak = value.peakPerformanceAnalysis;
    peak.gpu =
        GPUClockWindowAnalyzer::analyze(visible, analysisWindow, key.gpuClockWindowAnalysisConfig);
    peak.cpu =
        CPUClockWindowAnalyzer::analyze(visible, analysisWindow, key.gpuClockWindowAnalysisConfig);
    peak.domain = PeakPerformanceDomainSelection::select(peak.cpu, peak.gpu);

    TrendSnapshotInputs snapshotInputs;
    snapshotInputs.samples = in.samples;
    snapshotInputs.previewPoints = in.previewPoints;
    snapshotInputs.throttleHistory = in.throttleHistory;
    snapshotInputs.referenceUpperBound = r;
    snapshotInputs.maxima = maxima;
    snapshotInputs.window = window;
    snapshotInputs.toggles = {key.showGPUSeries, key.showCPUSeries, key.showFanSeries,
                              key.showPowerSeries};
    snapshotInputs.runtimeMode =
        controlModeFromRaw(key.runtimeModeRawValue).value_or(ControlMode::systemAuto);
    value.snapshot = fixedViewportTrendSnapshot(snapshotInputs, peak.gpu, peak.cpu);
    return value;
}

const TrendSectionComputationValue& pinnedLiveTrendSection(TrendSectionMemoizer& memo,
                                                           const TrendSectionComputationKey& key,
                                                           const TrendSectionInputs& inputs,
                                                           Timestamp (*clock)()) {
    return memo.value(key, [&] { return computeTrendSection(key, inputs, clock); });
}

}  // namespace kelvo

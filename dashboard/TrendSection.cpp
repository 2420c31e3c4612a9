#include "dashboard/TrendSection.h"

#include <cstdio>

namespace kelvo {

TrendSectionComputationValue computeTrendSection(const TrendSectionComputationKey& key,
                                                 const TrendSectionInputs& in, Timestamp now) {
    TrendSectionComputationValue value;
    value.fanScaleMaxRPM = chartFanScaleMaxRPM(in.samples);
    value.gpuScaleMaxMHz = chartGPUScaleMaxMHz(in.samples);
    value.cpuScaleMaxMHz = chartCPUScaleMaxMHz(in.samples);
    value.totalPowerScaleMaxW = chartTotalPowerScaleMaxW(in.samples);
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value.totalPowerScaleMaxW);
    value.totalPowerScaleText = text;
    if (!in.samples.empty()) value.latestSampleTimestamp = in.samples.back().timestamp;
    const Timestamp r = value.latestSampleTimestamp.value_or(now);

    const TrendWindowMode window = trendWindowModeFromRaw(key.trendWindowModeRawValue);
    const ClosedTimeRange analysisWindow = liveClockAnalysisWindow(r, window);
    // A minute of lead-in lets the analysers see what came just before the window.
    const auto visible =
        trendVisibleSamples(in.samples, analysisWindow.lower - 60, analysisWindow.upper);
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
    snapshotInputs.maxima = {value.fanScaleMaxRPM, value.gpuScaleMaxMHz, value.cpuScaleMaxMHz,
                             value.totalPowerScaleMaxW};
    snapshotInputs.window = window;
    snapshotInputs.toggles = {key.showGPUSeries, key.showCPUSeries, key.showFanSeries,
                              key.showPowerSeries};
    snapshotInputs.runtimeMode =
        controlModeFromRaw(key.runtimeModeRawValue).value_or(ControlMode::systemAuto);
    value.snapshot = fixedViewportTrendSnapshot(snapshotInputs, peak.gpu, peak.cpu);
    return value;
}

const TrendSectionComputationValue& TrendSectionMemoizer::value(
    const TrendSectionComputationKey& key, const TrendSectionInputs& inputs, Timestamp now) {
    if (!cachedKey_ || !(*cachedKey_ == key) || !cachedValue_) {
        cachedValue_ = computeTrendSection(key, inputs, now);
        cachedKey_ = key;
        ++computations_;
    }
    return *cachedValue_;
}

}  // namespace kelvo

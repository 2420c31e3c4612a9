// Builds the trend chart's snapshot from the live histories.
#pragma once

#include <span>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "dashboard/TrendScaleMaxima.h"
#include "dashboard/TrendWindowMode.h"
#include "live/PreviewFanTrendPoint.h"

namespace kelvo {

// The dashboard's persisted series groups; each switches a temperature and its clock together.
struct TrendSeriesToggles {
    bool gpu = true;
    bool cpu = true;
    bool fan = true;
    bool power = true;
    bool operator==(const TrendSeriesToggles&) const = default;
};

struct TrendSnapshotInputs {
    std::span<const TelemetrySample> samples;  // time order
    std::span<const PreviewFanTrendPoint> previewPoints;
    std::span<const ThrottleWarningTrendPoint> throttleHistory;
    Timestamp referenceUpperBound = 0;  // the newest sample's time
    TrendScaleMaxima maxima;
    TrendWindowMode window = TrendWindowMode::fiveMinutes;
    TrendSeriesToggles toggles;
    ControlMode runtimeMode = ControlMode::systemAuto;
};

// Series in drawing order, each present while its toggle is on even when it has nothing to
// draw: GPU temperature, GPU clock, CPU temperature, CPU clock, fan speed, fan preview (System
// mode only), total power.
FixedViewportTrendSnapshot fixedViewportTrendSnapshot(const TrendSnapshotInputs& inputs,
                                                      const GPUClockWindowAnalysis& gpuAnalysis,
                                                      const CPUClockWindowAnalysis& cpuAnalysis);

}  // namespace kelvo

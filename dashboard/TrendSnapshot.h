// The trend chart's input: every series reduced to normalised points, throttle bands and x-axis
// ticks placed as fractions of the visible window, built from the live store's histories.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "dashboard/PeakPerformance.h"
#include "foundation/TrendAnalysis.h"
#include "live/PreviewFanTrendPoint.h"

namespace kelvo {

using TrendColor = std::array<float, 4>;

// The palette's named colours, in device RGB.
namespace TrendPalette {
inline constexpr TrendColor red{1.0f, 0.271f, 0.227f, 1.0f};
inline constexpr TrendColor green{0.196f, 0.843f, 0.294f, 1.0f};
inline constexpr TrendColor purple{0.749f, 0.353f, 0.949f, 1.0f};
inline constexpr TrendColor blue{0.039f, 0.518f, 1.0f, 1.0f};
inline constexpr TrendColor cyan{0.392f, 0.824f, 1.0f, 1.0f};
inline constexpr TrendColor orange{1.0f, 0.624f, 0.039f, 1.0f};
inline constexpr TrendColor withAlpha(TrendColor c, float a) {
    return {c[0], c[1], c[2], a};
}
}  // namespace TrendPalette

struct FixedViewportTrendSeriesSnapshot {
    TrendColor color{};
    std::vector<std::vector<TrendPoint>> segments;
    float lineWidthPixels = 2.0f;
    std::optional<std::array<float, 2>> dashPatternPixels;
    bool operator==(const FixedViewportTrendSeriesSnapshot&) const = default;
};

struct FixedViewportThrottleBandSnapshot {
    float startXFraction = 0;
    float endXFraction = 0;
    TrendColor color{};
    bool operator==(const FixedViewportThrottleBandSnapshot&) const = default;
};

struct FixedViewportTrendTickSnapshot {
    Timestamp date = 0;
    std::string text;
    double xFraction = 0;
    bool operator==(const FixedViewportTrendTickSnapshot&) const = default;
};

struct FixedViewportTrendSnapshot {
    FixedViewportTrendViewportDomain viewportDomain;
    double liveRevealDurationSeconds = 0;
    std::vector<FixedViewportTrendTickSnapshot> xAxisTicks;
    std::vector<FixedViewportThrottleBandSnapshot> throttleBands;
    std::vector<FixedViewportTrendSeriesSnapshot> series;
    bool operator==(const FixedViewportTrendSnapshot&) const = default;
};

enum class TrendWindowMode { oneMinute, fiveMinutes };

struct TrendWindowSpec {
    double windowSeconds;
    double tickStrideSeconds;
    int reducerBucketCount;
};

// Anything but "oneMinute" is the five-minute window.
TrendWindowMode trendWindowModeFromRaw(const std::string& raw);
std::string rawValue(TrendWindowMode mode);
TrendWindowSpec trendWindowSpec(TrendWindowMode mode);

inline constexpr double kTrendChartYDomainMax = 105.0;
inline constexpr double kFixedViewportBaseOffscreenWriteSeconds = 1.0;

struct TrendSeriesToggles {
    bool gpu = true;
    bool cpu = true;
    bool fan = true;
    bool power = true;
    bool operator==(const TrendSeriesToggles&) const = default;
};

struct TrendScaleMaxima {
    double fanRPM = 1;
    double gpuMHz = 1;
    double cpuMHz = 1;
    double totalPowerW = 1;
};

double chartFanScaleMaxRPM(std::span<const TelemetrySample> samples);
double chartGPUScaleMaxMHz(std::span<const TelemetrySample> samples);
double chartCPUScaleMaxMHz(std::span<const TelemetrySample> samples);
double chartTotalPowerScaleMaxW(std::span<const TelemetrySample> samples);

std::size_t firstTrendSampleIndex(Timestamp atOrAfter, std::span<const TelemetrySample> samples);
// A view into `samples` (never a copy); one sample before `lower` is kept for line continuity.
std::span<const TelemetrySample> trendVisibleSamples(std::span<const TelemetrySample> samples,
                                                     Timestamp lower, Timestamp upper);

FixedViewportTrendViewportDomain trendViewportDomain(Timestamp referenceUpperBound,
                                                     TrendWindowMode mode);
ClosedTimeRange liveClockAnalysisWindow(Timestamp referenceUpperBound, TrendWindowMode mode);

std::vector<std::vector<TrendPoint>> fixedViewportTrendPreviewSegments(
    std::span<const PreviewFanTrendPoint> points, const FixedViewportTrendViewportDomain& domain,
    double fanScaleMaxRPM, int bucketCount);
std::vector<ClockWindowThrottleSpan> mergedThrottleSpans(
    const GPUClockWindowAnalysis& gpu, const CPUClockWindowAnalysis& cpu,
    const std::vector<ClockWindowThrottleSpan>& controllerWarningSpans);
std::vector<FixedViewportThrottleBandSnapshot> fixedViewportThrottleBands(
    const std::vector<ClockWindowThrottleSpan>& spans,
    const FixedViewportTrendViewportDomain& domain);
std::vector<Timestamp> fixedViewportTrendXAxisTickDates(ClosedTimeRange timeDomain,
                                                        TrendWindowMode mode);

struct TrendSnapshotInputs {
    std::span<const TelemetrySample> samples;
    std::span<const PreviewFanTrendPoint> previewPoints;
    std::span<const ThrottleWarningTrendPoint> throttleHistory;
    Timestamp referenceUpperBound = 0;
    TrendScaleMaxima maxima;
    TrendWindowMode window = TrendWindowMode::fiveMinutes;
    TrendSeriesToggles toggles;
    ControlMode runtimeMode = ControlMode::systemAuto;
};

FixedViewportTrendSnapshot fixedViewportTrendSnapshot(const TrendSnapshotInputs& inputs,
                                                      const GPUClockWindowAnalysis& gpu,
                                                      const CPUClockWindowAnalysis& cpu);

}  // namespace kelvo

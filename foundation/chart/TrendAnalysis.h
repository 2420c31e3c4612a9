// Dashboard helpers of the framework: the chart's time domain, point reduction, throttle
// spans, clock-window analyses and axis labels. Pure functions over telemetry histories.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

struct ClosedTimeRange {
    Timestamp lower = 0;
    Timestamp upper = 0;
    bool contains(Timestamp t) const { return t >= lower && t <= upper; }
    bool operator==(const ClosedTimeRange&) const = default;
};

struct ClockWindowThrottleSpan {
    Timestamp start = 0;
    Timestamp end = 0;
    bool operator==(const ClockWindowThrottleSpan&) const = default;
};

// The chart's time domain: a visible window that ends `offscreen` seconds before the reference
// upper bound (the newest sample), with an equally long buffer before it.
struct FixedViewportTrendViewportDomain {
    Timestamp referenceUpperBound = 0;
    double visibleWindowSeconds = 0;
    double leadingOffscreenSeconds = 0;
    double trailingOffscreenSeconds = 0;

    static FixedViewportTrendViewportDomain make(Timestamp referenceUpperBound,
                                                 double visibleWindowSeconds,
                                                 double offscreenSeconds);
    Timestamp visibleUpperBound() const { return referenceUpperBound - trailingOffscreenSeconds; }
    Timestamp visibleLowerBound() const { return visibleUpperBound() - visibleWindowSeconds; }
    Timestamp bufferLowerBound() const { return visibleLowerBound() - leadingOffscreenSeconds; }
    bool operator==(const FixedViewportTrendViewportDomain&) const = default;
};

struct TrendPoint {
    float x = 0;
    float y = 0;
    bool operator==(const TrendPoint&) const = default;
};

namespace FixedViewportTrendPointReducer {
// Shape-preserving min/max bucket reduction over x (points in x order): each bucket keeps its
// first, last, minimum-y and maximum-y points in x order; never more than 4 × bucketCount points.
// Inputs of at most 4 × bucketCount points come back unchanged.
std::vector<TrendPoint> reduce(std::span<const TrendPoint> points, int bucketCount);
}  // namespace FixedViewportTrendPointReducer

namespace ThrottleWarningBandBuilder {
// Contiguous warning intervals of the history, clipped to the window. A warning stretch runs
// from its first warning point to the first non-warning point after it (or the last point).
std::vector<ClockWindowThrottleSpan> spans(std::span<const ThrottleWarningTrendPoint> history,
                                           ClosedTimeRange window);
}  // namespace ThrottleWarningBandBuilder

enum class GPUProbeConsistency { unknown, trusted, incoherent };

// Most frequent cause among the constrained high-load GPU samples.
enum class GPULimiter : int {
    none = 0,
    osThermalPressure = 1,   // the OS reports serious/critical thermal pressure
    driverThermal = 2,       // the driver reports thermal slowdown
    driverPowerCap = 3,      // the driver reports a power-cap slowdown
    unexplainedDeficit = 4,  // clock deficit with no reported cause
};

struct CPUClockWindowAnalysis {
    bool referenceReady = false;
    std::optional<double> referenceClockMHz;
    std::optional<double> clockDeficit;  // 1 − mean high-load clock ÷ reference (may be < 0)
    int highLoadSampleCount = 0;
    std::optional<double> meanHighLoadClockMHz;
    std::vector<ClockWindowThrottleSpan> throttleSpans;
    bool operator==(const CPUClockWindowAnalysis&) const = default;
};

struct GPUClockWindowAnalysis {
    bool referenceReady = false;
    std::optional<double> referenceClockMHz;
    std::optional<double> clockDeficit;
    int highLoadSampleCount = 0;
    std::optional<double> meanHighLoadClockMHz;
    std::vector<ClockWindowThrottleSpan> throttleSpans;
    int probeSampleCount = 0;
    std::optional<double> averageRequestedState;
    std::optional<double> averageGrantedState;
    std::optional<double> averageStateDeficit;
    int constrainedSampleCount = 0;
    GPULimiter limiter = GPULimiter::none;
    GPUProbeConsistency probeConsistency = GPUProbeConsistency::unknown;
    bool operator==(const GPUClockWindowAnalysis&) const = default;
};

namespace CPUClockWindowAnalyzer {
CPUClockWindowAnalysis analyze(std::span<const TelemetrySample> samples, ClosedTimeRange window,
                               const GPUClockWindowAnalysisConfig& config);
}
namespace GPUClockWindowAnalyzer {
GPUClockWindowAnalysis analyze(std::span<const TelemetrySample> samples, ClosedTimeRange window,
                               const GPUClockWindowAnalysisConfig& config);
}

enum class PeakPerformanceDomain { none, cpu, gpu, combined };

namespace PeakPerformanceDomainSelection {
// `combined` when both have high-load samples and ready references, else the one that has,
// else `none`.
PeakPerformanceDomain select(const CPUClockWindowAnalysis& cpu, const GPUClockWindowAnalysis& gpu);
}  // namespace PeakPerformanceDomainSelection

namespace FixedViewportTrendAxisLabels {
// Dates on whole multiples of the stride (since the epoch) inside [lower, upper], ascending.
std::vector<Timestamp> referenceTickDates(ClosedTimeRange timeDomain, double tickStrideSeconds);
// "HH:mm" for the five-minute window, "HH:mm:ss" for the one-minute window, local time.
std::string text(Timestamp date, double visibleWindowSeconds);
// The upper bound rounded down to the whole second.
Timestamp liveTimestampDisplayDate(Timestamp upperBound);
}  // namespace FixedViewportTrendAxisLabels

}  // namespace kelvo

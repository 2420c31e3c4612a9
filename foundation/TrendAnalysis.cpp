#include "foundation/TrendAnalysis.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace kelvo {

FixedViewportTrendViewportDomain FixedViewportTrendViewportDomain::make(
    Timestamp referenceUpperBound, double visibleWindowSeconds, double offscreenSeconds) {
    const double offscreen = offscreenSeconds > 0 ? offscreenSeconds : 0;
    return {referenceUpperBound, visibleWindowSeconds, offscreen, offscreen};
}

// ----- Point reduction -----------------------------------------------------------------------

std::vector<TrendPoint> FixedViewportTrendPointReducer::reduce(std::span<const TrendPoint> points,
                                                               int bucketCount) {
    const std::size_t cap = static_cast<std::size_t>(std::max(bucketCount, 1)) * 4;
    if (points.size() <= cap || bucketCount < 1) return {points.begin(), points.end()};
    std::vector<TrendPoint> out;
    out.reserve(cap);
    const float x0 = points.front().x;
    const float span = points.back().x - x0;
    if (!(span > 0)) {
        // No extent in x: the extremes are all there is to show.
        auto [lo, hi] = std::minmax_element(points.begin(), points.end(),
                                            [](auto a, auto b) { return a.y < b.y; });
        out.push_back(points.front());
        for (auto it : {lo, hi})
            if (it != points.begin() && it != points.end() - 1) out.push_back(*it);
        out.push_back(points.back());
        return out;
    }
    const double scale = bucketCount / static_cast<double>(span);
    std::size_t start = 0;
    while (start < points.size()) {
        const int bucket =
            std::min(bucketCount - 1, static_cast<int>((points[start].x - x0) * scale));
        std::size_t end = start + 1;
        std::size_t lo = start, hi = start;
        while (end < points.size() &&
               std::min(bucketCount - 1, static_cast<int>((points[end].x - x0) * scale)) ==
                   bucket) {
            if (points[end].y < points[lo].y) lo = end;
            if (points[end].y > points[hi].y) hi = end;
            ++end;
        }
        // First, extremes and last of the bucket, each once, in x order.
        std::size_t keep[4] = {start, std::min(lo, hi), std::max(lo, hi), end - 1};
        std::size_t previous = static_cast<std::size_t>(-1);
        for (std::size_t index : keep) {
            if (index == previous) continue;
            out.push_back(points[index]);
            previous = index;
        }
        start = end;
    }
    return out;
}

// ----- Controller warning spans --------------------------------------------------------------

std::vector<ClockWindowThrottleSpan> ThrottleWarningBandBuilder::spans(
    std::span<const ThrottleWarningTrendPoint> history, ClosedTimeRange window) {
    std::vector<ClockWindowThrottleSpan> result;
    auto emit = [&](Timestamp start, Timestamp end) {
        start = std::max(start, window.lower);
        end = std::min(end, window.upper);
        if (end > start) result.push_back({start, end});
    };
    std::optional<Timestamp> openedAt;
    for (const auto& point : history) {
        if (point.isWarning && !openedAt) openedAt = point.timestamp;
        if (!point.isWarning && openedAt) {
            emit(*openedAt, point.timestamp);
            openedAt.reset();
        }
    }
    if (openedAt) emit(*openedAt, history.back().timestamp);
    return result;
}

// ----- Clock-window analyses -----------------------------------------------------------------

namespace {

constexpr double kDefaultHighLoadUtilizationPct = 70;
constexpr double kDefaultHighLoadPowerW = 45;
constexpr double kDefaultDeficitFraction = 0.07;
constexpr double kMinimumThrottleSpanSeconds = 3;

bool isHighLoad(const TelemetrySample& s, const GPUClockWindowAnalysisConfig& config) {
    const auto util = s.maxUtilizationPct();
    if (!util || *util < config.highLoadUtilizationPct.value_or(kDefaultHighLoadUtilizationPct))
        return false;
    double powerThreshold = kDefaultHighLoadPowerW;
    if (config.highLoadPowerW) powerThreshold = std::min(powerThreshold, *config.highLoadPowerW);
    return s.totalPowerW && *s.totalPowerW >= powerThreshold;
}

double deficitFraction(const GPUClockWindowAnalysisConfig& config) {
    return config.deficitThresholdPct ? *config.deficitThresholdPct / 100.0
                                      : kDefaultDeficitFraction;
}

bool calm(const TelemetrySample& s) {
    return !s.thermalPressure || *s.thermalPressure == ThermalPressureLevel::nominal;
}

// What the CPU and GPU analyses share: reference, deficit, high-load count, throttle spans.
template <class Analysis>
void analyzeClock(Analysis& out, std::span<const TelemetrySample> samples, ClosedTimeRange window,
                  const GPUClockWindowAnalysisConfig& config,
                  std::optional<double> TelemetrySample::*clock,
                  const std::optional<double>& configuredReference) {
    // Without a configured reference, the best clock this history shows under load while the
    // machine was calm is the best estimate of what it can sustain.
    std::optional<double> reference = configuredReference;
    if (!reference) {
        for (const auto& s : samples)
            if (isHighLoad(s, config) && calm(s) && s.*clock && *(s.*clock) > reference.value_or(0))
                reference = s.*clock;
    }
    out.referenceReady = reference.has_value() && *reference > 0;
    out.referenceClockMHz = reference;
    const double threshold = out.referenceReady ? *reference * (1 - deficitFraction(config)) : 0;

    double sum = 0;
    bool inRun = false;
    Timestamp runStart = 0;
    Timestamp runLast = 0;
    auto closeRun = [&] {
        if (inRun && runLast - runStart >= kMinimumThrottleSpanSeconds)
            out.throttleSpans.push_back({runStart, runLast});
        inRun = false;
    };
    for (const auto& s : samples) {
        if (!window.contains(s.timestamp)) continue;
        const bool loaded = isHighLoad(s, config) && (s.*clock).has_value();
        if (loaded) {
            ++out.highLoadSampleCount;
            sum += *(s.*clock);
        }
        const bool under = loaded && out.referenceReady && *(s.*clock) < threshold;
        if (under) {
            if (!inRun) runStart = s.timestamp;
            inRun = true;
            runLast = s.timestamp;
        } else {
            closeRun();
        }
    }
    closeRun();
    if (out.highLoadSampleCount > 0) {
        out.meanHighLoadClockMHz = sum / out.highLoadSampleCount;
        if (out.referenceReady) out.clockDeficit = 1 - *out.meanHighLoadClockMHz / *reference;
    }
}

}  // namespace

CPUClockWindowAnalysis CPUClockWindowAnalyzer::analyze(std::span<const TelemetrySample> samples,
                                                       ClosedTimeRange window,
                                                       const GPUClockWindowAnalysisConfig& config) {
    CPUClockWindowAnalysis out;
    analyzeClock(out, samples, window, config, &TelemetrySample::cpuClockMHz,
                 config.cpuReferenceClockMHz);
    return out;
}

GPUClockWindowAnalysis GPUClockWindowAnalyzer::analyze(std::span<const TelemetrySample> samples,
                                                       ClosedTimeRange window,
                                                       const GPUClockWindowAnalysisConfig& config) {
    GPUClockWindowAnalysis out;
    analyzeClock(out, samples, window, config, &TelemetrySample::gpuClockMHz,
                 config.referenceClockMHz);

    // Performance-state probes: the granted state can never be faster than the requested one,
    // so a driver that says otherwise is not believed.
    double requested = 0, granted = 0;
    int impossible = 0;
    for (const auto& s : samples) {
        if (!window.contains(s.timestamp) || !s.gpuRequestedPState || !s.gpuGrantedPState) continue;
        ++out.probeSampleCount;
        requested += *s.gpuRequestedPState;
        granted += *s.gpuGrantedPState;
        if (*s.gpuGrantedPState < *s.gpuRequestedPState) ++impossible;
    }
    if (out.probeSampleCount > 0) {
        out.averageRequestedState = requested / out.probeSampleCount;
        out.averageGrantedState = granted / out.probeSampleCount;
        out.averageStateDeficit = *out.averageGrantedState - *out.averageRequestedState;
        const bool incoherent =
            impossible * 10 > out.probeSampleCount || *out.averageStateDeficit < 0;
        out.probeConsistency =
            incoherent ? GPUProbeConsistency::incoherent : GPUProbeConsistency::trusted;
    }
    const bool trustProbes = out.probeConsistency == GPUProbeConsistency::trusted;

    // Limiter: the most frequent reported cause among constrained high-load samples.
    const double threshold =
        out.referenceReady ? *out.referenceClockMHz * (1 - deficitFraction(config)) : 0;
    int osPressure = 0, driverThermal = 0, powerCap = 0, unexplained = 0;
    for (const auto& s : samples) {
        if (!window.contains(s.timestamp) || !isHighLoad(s, config) || !s.gpuClockMHz) continue;
        const bool clockShort = out.referenceReady && *s.gpuClockMHz < threshold;
        const bool stateShort = trustProbes && s.gpuRequestedPState && s.gpuGrantedPState &&
                                *s.gpuGrantedPState - *s.gpuRequestedPState >= 1;
        if (!clockShort && !stateShort) continue;
        ++out.constrainedSampleCount;
        const bool thermal = (s.gpuThrottleReasons & gpuThrottleThermal) != 0;
        const bool cap = (s.gpuThrottleReasons & gpuThrottlePowerCap) != 0;
        const bool pressure = !calm(s) && (*s.thermalPressure == ThermalPressureLevel::serious ||
                                           *s.thermalPressure == ThermalPressureLevel::critical);
        if (thermal) ++driverThermal;
        if (cap) ++powerCap;
        if (pressure) ++osPressure;
        if (!thermal && !cap && !pressure) ++unexplained;
    }
    if (out.constrainedSampleCount > 0) {
        // Ties go to the more specific report: driver thermal, then power cap, then the OS.
        int best = 0;
        if (driverThermal > best) best = driverThermal, out.limiter = GPULimiter::driverThermal;
        if (powerCap > best) best = powerCap, out.limiter = GPULimiter::driverPowerCap;
        if (osPressure > best) best = osPressure, out.limiter = GPULimiter::osThermalPressure;
        if (unexplained * 2 > out.constrainedSampleCount)
            out.limiter = GPULimiter::unexplainedDeficit;
    }
    return out;
}

PeakPerformanceDomain PeakPerformanceDomainSelection::select(const CPUClockWindowAnalysis& cpu,
                                                             const GPUClockWindowAnalysis& gpu) {
    const bool cpuQualified = cpu.highLoadSampleCount > 0 && cpu.referenceReady;
    const bool gpuQualified = gpu.highLoadSampleCount > 0 && gpu.referenceReady;
    if (cpuQualified && gpuQualified) return PeakPerformanceDomain::combined;
    if (cpuQualified) return PeakPerformanceDomain::cpu;
    if (gpuQualified) return PeakPerformanceDomain::gpu;
    return PeakPerformanceDomain::none;
}

// ----- Axis labels ---------------------------------------------------------------------------

std::vector<Timestamp> FixedViewportTrendAxisLabels::referenceTickDates(ClosedTimeRange timeDomain,
                                                                        double tickStrideSeconds) {
    std::vector<Timestamp> dates;
    if (!(tickStrideSeconds > 0) || timeDomain.upper < timeDomain.lower) return dates;
    for (double k = std::ceil(timeDomain.lower / tickStrideSeconds);
         k * tickStrideSeconds <= timeDomain.upper; k += 1)
        dates.push_back(k * tickStrideSeconds);
    return dates;
}

std::string FixedViewportTrendAxisLabels::text(Timestamp date, double visibleWindowSeconds) {
    // Seconds only matter while the window is a minute or shorter.
    const std::time_t seconds = static_cast<std::time_t>(std::floor(date));
    std::tm local{};
    localtime_r(&seconds, &local);
    char out[16];
    std::strftime(out, sizeof out, visibleWindowSeconds > 60 ? "%H:%M" : "%H:%M:%S", &local);
    return out;
}

Timestamp FixedViewportTrendAxisLabels::liveTimestampDisplayDate(Timestamp upperBound) {
    return std::floor(upperBound);
}

}  // namespace kelvo

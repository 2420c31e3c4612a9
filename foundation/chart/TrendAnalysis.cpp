#include "foundation/chart/TrendAnalysis.h"

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
    // A non-positive bucket count is read as one bucket, so the cap still holds.
    const int buckets = std::max(bucketCount, 1);
    const std::size_t cap = static_cast<std::size_t>(buckets) * 4;
    if (points.size() <= cap) return {points.begin(), points.end()};

    std::vector<TrendPoint> out;
    out.reserve(cap);
    const double x0 = points.front().x;
    const double extent = points.back().x - x0;
    // With no extent in x everything shares one bucket: the ends and extremes are what is left.
    const double scale = extent > 0 ? buckets / extent : 0;
    const double lastBucket = buckets - 1;
    int current = 0;
    // Clamped in double before the conversion (a stray NaN lands in bucket 0), and never moving
    // backwards, so out-of-order input cannot revisit a bucket and break the cap.
    auto bucketOf = [&](float x) {
        const double position = (x - x0) * scale;
        const int bucket = position >= lastBucket ? static_cast<int>(lastBucket)
                           : position > 0         ? static_cast<int>(position)
                                                  : 0;
        return std::max(bucket, current);
    };
    // First, extremes and last of the bucket, each once, in x order.
    auto flush = [&](std::size_t first, std::size_t lo, std::size_t hi, std::size_t last) {
        const std::size_t keep[4] = {first, std::min(lo, hi), std::max(lo, hi), last};
        out.push_back(points[first]);
        for (int i = 1; i < 4; ++i)
            if (keep[i] != keep[i - 1]) out.push_back(points[keep[i]]);
    };

    std::size_t first = 0, lo = 0, hi = 0;
    current = bucketOf(points.front().x);
    for (std::size_t i = 1; i < points.size(); ++i) {
        const int bucket = bucketOf(points[i].x);
        if (bucket != current) {
            flush(first, lo, hi, i - 1);
            first = lo = hi = i;
            current = bucket;
            continue;
        }
        if (points[i].y < points[lo].y) lo = i;
        if (points[i].y > points[hi].y) hi = i;
    }
    flush(first, lo, hi, points.size() - 1);
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
        if (!window.contains(s.timestamp) || !isHighLoad(s, config)) continue;
        const bool clockShort = out.referenceReady && s.gpuClockMHz && *s.gpuClockMHz < threshold;
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
    // No axis shows more ticks than this; a stride that fine for the range is a caller's slip,
    // and counting in whole multiples keeps the loop finite where k + 1 == k in doubles.
    constexpr double kMaximumTicks = 10'000;
    std::vector<Timestamp> dates;
    if (!(tickStrideSeconds > 0) || !(timeDomain.upper >= timeDomain.lower)) return dates;
    // One multiple of slack at each end: the quotients round, the range test below decides.
    const double firstMultiple = std::ceil(timeDomain.lower / tickStrideSeconds) - 1;
    const double lastMultiple = std::floor(timeDomain.upper / tickStrideSeconds) + 1;
    if (!(lastMultiple >= firstMultiple) || lastMultiple - firstMultiple >= kMaximumTicks)
        return dates;
    const auto count = static_cast<std::size_t>(lastMultiple - firstMultiple) + 1;
    dates.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        const Timestamp date = (firstMultiple + static_cast<double>(i)) * tickStrideSeconds;
        if (timeDomain.contains(date)) dates.push_back(date);
    }
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

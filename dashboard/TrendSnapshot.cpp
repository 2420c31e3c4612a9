#include "dashboard/TrendSnapshot.h"

#include <algorithm>
#include <numeric>

namespace kelvo {

TrendWindowMode trendWindowModeFromRaw(const std::string& raw) {
    return raw == "oneMinute" ? TrendWindowMode::oneMinute : TrendWindowMode::fiveMinutes;
}

std::string rawValue(TrendWindowMode mode) {
    return mode == TrendWindowMode::oneMinute ? "oneMinute" : "fiveMinutes";
}

TrendWindowSpec trendWindowSpec(TrendWindowMode mode) {
    if (mode == TrendWindowMode::oneMinute) return {60, 15, 180};
    return {300, 60, 1200};
}

// ----- Scale maxima --------------------------------------------------------------------------

namespace {
double maxOf(const std::vector<double>& values) {
    return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

double largestPositive(std::span<const TelemetrySample> samples,
                       std::optional<double> TelemetrySample::*field) {
    double best = 0;
    for (const auto& s : samples)
        if (s.*field && *(s.*field) > best) best = *(s.*field);
    return best;
}

double floorAtOne(double value) {
    return value > 1.0 ? value : 1.0;
}
}  // namespace

double chartFanScaleMaxRPM(std::span<const TelemetrySample> samples) {
    // The fans' rated maxima are the honest scale; without them, the fastest speed seen.
    double rated = 0;
    for (const auto& s : samples)
        for (double v : s.fanMaxRPM)
            if (v > rated) rated = v;
    if (rated > 0) return rated;
    double seen = 0;
    for (const auto& s : samples)
        seen = std::max(seen, std::max(maxOf(s.fanCurrentRPM), maxOf(s.fanTargetRPM)));
    return floorAtOne(seen);
}

double chartGPUScaleMaxMHz(std::span<const TelemetrySample> samples) {
    const double reference = largestPositive(samples, &TelemetrySample::gpuReferenceMaxClockMHz);
    if (reference > 0) return reference;
    return floorAtOne(largestPositive(samples, &TelemetrySample::gpuClockMHz));
}

double chartCPUScaleMaxMHz(std::span<const TelemetrySample> samples) {
    return floorAtOne(largestPositive(samples, &TelemetrySample::cpuClockMHz));
}

double chartTotalPowerScaleMaxW(std::span<const TelemetrySample> samples) {
    return floorAtOne(largestPositive(samples, &TelemetrySample::totalPowerW));
}

// ----- Sample ranges -------------------------------------------------------------------------

std::size_t firstTrendSampleIndex(Timestamp atOrAfter, std::span<const TelemetrySample> samples) {
    auto it = std::partition_point(samples.begin(), samples.end(),
                                   [atOrAfter](const auto& s) { return s.timestamp < atOrAfter; });
    return static_cast<std::size_t>(it - samples.begin());
}

std::span<const TelemetrySample> trendVisibleSamples(std::span<const TelemetrySample> samples,
                                                     Timestamp lower, Timestamp upper) {
    if (samples.empty()) return {};
    const auto endIt = std::partition_point(
        samples.begin(), samples.end(), [upper](const auto& s) { return s.timestamp <= upper; });
    const auto end = static_cast<std::ptrdiff_t>(endIt - samples.begin());
    if (end < 1) return {};
    std::ptrdiff_t start =
        std::min(static_cast<std::ptrdiff_t>(firstTrendSampleIndex(lower, samples)), end) - 1;
    if (start < 0) start = 0;
    if (start >= end) return {};
    return samples.subspan(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start));
}

FixedViewportTrendViewportDomain trendViewportDomain(Timestamp referenceUpperBound,
                                                     TrendWindowMode mode) {
    return FixedViewportTrendViewportDomain::make(referenceUpperBound,
                                                  trendWindowSpec(mode).windowSeconds,
                                                  kFixedViewportBaseOffscreenWriteSeconds);
}

ClosedTimeRange liveClockAnalysisWindow(Timestamp referenceUpperBound, TrendWindowMode mode) {
    const auto domain = trendViewportDomain(referenceUpperBound, mode);
    return {domain.visibleLowerBound(), domain.visibleUpperBound()};
}

// ----- Series, bands, ticks ------------------------------------------------------------------

namespace {
float xFraction(Timestamp t, const FixedViewportTrendViewportDomain& domain) {
    const double w = domain.visibleWindowSeconds;
    return w > 0 ? static_cast<float>((t - domain.visibleLowerBound()) / w) : 0.0f;
}

float yFor(double value) {
    return static_cast<float>(1.0 - value / kTrendChartYDomainMax);
}

double percentOf(double value, double scale) {
    return std::clamp(value / scale * 100.0, 0.0, kTrendChartYDomainMax);
}

std::vector<std::vector<TrendPoint>> singleSegment(std::vector<TrendPoint>& points, int buckets) {
    if (points.size() < 2) return {};
    auto reduced = FixedViewportTrendPointReducer::reduce(points, buckets);
    if (reduced.size() < 2) return {};
    std::vector<std::vector<TrendPoint>> segments;
    segments.push_back(std::move(reduced));
    return segments;
}
}  // namespace

std::vector<std::vector<TrendPoint>> fixedViewportTrendPreviewSegments(
    std::span<const PreviewFanTrendPoint> points, const FixedViewportTrendViewportDomain& domain,
    double fanScaleMaxRPM, int bucketCount) {
    if (fanScaleMaxRPM <= 0) return {};
    std::vector<TrendPoint> line;
    line.reserve(points.size());
    for (const auto& p : points)
        line.push_back(
            {xFraction(p.timestamp, domain), yFor(percentOf(p.averageRPM, fanScaleMaxRPM))});
    return singleSegment(line, bucketCount);
}

std::vector<ClockWindowThrottleSpan> mergedThrottleSpans(
    const GPUClockWindowAnalysis& gpu, const CPUClockWindowAnalysis& cpu,
    const std::vector<ClockWindowThrottleSpan>& controllerWarningSpans) {
    std::vector<ClockWindowThrottleSpan> all;
    all.reserve(gpu.throttleSpans.size() + cpu.throttleSpans.size() +
                controllerWarningSpans.size());
    all.insert(all.end(), gpu.throttleSpans.begin(), gpu.throttleSpans.end());
    all.insert(all.end(), cpu.throttleSpans.begin(), cpu.throttleSpans.end());
    all.insert(all.end(), controllerWarningSpans.begin(), controllerWarningSpans.end());
    std::stable_sort(all.begin(), all.end(), [](const auto& a, const auto& b) {
        return a.start < b.start || (a.start == b.start && a.end < b.end);
    });
    std::vector<ClockWindowThrottleSpan> merged;
    for (const auto& span : all) {
        if (!merged.empty() && span.start <= merged.back().end)
            merged.back().end = std::max(merged.back().end, span.end);
        else
            merged.push_back(span);
    }
    return merged;
}

std::vector<FixedViewportThrottleBandSnapshot> fixedViewportThrottleBands(
    const std::vector<ClockWindowThrottleSpan>& spans,
    const FixedViewportTrendViewportDomain& domain) {
    std::vector<FixedViewportThrottleBandSnapshot> bands;
    if (domain.visibleWindowSeconds <= 0) return bands;
    for (const auto& span : spans) {
        const float s = xFraction(span.start, domain);
        const float e = xFraction(span.end, domain);
        if (s < e) bands.push_back({s, e, TrendPalette::withAlpha(TrendPalette::red, 0.12f)});
    }
    return bands;
}

std::vector<Timestamp> fixedViewportTrendXAxisTickDates(ClosedTimeRange timeDomain,
                                                        TrendWindowMode mode) {
    const auto windowSpec = trendWindowSpec(mode);
    auto dates =
        FixedViewportTrendAxisLabels::referenceTickDates(timeDomain, windowSpec.tickStrideSeconds);
    if (!dates.empty() && dates.back() == timeDomain.upper) dates.pop_back();
    std::vector<Timestamp> kept;
    std::string lastText;
    for (std::size_t i = 0; i < dates.size(); ++i) {
        const std::string text =
            FixedViewportTrendAxisLabels::text(dates[i], windowSpec.windowSeconds);
        const bool edge = i == 0 || i + 1 == dates.size();
        if (edge || text != lastText) {
            kept.push_back(dates[i]);
            lastText = text;
        }
    }
    return kept;
}

FixedViewportTrendSnapshot fixedViewportTrendSnapshot(const TrendSnapshotInputs& in,
                                                      const GPUClockWindowAnalysis& gpu,
                                                      const CPUClockWindowAnalysis& cpu) {
    const auto windowSpec = trendWindowSpec(in.window);
    FixedViewportTrendSnapshot snapshot;
    const auto domain = trendViewportDomain(in.referenceUpperBound, in.window);
    snapshot.viewportDomain = domain;
    snapshot.liveRevealDurationSeconds = kFixedViewportBaseOffscreenWriteSeconds;

    const auto visible =
        trendVisibleSamples(in.samples, domain.bufferLowerBound(), in.referenceUpperBound);
    const ClosedTimeRange buffer{domain.bufferLowerBound(), in.referenceUpperBound};

    const ClosedTimeRange visibleRange{domain.visibleLowerBound(), domain.visibleUpperBound()};
    for (Timestamp date : fixedViewportTrendXAxisTickDates(visibleRange, in.window))
        snapshot.xAxisTicks.push_back(
            {date, FixedViewportTrendAxisLabels::text(date, windowSpec.windowSeconds),
             domain.visibleWindowSeconds > 0
                 ? (date - domain.visibleLowerBound()) / domain.visibleWindowSeconds
                 : 0.0});

    const auto warnings = ThrottleWarningBandBuilder::spans(in.throttleHistory, buffer);
    snapshot.throttleBands =
        fixedViewportThrottleBands(mergedThrottleSpans(gpu, cpu, warnings), domain);

    std::vector<TrendPoint> points;
    points.reserve(visible.size());
    auto addSeries = [&](TrendColor color, auto valueOf) {
        points.clear();
        for (const auto& s : visible) {
            const std::optional<double> v = valueOf(s);
            if (v) points.push_back({xFraction(s.timestamp, domain), yFor(*v)});
        }
        FixedViewportTrendSeriesSnapshot series;
        series.color = color;
        series.segments = singleSegment(points, windowSpec.reducerBucketCount);
        snapshot.series.push_back(std::move(series));
    };
    // Non-positive readings are gaps in the data, not zeros.
    auto temperature = [](std::optional<double> TelemetrySample::*f) {
        return [f](const TelemetrySample& s) -> std::optional<double> {
            if (!(s.*f) || *(s.*f) <= 0) return std::nullopt;
            return std::min(*(s.*f), kTrendChartYDomainMax);
        };
    };
    auto scaled = [](std::optional<double> TelemetrySample::*f, double scale) {
        return [f, scale](const TelemetrySample& s) -> std::optional<double> {
            if (!(s.*f) || *(s.*f) <= 0) return std::nullopt;
            return percentOf(*(s.*f), scale);
        };
    };
    if (in.toggles.gpu) {
        addSeries(TrendPalette::red, temperature(&TelemetrySample::gpuTemperatureC));
        addSeries(TrendPalette::green, scaled(&TelemetrySample::gpuClockMHz, in.maxima.gpuMHz));
    }
    if (in.toggles.cpu) {
        addSeries(TrendPalette::purple, temperature(&TelemetrySample::cpuTemperatureC));
        addSeries(TrendPalette::blue, scaled(&TelemetrySample::cpuClockMHz, in.maxima.cpuMHz));
    }
    if (in.toggles.fan) {
        const double fanScale = in.maxima.fanRPM;
        addSeries(TrendPalette::cyan,
                  [fanScale](const TelemetrySample& s) -> std::optional<double> {
                      if (s.fanCurrentRPM.empty()) return std::nullopt;
                      const double mean =
                          std::accumulate(s.fanCurrentRPM.begin(), s.fanCurrentRPM.end(), 0.0) /
                          static_cast<double>(s.fanCurrentRPM.size());
                      if (mean <= 0) return std::nullopt;
                      return percentOf(mean, fanScale);
                  });
        if (in.runtimeMode == ControlMode::systemAuto) {
            std::vector<PreviewFanTrendPoint> kept;
            for (const auto& p : in.previewPoints)
                if (p.timestamp >= buffer.lower && p.timestamp <= buffer.upper) kept.push_back(p);
            FixedViewportTrendSeriesSnapshot preview;
            preview.color = TrendPalette::withAlpha(TrendPalette::cyan, 0.6f);
            preview.dashPatternPixels = std::array<float, 2>{5, 6};
            preview.segments = fixedViewportTrendPreviewSegments(kept, domain, fanScale,
                                                                 windowSpec.reducerBucketCount);
            snapshot.series.push_back(std::move(preview));
        }
    }
    if (in.toggles.power)
        addSeries(TrendPalette::orange,
                  scaled(&TelemetrySample::totalPowerW, std::max(1.0, in.maxima.totalPowerW)));
    return snapshot;
}

}  // namespace kelvo

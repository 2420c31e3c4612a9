#include "dashboard/TrendSnapshotBuilder.h"

#include <algorithm>

#include "dashboard/FixedViewportThrottleBands.h"
#include "dashboard/MergedThrottleSpans.h"
#include "dashboard/SystemColors.h"
#include "dashboard/TrendChartConstants.h"
#include "dashboard/TrendPlotCoordinates.h"
#include "dashboard/TrendPreviewSegments.h"
#include "dashboard/TrendRenderColor.h"
#include "dashboard/TrendViewportDomain.h"
#include "dashboard/TrendVisibleSamples.h"
#include "dashboard/TrendXAxisTicks.h"

namespace kelvo {

namespace {

using Reading = std::optional<double> TelemetrySample::*;

// Readings that are missing or not positive are gaps in the data, not zeros.
double positiveOrZero(const std::optional<double>& value) {
    return value && *value > 0 ? *value : 0;
}

double meanFanRPM(const TelemetrySample& s) {
    return s.meanFanCurrentRPM().value_or(0);
}

class SeriesBuilder {
public:
    SeriesBuilder(std::span<const TelemetrySample> samples,
                  const FixedViewportTrendViewportDomain& domain, int bucketCount,
                  FixedViewportTrendSnapshot& snapshot)
        : samples_(samples), domain_(domain), bucketCount_(bucketCount), snapshot_(snapshot) {
        points_.reserve(samples.size());
    }

    // `plotted(sample)` returns the y-domain value, or a non-positive raw reading to skip it.
    template <class Plotted>
    void add(const QColor& color, Plotted plotted) {
        points_.clear();
        for (const auto& s : samples_) {
            const std::optional<double> v = plotted(s);
            if (v) points_.push_back({trendXFraction(s.timestamp, domain_), trendYFraction(*v)});
        }
        FixedViewportTrendSeriesSnapshot series;
        series.color = trendRenderColor(color);
        series.segments = trendSeriesSegments(points_, bucketCount_);
        snapshot_.series.push_back(std::move(series));
    }

    void addTemperature(const QColor& color, Reading reading) {
        add(color, [reading](const TelemetrySample& s) -> std::optional<double> {
            const double v = positiveOrZero(s.*reading);
            if (v <= 0) return std::nullopt;
            return std::min(v, kTrendChartYDomainMax);
        });
    }

    void addScaled(const QColor& color, Reading reading, double scale) {
        add(color, [reading, scale](const TelemetrySample& s) -> std::optional<double> {
            const double v = positiveOrZero(s.*reading);
            if (v <= 0) return std::nullopt;
            return trendPercentOfScale(v, scale);
        });
    }

private:
    std::span<const TelemetrySample> samples_;
    const FixedViewportTrendViewportDomain& domain_;
    int bucketCount_;
    FixedViewportTrendSnapshot& snapshot_;
    std::vector<TrendPoint> points_;
};

std::vector<FixedViewportTrendTickSnapshot> ticksFor(const FixedViewportTrendViewportDomain& domain,
                                                     TrendWindowMode mode) {
    const double window = trendWindowShape(mode).windowSeconds;
    const ClosedTimeRange visible{domain.visibleLowerBound(), domain.visibleUpperBound()};
    const auto dates = fixedViewportTrendXAxisTickDates(visible, mode);
    std::vector<FixedViewportTrendTickSnapshot> ticks;
    ticks.reserve(dates.size());
    const double w = domain.visibleWindowSeconds;
    for (Timestamp date : dates)
        ticks.push_back({date, FixedViewportTrendAxisLabels::text(date, window),
                         w > 0 ? (date - visible.lower) / w : 0.0});
    return ticks;
}

}  // namespace

FixedViewportTrendSnapshot fixedViewportTrendSnapshot(const TrendSnapshotInputs& in,
                                                      const GPUClockWindowAnalysis& gpuAnalysis,
                                                      const CPUClockWindowAnalysis& cpuAnalysis) {
    const auto windowShape = trendWindowShape(in.window);
    const auto domain = trendViewportDomain(in.referenceUpperBound, in.window);
    const ClosedTimeRange buffer{domain.bufferLowerBound(), in.referenceUpperBound};

    FixedViewportTrendSnapshot snapshot;
    snapshot.viewportDomain = domain;
    snapshot.liveRevealDurationSeconds = kFixedViewportBaseOffscreenWriteSeconds;
    snapshot.xAxisTicks = ticksFor(domain, in.window);

    const auto warnings = ThrottleWarningBandBuilder::spans(in.throttleHistory, buffer);
    snapshot.throttleBands =
        fixedViewportThrottleBands(mergedThrottleSpans(gpuAnalysis, cpuAnalysis, warnings), domain);

    snapshot.series.reserve(7);
    SeriesBuilder series(trendVisibleSamples(in.samples, buffer.lower, buffer.upper), domain,
                         windowShape.reducerBucketCount, snapshot);
    if (in.toggles.gpu) {
        series.addTemperature(SystemColor::red, &TelemetrySample::gpuTemperatureC);
        series.addScaled(SystemColor::green, &TelemetrySample::gpuClockMHz, in.maxima.gpuMHz);
    }
    if (in.toggles.cpu) {
        series.addTemperature(SystemColor::purple, &TelemetrySample::cpuTemperatureC);
        series.addScaled(SystemColor::blue, &TelemetrySample::cpuClockMHz, in.maxima.cpuMHz);
    }
    if (in.toggles.fan) {
        const double fanScale = in.maxima.fanRPM;
        series.add(SystemColor::cyan,
                   [fanScale](const TelemetrySample& s) -> std::optional<double> {
                       const double mean = meanFanRPM(s);
                       if (!(mean > 0)) return std::nullopt;
                       return trendPercentOfScale(mean, fanScale);
                   });
        // The preview shows what the loop would do; outside System mode it is doing it.
        if (in.runtimeMode == ControlMode::systemAuto) {
            std::vector<PreviewFanTrendPoint> kept;
            kept.reserve(in.previewPoints.size());
            for (const auto& p : in.previewPoints)
                if (buffer.contains(p.timestamp)) kept.push_back(p);
            FixedViewportTrendSeriesSnapshot preview;
            preview.color = trendRenderColor(SystemColor::withAlpha(SystemColor::cyan, 0.6));
            preview.dashPatternPixels = std::array<float, 2>{5, 6};
            preview.segments = fixedViewportTrendPreviewSegments(kept, domain, fanScale, in.window);
            snapshot.series.push_back(std::move(preview));
        }
    }
    if (in.toggles.power)
        series.addScaled(SystemColor::orange, &TelemetrySample::totalPowerW,
                         std::max(1.0, in.maxima.totalPowerW));
    return snapshot;
}

}  // namespace kelvo

#include "dashboard/TrendReadout.h"

#include <cmath>
#include <cstdio>

#include "dashboard/TrendVisibleSamples.h"
#include "foundation/chart/TrendAnalysis.h"
#include "foundation/core/FanController.h"

namespace kelvo {

namespace {

// The axis's own format for a window short enough to show seconds.
constexpr double kSecondsWindow = 60;

std::string formatted(const std::optional<double>& value, const char* format) {
    if (!value || !std::isfinite(*value)) return "not read";
    char out[32];
    std::snprintf(out, sizeof out, format, *value);
    return out;
}

// Each fan's speed, so that a stopped one stands out from a slow mean; a fan Kelvo holds still
// reads "stopped", as on the live card.
std::string fanText(const TelemetrySample& sample) {
    if (sample.fanCurrentRPM.empty()) return "not read";
    std::string text;
    bool anySpeed = false;
    for (std::size_t i = 0; i < sample.fanCurrentRPM.size(); ++i) {
        if (!text.empty()) text += ", ";
        if (i < sample.fanTargetRPM.size() && isFanStopTarget(sample.fanTargetRPM[i])) {
            text += "stopped";
            continue;
        }
        const double rpm = sample.fanCurrentRPM[i];
        text += isReadableRPM(rpm) ? formatted(rpm, "%.0f") : "not read";
        anySpeed = anySpeed || isReadableRPM(rpm);
    }
    return anySpeed ? text + " RPM" : text;
}

}  // namespace

std::optional<std::size_t> nearestTrendSampleIndex(std::span<const TelemetrySample> samples,
                                                   Timestamp time) {
    if (samples.empty() || !std::isfinite(time)) return std::nullopt;
    const std::size_t after = firstTrendSampleIndex(time, samples);
    std::size_t best = after < samples.size() ? after : samples.size() - 1;
    if (after > 0 && (after == samples.size() ||
                      time - samples[after - 1].timestamp < samples[after].timestamp - time))
        best = after - 1;
    if (std::abs(samples[best].timestamp - time) > kTrendReadoutMaxGapSeconds) return std::nullopt;
    return best;
}

std::optional<TrendReadout> trendReadout(std::span<const TelemetrySample> samples, Timestamp time,
                                         const TrendSeriesToggles& toggles) {
    const auto index = nearestTrendSampleIndex(samples, time);
    if (!index) return std::nullopt;
    const TelemetrySample& sample = samples[*index];
    TrendReadout readout{
        sample.timestamp, FixedViewportTrendAxisLabels::text(sample.timestamp, kSecondsWindow), {}};
    // The order of the chart's toggles.
    if (toggles.gpu) {
        readout.rows.push_back({"GPU Clock", formatted(sample.gpuClockMHz, "%.0f MHz")});
        readout.rows.push_back({"GPU Temp", formatted(sample.gpuTemperatureC, "%.0f °C")});
    }
    if (toggles.cpu) {
        readout.rows.push_back({"CPU Clock", formatted(sample.cpuClockMHz, "%.0f MHz")});
        readout.rows.push_back({"CPU Temp", formatted(sample.cpuTemperatureC, "%.0f °C")});
    }
    if (toggles.fan) readout.rows.push_back({"Fan Speed", fanText(sample)});
    if (toggles.power) readout.rows.push_back({"Watts", formatted(sample.totalPowerW, "%.1f W")});
    return readout;
}

}  // namespace kelvo

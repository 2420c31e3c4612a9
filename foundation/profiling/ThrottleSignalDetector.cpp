#include "foundation/profiling/ThrottleSignalDetector.h"

#include <algorithm>
#include <cmath>

#include "foundation/profiling/DroopSignal.h"

namespace kelvo {

namespace {

double valueOrZero(const std::optional<double>& value) {
    return value && std::isfinite(*value) ? *value : 0.0;
}

// The drop of a clock under its reference, as a fraction when the reference is usable; a
// missing clock reads as no drop rather than a total one.
double clockDrop(double reference, const std::optional<double>& clock) {
    if (!clock || !std::isfinite(*clock)) return 0.0;
    const double drop = reference >= 1.0 ? (reference - *clock) / reference : reference - *clock;
    return std::max(0.0, drop);
}

double hottest(const TelemetrySample& sample) {
    return std::max(valueOrZero(sample.cpuTemperatureC), valueOrZero(sample.gpuTemperatureC));
}

// Throttling needs heat: a sample well under the baseline's temperature is not throttled.
bool heatGate(const TelemetrySample& sample, const LearnedModel& baseline) {
    return valueOrZero(baseline.temperatureReferenceC) - ThrottleSignalDetector::kHeatGateMarginC <=
           hottest(sample);
}

}  // namespace

std::optional<ThrottleSignal> ThrottleSignalDetector::thermalPressure(
    const TelemetrySample& sample) {
    const auto level = sample.thermalPressure.value_or(ThermalPressureLevel::nominal);
    if (level != ThermalPressureLevel::serious && level != ThermalPressureLevel::critical) {
        lastThermalLevel_.reset();
        return std::nullopt;
    }
    // Once per level: a run that stays serious records it once, a move to critical again.
    if (lastThermalLevel_ == level) return std::nullopt;
    lastThermalLevel_ = level;
    return ThrottleSignal{"thermal_pressure", std::string(rawValue(level)), {}};
}

DroopReading ThrottleSignalDetector::droop(const TelemetrySample& sample,
                                           const LearnedModel& baseline) {
    DroopReading reading;
    reading.cpuDrop = clockDrop(valueOrZero(baseline.cpuReferenceClockMHz), sample.cpuClockMHz);
    reading.gpuDrop = clockDrop(valueOrZero(baseline.gpuReferenceClockMHz), sample.gpuClockMHz);
    const double cpuUtil = valueOrZero(sample.cpuUtilizationPct);
    const double gpuUtil = valueOrZero(sample.gpuUtilizationPct);
    reading.score =
        DroopSignal::peakAligned(reading.cpuDrop, reading.gpuDrop, cpuUtil, gpuUtil, 1.0);
    const bool loadGate = std::max(cpuUtil, gpuUtil) >= kLoadGateUtilizationPct &&
                          valueOrZero(sample.totalPowerW) >= kLoadGatePowerW;
    const bool drooping =
        reading.score >= kDroopScoreThreshold && loadGate && heatGate(sample, baseline);
    if (!drooping) {
        droopConsecutiveSamples_ = 0;
        droopEventLatched_ = false;
        return reading;
    }
    ++droopConsecutiveSamples_;
    // One event per uninterrupted streak: the latch holds until a sample breaks it.
    if (droopConsecutiveSamples_ >= kDroopStreakSamples && !droopEventLatched_) {
        droopEventLatched_ = true;
        reading.signal = ThrottleSignal{
            "freq_droop",
            "moderate",
            {{"score", reading.score}, {"cpuDrop", reading.cpuDrop}, {"gpuDrop", reading.gpuDrop}}};
    }
    return reading;
}

std::optional<ThrottleSignal> ThrottleSignalDetector::burstRamp(const TelemetrySample& sample,
                                                                const LearnedModel& baseline,
                                                                const DroopReading& droop) {
    if (!lastSample_) return std::nullopt;
    const TelemetrySample& prev = *lastSample_;
    // Samples closer than the floor would turn a small step into a huge rate.
    const double dt = std::max(kMinimumSampleSpacingSeconds, sample.timestamp - prev.timestamp);
    const double gpuRampRate =
        std::max(0.0, valueOrZero(sample.gpuClockMHz) - valueOrZero(prev.gpuClockMHz)) / dt;
    if (gpuRampRate < kBurstRampMHzPerSecond) return std::nullopt;
    const double gpuUtil = valueOrZero(sample.gpuUtilizationPct);
    const double utilRise = std::max(0.0, gpuUtil - valueOrZero(prev.gpuUtilizationPct));
    const double powerRamp =
        std::max(0.0, valueOrZero(sample.totalPowerW) - valueOrZero(prev.totalPowerW)) / dt;
    if (!(gpuUtil >= kBurstUtilizationPct || utilRise >= kBurstUtilizationRisePct))
        return std::nullopt;
    if (powerRamp < kBurstPowerRampWPerSecond) return std::nullopt;
    if (!heatGate(sample, baseline)) return std::nullopt;
    if (lastBurstAt_ && sample.timestamp - *lastBurstAt_ < kBurstSpacingSeconds)
        return std::nullopt;
    lastBurstAt_ = sample.timestamp;
    return ThrottleSignal{"burst_ramp",
                          "high",
                          {{"cpuDrop", droop.cpuDrop},
                           {"gpuDrop", droop.gpuDrop},
                           {"gpuRampMHzPerS", gpuRampRate},
                           {"powerRampWPerS", powerRamp}}};
}

std::vector<ThrottleSignal> ThrottleSignalDetector::evaluate(const TelemetrySample& sample,
                                                             const LearnedModel& baseline) {
    std::vector<ThrottleSignal> signals;
    if (auto thermal = thermalPressure(sample)) signals.push_back(std::move(*thermal));
    const DroopReading reading = droop(sample, baseline);
    if (reading.signal) signals.push_back(*reading.signal);
    if (auto burst = burstRamp(sample, baseline, reading)) signals.push_back(std::move(*burst));
    remember(sample);
    return signals;
}

void ThrottleSignalDetector::reset() {
    lastThermalLevel_.reset();
    droopConsecutiveSamples_ = 0;
    droopEventLatched_ = false;
    lastSample_.reset();
    lastBurstAt_.reset();
}

ProfilingRunEvent ThrottleSignalDetector::runEvent(const ThrottleSignal& signal,
                                                   const TelemetrySample& sample) {
    ProfilingRunEvent event;
    event.id = Uuid::generate();
    event.timestamp = sample.timestamp;
    event.kind = signal.kind;
    event.severity = signal.severity;
    auto add = [&event](const char* name, const std::optional<double>& value) {
        if (value && std::isfinite(*value)) event.values.emplace_back(name, *value);
    };
    add("cpuTemperatureC", sample.cpuTemperatureC);
    add("gpuTemperatureC", sample.gpuTemperatureC);
    add("cpuClockMHz", sample.cpuClockMHz);
    add("gpuClockMHz", sample.gpuClockMHz);
    add("cpuUtilizationPct", sample.cpuUtilizationPct);
    add("gpuUtilizationPct", sample.gpuUtilizationPct);
    add("totalPowerW", sample.totalPowerW);
    for (const auto& figure : signal.figures) event.values.push_back(figure);
    return event;
}

}  // namespace kelvo

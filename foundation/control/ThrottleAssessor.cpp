#include "foundation/control/ThrottleAssessor.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kelvo {

ThrottleAssessor::ThrottleAssessor(ThrottleAssessorConfig config) : config_(config) {}

bool ThrottleAssessor::DeficitTracker::update(Timestamp now, bool deficit, double sustain) {
    if (!deficit) {
        since.reset();
        return false;
    }
    if (!since) since = now;
    return now - *since >= sustain;
}

bool ThrottleAssessor::isHighLoad(const TelemetrySample& sample) const {
    auto util = sample.maxUtilizationPct();
    if (!util || *util < config_.highLoadUtilizationPct) return false;
    if (!sample.totalPowerW) return false;
    double threshold = config_.highLoadPowerW;
    if (machineHighLoadPowerW_) threshold = std::min(threshold, *machineHighLoadPowerW_);
    return *sample.totalPowerW >= threshold;
}

std::optional<double> ThrottleAssessor::cpuReferenceMHz() const {
    if (model_ && model_->cpuReferenceClockMHz) return model_->cpuReferenceClockMHz;
    return onlineCpuReferenceMHz_;
}

std::optional<double> ThrottleAssessor::gpuReferenceMHz() const {
    if (model_ && model_->gpuReferenceClockMHz) return model_->gpuReferenceClockMHz;
    return onlineGpuReferenceMHz_;
}

namespace {
std::string deficitText(const char* domain, double clock, double reference) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "%s clock %.0f MHz is %.0f%% under its %.0f MHz high-load reference", domain,
                  clock, (1 - clock / reference) * 100, reference);
    return text;
}
}  // namespace

ThrottleAssessment ThrottleAssessor::assess(const TelemetrySample& sample) {
    ThrottleAssessment result;
    result.highLoad = isHighLoad(sample);
    result.cpuClockMHz = sample.cpuClockMHz;
    result.gpuClockMHz = sample.gpuClockMHz;
    bool calm = !sample.thermalPressure || *sample.thermalPressure == ThermalPressureLevel::nominal;

    // Online references: the highest clock seen under load while the machine was not under
    // thermal pressure is what it can sustain when cooling keeps up.
    if (result.highLoad && calm) {
        if (sample.cpuClockMHz && *sample.cpuClockMHz > onlineCpuReferenceMHz_.value_or(0))
            onlineCpuReferenceMHz_ = sample.cpuClockMHz;
        if (sample.gpuClockMHz && *sample.gpuClockMHz > onlineGpuReferenceMHz_.value_or(0))
            onlineGpuReferenceMHz_ = sample.gpuClockMHz;
    }
    result.cpuReferenceMHz = cpuReferenceMHz();
    result.gpuReferenceMHz = gpuReferenceMHz();

    auto under = [&](const std::optional<double>& clock, const std::optional<double>& ref) {
        return result.highLoad && clock && ref && *ref > 0 &&
               *clock < *ref * (1 - config_.deficitFraction);
    };
    result.cpuClockDeficit =
        cpuDeficit_.update(sample.timestamp, under(sample.cpuClockMHz, result.cpuReferenceMHz),
                           config_.sustainSeconds);
    result.gpuClockDeficit =
        gpuDeficit_.update(sample.timestamp, under(sample.gpuClockMHz, result.gpuReferenceMHz),
                           config_.sustainSeconds);
    result.thermalPressureElevated =
        sample.thermalPressure && (*sample.thermalPressure == ThermalPressureLevel::serious ||
                                   *sample.thermalPressure == ThermalPressureLevel::critical);

    result.isWarning =
        result.cpuClockDeficit || result.gpuClockDeficit || result.thermalPressureElevated;
    if (result.cpuClockDeficit)
        result.reason = deficitText("CPU", *sample.cpuClockMHz, *result.cpuReferenceMHz);
    else if (result.gpuClockDeficit)
        result.reason = deficitText("GPU", *sample.gpuClockMHz, *result.gpuReferenceMHz);
    else if (result.thermalPressureElevated)
        result.reason = "Thermal pressure " + std::string(rawValue(*sample.thermalPressure));
    return result;
}

}  // namespace kelvo

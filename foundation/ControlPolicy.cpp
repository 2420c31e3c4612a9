#include "foundation/ControlPolicy.h"

#include <algorithm>
#include <cmath>

namespace kelvo {

namespace {
constexpr double kRiseGainPerDegreeSecond = 0.04;
constexpr double kFallGainPerDegreeSecond = 0.004;
constexpr double kMaxFallPerSecond = 0.02;
// Within this much over the setpoint the rise eases in (quadratically), so a degree of drift does
// not step the fans audibly; beyond it the full gain applies.
constexpr double kSoftRiseC = 2;
constexpr double kAnticipationDuty = 0.55;
// Quiet modes ramp the fans no faster than this: a slow ramp is heard as the machine working, a
// step as a noise. The limit at the hard edge still jumps.
constexpr double kQuietRiseRPMPerSecond = 120;
constexpr double kQuietRiseDutyWithoutSpeeds = 0.03;  // fans that report no range
constexpr double kPowerRiseWatts = 12;
constexpr double kTrendSeconds = 3;
// A burst shorter than this (opening an application, a page, a search) is not the sustained load
// anticipation is for: raising the fans for it only adds noise.
constexpr double kSustainedConfirmSeconds = 8;
}  // namespace

ControlPolicy::ControlPolicy(ControlLimits limits) : limits_(limits) {}

void ControlPolicy::reset(double duty) {
    duty_ = std::clamp(duty, 0.0, 1.0);
    sinceIncrease_ = 1e9;
    anticipationLeft_ = 0;
    powerTrend_.clear();
    highLoadSince_.reset();
    lastHighLoad_.reset();
    powerRoseUnderLoad_ = false;
    freshLoad_ = false;
}

double ControlPolicy::cpuLimit(ControlMode) const {
    return limits_.quietCpuLimitC;
}
double ControlPolicy::gpuLimit(ControlMode) const {
    return limits_.quietGpuLimitC;
}

// Positive when the hottest sensor is over the mode's setpoint, negative when under it.
double ControlPolicy::setpointExcess(ControlMode mode, const TelemetrySample& sample) const {
    double worst = -1e9;
    // An idle die sits close to its heatsink; a burst lifts it by its full power over the
    // die-to-sink resistance within a second or two, faster than any fan can answer. So the
    // less busy the machine, the further under the limit quiet keeps it.
    const double idleShare =
        1.0 - std::clamp(sample.maxUtilizationPct().value_or(100.0) / 100.0, 0.0, 1.0);
    const double reserve = limits_.quietBurstReserveC * idleShare;
    auto consider = [&](const std::optional<double>& temp, double limit) {
        if (!temp) return;
        double setpoint = mode == ControlMode::performance
                              ? std::min(limits_.performanceTargetC, limit)
                              : limit - limits_.quietSetpointMarginC - reserve;
        worst = std::max(worst, *temp - setpoint);
    };
    consider(sample.cpuTemperatureC, limits_.quietCpuLimitC);
    consider(sample.gpuTemperatureC, limits_.quietGpuLimitC);
    return worst;
}

// Duty per second that moves the widest fan by the quiet ramp.
double ControlPolicy::quietRiseLimit(const TelemetrySample& sample) const {
    double span = 0;
    const std::size_t fans = std::min(sample.fanMinRPM.size(), sample.fanMaxRPM.size());
    for (std::size_t i = 0; i < fans; ++i)
        span = std::max(span, sample.fanMaxRPM[i] - sample.fanMinRPM[i]);
    return span > 0 ? kQuietRiseRPMPerSecond / span : kQuietRiseDutyWithoutSpeeds;
}

bool ControlPolicy::predictsSustainedLoad(const TelemetrySample& sample,
                                          const AdaptiveLeadModel& model) {
    if (sample.totalPowerW) powerTrend_.emplace_back(sample.timestamp, *sample.totalPowerW);
    while (!powerTrend_.empty() && sample.timestamp - powerTrend_.front().first > kTrendSeconds)
        powerTrend_.pop_front();
    auto util = sample.maxUtilizationPct();
    if (!util || *util < model.utilizationThresholdPct) {
        highLoadSince_.reset();
        powerRoseUnderLoad_ = false;
        return false;
    }
    if (!highLoadSince_) {
        highLoadSince_ = sample.timestamp;
        // A pause shorter than the lead (a link step, a loading screen) leaves the heat of the
        // load before it in place: the same workload goes on, and it was anticipated already.
        const double leadSeconds = model.averageLeadMs / 1000.0;
        freshLoad_ = !lastHighLoad_ || sample.timestamp - *lastHighLoad_ > leadSeconds;
    }
    lastHighLoad_ = sample.timestamp;
    if (powerTrend_.size() >= 2 &&
        powerTrend_.back().second - powerTrend_.front().second >= kPowerRiseWatts)
        powerRoseUnderLoad_ = true;
    return freshLoad_ && powerRoseUnderLoad_ &&
           sample.timestamp - *highLoadSince_ >= kSustainedConfirmSeconds - 1e-9;
}

// Anticipation lifts the integrator itself, so when it ends the fans come down by the same slow
// rules as after any rise instead of dropping back audibly. A load that falls away before the
// window is over ends it early: the prediction missed.
void ControlPolicy::anticipate(const TelemetrySample& sample, double dt,
                               const AdaptiveLeadModel& model, PolicyOutput& out) {
    if (predictsSustainedLoad(sample, model)) {
        // One window per rise: a load that simply stays high does not keep renewing it.
        powerRoseUnderLoad_ = false;
        anticipationLeft_ = std::max(anticipationLeft_, model.averageLeadMs / 1000.0 + 5);
    }
    if (!highLoadSince_) anticipationLeft_ = 0;
    if (anticipationLeft_ <= 0) return;
    anticipationLeft_ -= dt;
    sinceIncrease_ = 0;
    if (duty_ < kAnticipationDuty) {
        duty_ = std::min(kAnticipationDuty, duty_ + quietRiseLimit(sample) * dt);
        out.duty = duty_;
        out.anticipating = true;
        out.reason = "anticipating sustained load";
    } else if (out.reason == "holding" || out.reason == "below setpoint") {
        out.anticipating = true;
        out.reason = "anticipating sustained load";
    }
}

PolicyOutput ControlPolicy::decide(ControlMode mode, const TelemetrySample& sample, double dt,
                                   const std::optional<AdaptiveLeadModel>& leadModel) {
    PolicyOutput out;
    dt = std::clamp(dt, 0.0, 5.0);
    sinceIncrease_ += dt;
    double excess = setpointExcess(mode, sample);
    if (excess <= -1e8) {
        // No temperature at all: run at a safe middle speed rather than guess.
        duty_ = std::max(duty_, 0.6);
        out.duty = duty_;
        out.reason = "no temperature readings";
        return out;
    }
    double riseGain =
        mode == ControlMode::performance ? 2 * kRiseGainPerDegreeSecond : kRiseGainPerDegreeSecond;
    if (excess > 0) {
        const double eased = excess * std::min(1.0, excess / kSoftRiseC);
        double rise = riseGain * eased * dt;
        if (mode != ControlMode::performance) rise = std::min(rise, quietRiseLimit(sample) * dt);
        duty_ = std::min(1.0, duty_ + rise);
        sinceIncrease_ = 0;
        out.reason = "above setpoint";
    } else if (excess < -limits_.hysteresisC && sinceIncrease_ >= limits_.decreaseHoldSeconds) {
        // Measured from the band's lower edge: the fans settle just under the band instead of
        // sliding through it and coming back up with a second audible change.
        double under = -excess - limits_.hysteresisC;
        double fall = std::min(kMaxFallPerSecond, kFallGainPerDegreeSecond * under) * dt;
        duty_ = std::max(0.0, duty_ - fall);
        out.reason = "below setpoint";
    } else {
        out.reason = "holding";
    }
    // Close to the hard limit the integrator may be too slow: jump.
    double hardExcess = -1e9;
    if (sample.cpuTemperatureC)
        hardExcess = std::max(hardExcess, *sample.cpuTemperatureC - limits_.quietCpuLimitC);
    if (sample.gpuTemperatureC)
        hardExcess = std::max(hardExcess, *sample.gpuTemperatureC - limits_.quietGpuLimitC);
    if (hardExcess > -1.0 && duty_ < 0.85) {
        duty_ = 0.85;
        sinceIncrease_ = 0;
        out.reason = "at limit";
    }

    out.duty = duty_;
    if (mode == ControlMode::quietHybrid && leadModel) anticipate(sample, dt, *leadModel, out);
    return out;
}

}  // namespace kelvo

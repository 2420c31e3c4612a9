#include "foundation/ControlPolicy.h"

#include <algorithm>
#include <cmath>

namespace kelvo {

namespace {
constexpr double kRiseGainPerDegreeSecond = 0.04;
constexpr double kFallGainPerDegreeSecond = 0.004;
constexpr double kMaxFallPerSecond = 0.02;
constexpr double kAnticipationDuty = 0.55;
constexpr double kPowerRiseWatts = 12;
constexpr double kTrendSeconds = 3;
}  // namespace

ControlPolicy::ControlPolicy(ControlLimits limits) : limits_(limits) {}

void ControlPolicy::reset(double duty) {
    duty_ = std::clamp(duty, 0.0, 1.0);
    sinceIncrease_ = 1e9;
    anticipationLeft_ = 0;
    powerTrend_.clear();
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
    auto consider = [&](const std::optional<double>& temp, double limit) {
        if (!temp) return;
        double setpoint = mode == ControlMode::performance
                              ? std::min(limits_.performanceTargetC, limit)
                              : limit - limits_.quietSetpointMarginC;
        worst = std::max(worst, *temp - setpoint);
    };
    consider(sample.cpuTemperatureC, limits_.quietCpuLimitC);
    consider(sample.gpuTemperatureC, limits_.quietGpuLimitC);
    return worst;
}

bool ControlPolicy::predictsSustainedLoad(const TelemetrySample& sample,
                                          const AdaptiveLeadModel& model) {
    if (sample.totalPowerW) powerTrend_.emplace_back(sample.timestamp, *sample.totalPowerW);
    while (!powerTrend_.empty() && sample.timestamp - powerTrend_.front().first > kTrendSeconds)
        powerTrend_.pop_front();
    auto util = sample.maxUtilizationPct();
    if (!util || *util < model.utilizationThresholdPct || powerTrend_.size() < 2) return false;
    return powerTrend_.back().second - powerTrend_.front().second >= kPowerRiseWatts;
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
        duty_ = std::min(1.0, duty_ + riseGain * excess * dt);
        sinceIncrease_ = 0;
        out.reason = "above setpoint";
    } else if (excess < -limits_.hysteresisC && sinceIncrease_ >= limits_.decreaseHoldSeconds) {
        double fall = std::min(kMaxFallPerSecond, kFallGainPerDegreeSecond * -excess) * dt;
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
    if (mode == ControlMode::quietHybrid && leadModel) {
        if (predictsSustainedLoad(sample, *leadModel))
            anticipationLeft_ = std::max(anticipationLeft_, leadModel->averageLeadMs / 1000.0 + 5);
        if (anticipationLeft_ > 0) {
            anticipationLeft_ -= dt;
            if (out.duty < kAnticipationDuty) {
                out.duty = kAnticipationDuty;
                out.anticipating = true;
                out.reason = "anticipating sustained load";
            }
        }
    }
    return out;
}

}  // namespace kelvo

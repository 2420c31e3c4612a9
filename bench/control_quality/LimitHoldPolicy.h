// Reference, not a baseline: a fast PID that holds whichever die is closest to its own quiet limit
// just under that limit. It reacts after the fact, so bursts carry it over the limits now and
// then: its mean speed is an optimistic floor for any controller that keeps the quiet limits, and
// shows how far under a baseline such a controller can go at all.
#pragma once

#include <optional>

#include "BaselinePolicy.h"
#include "PidLoop.h"

namespace kelvo::quality {

struct LimitHoldSettings {
    double cpuLimitC = 88;
    double gpuLimitC = 85;
    double marginC = 0.5;
    double kp = 0.15;
    double ki = 0.01;
    double kd = 0.1;
};

class LimitHoldPolicy : public BaselinePolicy {
public:
    explicit LimitHoldPolicy(LimitHoldSettings settings = {})
        : settings_(settings), loop_(settings.kp, settings.ki, settings.kd) {}
    std::string name() const override { return "limit-hold"; }
    std::string parameters() const override;
    double duty(const TelemetrySample& sample, double dt) override;

private:
    std::optional<double> error(const TelemetrySample& sample) const;

    LimitHoldSettings settings_;
    PidLoop loop_;
};

}  // namespace kelvo::quality

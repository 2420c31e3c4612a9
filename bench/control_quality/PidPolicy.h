// Baseline: a PID controller on the CPU temperature towards a setpoint, with the output clamped
// to the fan range and the integral frozen while the output is saturated (anti-windup).
#pragma once

#include "BaselinePolicy.h"
#include "PidLoop.h"

namespace kelvo::quality {

struct PidGains {
    double setpointC = 75;
    double kp = 0.06;   // duty per degree
    double ki = 0.004;  // duty per degree-second
    double kd = 0.05;   // duty per degree/second
};

class PidPolicy : public BaselinePolicy {
public:
    explicit PidPolicy(PidGains gains = {}) : gains_(gains), loop_(gains.kp, gains.ki, gains.kd) {}
    std::string name() const override { return "pid"; }
    std::string parameters() const override;
    double duty(const TelemetrySample& sample, double dt) override;

private:
    PidGains gains_;
    PidLoop loop_;
};

}  // namespace kelvo::quality

// A fan for the curve-learning tests, driven once a second by FanCurveLearner::dutyFor on a
// clock the test steps: it follows its last duty with a one-second lag, and may stop below a
// duty and need a higher one to start again.
#pragma once

#include <chrono>
#include <cmath>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "foundation/fans/FanCurveLearner.h"

namespace kelvo::test_support {

using namespace std::chrono_literals;

// Stalls below duty 40 and flattens out near the top, like most case fans: nothing like the
// straight line the linear map assumes.
inline double curvedFanSpeedAt(int duty) {
    if (duty < 40) return 0;
    return 2400.0 * std::sqrt((duty - 40) / 215.0) + 450.0 * (1.0 - (duty - 40) / 215.0);
}

struct ManualClock {
    FanCurveLearner::Clock::time_point now{std::chrono::hours(1)};
    FanCurveLearner::Now function() {
        return [this] { return now; };
    }
};

struct MemoryStore {
    std::map<std::string, FanCurve> curves;
    int saves = 0;
    FanCurveStore store() {
        return {[this](const std::string& id) -> std::optional<FanCurve> {
                    const auto it = curves.find(id);
                    if (it == curves.end()) return std::nullopt;
                    return it->second;
                },
                [this](const std::string& id, const FanCurve& curve) {
                    curves[id] = curve;
                    ++saves;
                    return true;
                }};
    }
};

// The fan's physics: below stopBelow a turning fan comes to rest; at rest it needs startDuty.
struct ModelFan {
    double (*speedAt)(int) = curvedFanSpeedAt;
    int stopBelow = 40;
    int startDuty = 40;
    bool atRest = false;
    bool stuck = false;  // a jammed rotor: never turns

    double respond(int duty) {
        if (duty < stopBelow) atRest = true;
        if (duty >= startDuty) atRest = false;
        if (stuck || atRest) return 0;
        return speedAt(duty);
    }
};

struct Rig {
    ManualClock clock;
    MemoryStore memory;
    FanCurveLearner learner{clock.function()};
    ModelFan fan;
    std::optional<double> speed = 900;
    int duty = 0;
    std::vector<int> duties;
    double maxRPM = 2400;

    int tick(double target) {
        duty = learner.dutyFor("fan", target, speed, 0, maxRPM);
        duties.push_back(duty);
        clock.now += 1s;
        if (speed) speed = fan.respond(duty);
        return duty;
    }
    // Ticks at the fan's minimum as the back-end reports it (the engine's lowest target).
    int tickAtMinimum() {
        const auto min = learner.report("fan").minRPM;
        return tick(min ? *min : 1);
    }
};

}  // namespace kelvo::test_support

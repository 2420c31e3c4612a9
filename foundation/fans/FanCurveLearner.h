// Learns how fast each fan turns at each duty cycle, once, so that RPM targets become the duty
// cycles that really give them. Fans differ too much for one linear map: many stop below a
// third of full duty, and most reach near their top speed well before 255.
//
// The learning is a sweep from full duty downwards, one step at a time, each held until the
// speed settles. It starts only at a calm moment (a modest target), never slows a fan the
// control loop is asking to speed up (a rising target abandons the sweep and retries later),
// and ends at the first step where the fan stops. The result is stored, so a fan is swept once;
// without a store nothing is swept and the linear map stands.
//
// Not thread-safe: the fan back-ends call it under their own lock.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/core/FanController.h"

namespace kelvo {

// The lowest duty cycle whose speed on the curve reaches `targetRPM`, interpolated between the
// learned points; full duty above the curve's top speed, the lowest duty that still turns the fan
// below its bottom speed. None when the curve has fewer than two points where the fan turns, or
// its speeds hardly differ (a tach that does not follow the duty cycle).
std::optional<int> dutyForRPMOnCurve(const FanCurve& curve, double targetRPM);

class FanCurveLearner {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr int kSweepDuties[] = {255, 204, 166, 128, 102, 77, 51, 38, 26};
    // A step's speed is read once it changes by less than this between two calls...
    static constexpr double kSettledFraction = 0.03;
    static constexpr double kSettledRPM = 30;
    // ...but no sooner than this after the write, and no later than the longest wait.
    static constexpr std::chrono::milliseconds kMinimumSettle{2000};
    static constexpr std::chrono::milliseconds kLongestSettle{8000};
    // A sweep starts only when the target is at most this share of the fan's top speed.
    static constexpr double kCalmShareOfMax = 0.7;
    // A target this much above the one the sweep started with abandons it.
    static constexpr double kRiseShare = 1.25;
    static constexpr double kRiseRPM = 100;
    static constexpr std::chrono::minutes kRetryAfterAbandon{5};
    // Used as the top speed when the driver reports none.
    static constexpr double kAssumedMaxRPM = 5000;

    using Now = std::function<Clock::time_point()>;
    explicit FanCurveLearner(Now now = Clock::now) : now_(std::move(now)) {}

    void setStore(FanCurveStore store);

    // The duty cycle to write for a positive target on a controllable fan: the sweep's step
    // while one runs, else the learned curve's duty, else the linear map between the fan's
    // minimum and maximum speeds. `measuredRPM` is the speed read in the same round.
    int dutyFor(const std::string& identity, double targetRPM, std::optional<double> measuredRPM,
                double minRPM, double maxRPM);

    // The fan went back to the firmware: a sweep in progress is abandoned (without the
    // retry delay: nothing went wrong with the fan).
    void released(const std::string& identity);

    std::optional<FanCurve> curve(const std::string& identity);
    bool sweeping(const std::string& identity) const;

    static int linearDuty(double targetRPM, double minRPM, double maxRPM);

private:
    struct Sweep {
        std::size_t step = 0;
        Clock::time_point stepStart;
        std::optional<double> previousReading;
        double startTarget = 0;
        FanCurve points;
    };
    struct FanLearning {
        bool loaded = false;
        std::optional<FanCurve> curve;
        std::optional<Sweep> sweep;
        std::optional<Clock::time_point> retryAt;
        bool unlearnable = false;  // no speed reading: nothing to learn from
    };

    FanLearning& learning(const std::string& identity);
    bool shouldStartSweep(const FanLearning& fan, double targetRPM, double maxRPM,
                          Clock::time_point now) const;
    // Advances the running sweep; true while it goes on.
    bool advance(const std::string& identity, FanLearning& fan, double targetRPM,
                 std::optional<double> measuredRPM, Clock::time_point now);
    void finish(const std::string& identity, FanLearning& fan);

    Now now_;
    FanCurveStore store_;
    std::map<std::string, FanLearning> fans_;
};

}  // namespace kelvo

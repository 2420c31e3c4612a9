// Learns how fast each fan turns at each duty cycle while it works, so that RPM targets become
// the duty cycles that really give them. Fans differ too much for one linear map: many stop
// below a third of full duty, and most reach near their top speed well before 255.
//
// Nothing is swept to learn: a point is taken whenever a duty has been held long enough for
// the speed to settle, whether Kelvo set that duty or the firmware did (pwmN reads the
// firmware's duty in automatic mode). The fan's low end is learned the same way: the lowest
// duty it was seen turning at, the duty a turning fan came to rest at, the lowest duty that
// started it again. While the control asks for the fan's minimum and the low end is not known
// closely, the duty is walked down a step at a time (quieter, never louder). What is learned
// is stored. A full calibration (the old sweep) runs only when asked for.
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
#include "foundation/fans/FanCalibration.h"
#include "foundation/fans/FanKnowledge.h"

namespace kelvo {

class FanCurveLearner {
public:
    using Clock = std::chrono::steady_clock;

    // A duty's speed is taken once it changes by less than this between two readings...
    static constexpr double kSettledFraction = 0.03;
    static constexpr double kSettledRPM = 30;
    // ...and the duty has been held at least this long.
    static constexpr std::chrono::milliseconds kMinimumSettle{2000};
    // Walking the low end down goes in steps this large, and stops once the duty a fan rests
    // at is known within one step of the lowest it turns at.
    static constexpr int kProbeStep = 8;
    // ...and no faster than this, in dB a second (the fan law: 50·log10 of the speed). Near its
    // bottom a slow fan loses 1.5 dB a step: at a step every 3 s, two of them made 3 dB within
    // 5 s, and a fan walked down from its start kick was heard slowing. At this pace such steps
    // come 5 s apart.
    static constexpr double kWalkDbPerSecond = 0.3;
    // A restart kick lasts until the fan turns, at most this long.
    static constexpr std::chrono::milliseconds kLongestKick{3000};
    // The kick for a fan whose start duty is unknown: about 45 %, which starts nearly any fan.
    static constexpr int kConservativeStartDuty = 115;
    // A fan at rest at a higher duty than this is stalled, not stopped.
    static constexpr int kHighestPlausibleStopDuty = 102;
    // What was learned is written at most this often (and at once after a calibration).
    static constexpr std::chrono::seconds kSaveInterval{30};
    // Used as the top speed when the driver reports none.
    static constexpr double kAssumedMaxRPM = 5000;

    using Now = std::function<Clock::time_point()>;
    explicit FanCurveLearner(Now now = Clock::now) : now_(std::move(now)) {}

    void setStore(FanCurveStore store);

    // The duty cycle to write for a target on a fan Kelvo holds: a positive target (mapped
    // through what is learned, with a start kick for a fan at rest), or kFanStopRPM (the duty
    // it rests at). `measuredRPM` is the speed read in the same round; the time is the tick's
    // (the injected clock).
    int dutyFor(const std::string& identity, double targetRPM, std::optional<double> measuredRPM,
                double minRPM, double maxRPM);
    // The duty actually written was `duty`, not dutyFor()'s (a floor raised it): what is
    // measured next is learned against it.
    void wrote(const std::string& identity, int duty);
    // A fan Kelvo does not hold, read while the firmware drives it: `duty` is what pwmN reads.
    void observeFirmware(const std::string& identity, std::optional<int> duty,
                         std::optional<double> measuredRPM);

    // The fan went back to the firmware (or away): a walk, kick or calibration in progress
    // ends; a calibration says why.
    void released(const std::string& identity);

    // What the back-ends report beside the speed read. The minimum reported is remembered: a
    // target at it asks for the fan's minimum.
    struct Report {
        std::optional<double> minRPM;  // the lowest turning speed, once a curve is usable
        std::optional<double> maxRPM;  // the top speed, once seen at full duty
        bool canStop = false;
        bool firmwareStops = false;
    };
    Report report(const std::string& identity);

    // A calibration of a fan Kelvo holds; false (with why) while one is running for it.
    bool startCalibration(const std::string& identity, double currentTargetRPM, std::string* why);
    std::optional<FanCalibrationStatus> calibrationStatus(const std::string& identity) const;
    bool calibrating(const std::string& identity) const;

    // The stored form of what is learned (see FanKnowledge.h); none while nothing is.
    std::optional<FanCurve> curve(const std::string& identity);

    static int linearDuty(double targetRPM, double minRPM, double maxRPM);

private:
    struct Settle {
        int duty = 0;
        bool automatic = false;
        Clock::time_point since;
        std::optional<double> lastRPM;
        bool recorded = false;
        bool fromRest = false;  // the fan was at rest when this duty was set
    };
    struct Kick {
        int duty = 0;
        Clock::time_point until;
    };
    struct FanLearning {
        bool loaded = false;
        FanKnowledge knowledge;
        std::optional<Settle> settle;
        std::optional<bool> turning;  // last seen: turning or at rest
        std::optional<int> written;   // Kelvo's last duty, while it holds the fan
        std::optional<Kick> kick;
        bool kickTried = false;  // in this rest: one kick per rest, so a stall stays visible
        std::optional<int> probe;
        // Where the last step down of the walk began: when, and the speed read then.
        std::optional<std::pair<Clock::time_point, double>> stepFrom;
        std::optional<double> reportedMin;  // the minimum speed last reported to the engine
        bool seenResting = false;
        bool seenFirmwareResting = false;
        std::optional<FanCalibration> calibration;
        bool dirty = false;
        std::optional<Clock::time_point> savedAt;
    };

    FanLearning& learning(const std::string& identity);
    void observe(FanLearning& fan, int duty, double rpm, bool automatic, Clock::time_point now);
    void record(FanLearning& fan, const Settle& settle, double rpm);
    // The fan came to rest at this duty, under Kelvo.
    static void learnStop(FanLearning& fan, int duty);
    int mappedDuty(const FanLearning& fan, double targetRPM, double minRPM, double maxRPM) const;
    std::optional<int> probeDuty(FanLearning& fan, double targetRPM, double measuredRPM,
                                 Clock::time_point now);
    std::optional<int> calibrationDuty(const std::string& identity, FanLearning& fan,
                                       double targetRPM, std::optional<double> measuredRPM,
                                       double minRPM, Clock::time_point now);
    void maybeSave(const std::string& identity, FanLearning& fan, Clock::time_point now,
                   bool immediately = false);

    Now now_;
    FanCurveStore store_;
    std::map<std::string, FanLearning> fans_;
};

}  // namespace kelvo

#include "foundation/fans/FanCurveLearner.h"

#include <algorithm>
#include <cmath>

namespace kelvo {

namespace {

constexpr double kMaxDuty = 255;
// A target within this share of the lowest turning speed asks for the fan's minimum.
constexpr double kAtMinimumShare = 1.01;

bool settledBetween(double previous, double now) {
    return std::abs(now - previous) <=
           std::max(FanCurveLearner::kSettledRPM, FanCurveLearner::kSettledFraction * now);
}

}  // namespace

int FanCurveLearner::linearDuty(double targetRPM, double minRPM, double maxRPM) {
    const double max = maxRPM > 0 ? maxRPM : kAssumedMaxRPM;
    const double min = minRPM > 0 && minRPM < max ? minRPM : 0;
    if (!std::isfinite(targetRPM)) return targetRPM > 0 ? 255 : 0;
    const double duty = std::round(kMaxDuty * (targetRPM - min) / (max - min));
    return static_cast<int>(std::clamp(duty, 0.0, kMaxDuty));
}

void FanCurveLearner::setStore(FanCurveStore store) {
    store_ = std::move(store);
    // What the database holds is merged under what this session has seen already.
    for (auto& [identity, fan] : fans_) fan.loaded = false;
}

FanCurveLearner::FanLearning& FanCurveLearner::learning(const std::string& identity) {
    FanLearning& fan = fans_[identity];
    if (!fan.loaded && store_.load) {
        fan.loaded = true;
        if (auto stored = store_.load(identity)) {
            FanKnowledge merged = FanKnowledge::fromCurve(*stored);
            const FanKnowledge& seen = fan.knowledge;
            if (seen.stopsAt) merged.noteStopped(*seen.stopsAt);
            for (const auto& [duty, rpm] : seen.turning) merged.noteTurning(duty, rpm);
            if (seen.startsAt) merged.noteStarted(*seen.startsAt);
            fan.knowledge = std::move(merged);
        }
    }
    return fan;
}

void FanCurveLearner::observe(FanLearning& fan, int duty, double rpm, bool automatic,
                              Clock::time_point now) {
    rpm = std::max(0.0, rpm);
    // A tachometer reads 0 only once the rotor is still (a fan spinning down still reads its
    // speed), so a fan the firmware holds at rest at a low duty is known to stop at the first
    // reading. Waiting for it to settle would let Kelvo spin up, on its first tick, a fan the
    // firmware had stopped.
    if (automatic && rpm <= 0 && duty <= kHighestPlausibleStopDuty) {
        fan.seenResting = true;
        fan.seenFirmwareResting = true;
    }
    // So, under Kelvo's own duty, a fan that was turning and reads still has stopped at it.
    // Waiting for that reading to settle would let the start kick spin the fan up first, and the
    // walk down the low end would step to the same duty again, stopping and starting it every
    // few seconds.
    if (!automatic && rpm <= 0 && fan.turning.value_or(false) &&
        duty <= kHighestPlausibleStopDuty) {
        const FanKnowledge before = fan.knowledge;
        learnStop(fan, duty);
        if (!(fan.knowledge == before)) fan.dirty = true;
    }
    if (!fan.settle || fan.settle->duty != duty || fan.settle->automatic != automatic) {
        fan.settle =
            Settle{duty, automatic, now, rpm, false, fan.turning.has_value() && !*fan.turning};
        if (rpm > 0) fan.turning = true;
        return;
    }
    Settle& settle = *fan.settle;
    const bool settled = now - settle.since >= kMinimumSettle && settle.lastRPM &&
                         settledBetween(*settle.lastRPM, rpm);
    settle.lastRPM = rpm;
    if (rpm > 0) fan.turning = true;
    if (!settled || settle.recorded) return;
    settle.recorded = true;
    record(fan, settle, rpm);
}

void FanCurveLearner::record(FanLearning& fan, const Settle& settle, double rpm) {
    FanKnowledge& knowledge = fan.knowledge;
    const FanKnowledge before = knowledge;
    if (rpm > 0) {
        knowledge.noteTurning(settle.duty, rpm);
        // Only Kelvo's own duty tells a start duty: firmware kicks its fans by itself.
        if (settle.fromRest && !settle.automatic) knowledge.noteStarted(settle.duty);
    } else if (settle.duty <= kHighestPlausibleStopDuty) {
        fan.seenResting = true;
        if (settle.automatic) fan.seenFirmwareResting = true;
        // A duty that stopped a turning fan; one that merely failed to start it says nothing
        // about where it stops.
        if (!settle.fromRest) learnStop(fan, settle.duty);
        fan.turning = false;
    } else {
        fan.turning = false;  // at rest at a high duty: a stall, nothing to learn
    }
    if (!(knowledge == before)) fan.dirty = true;
}

void FanCurveLearner::learnStop(FanLearning& fan, int duty) {
    fan.knowledge.noteStopped(duty);
    fan.seenResting = true;
    fan.turning = false;
}

void FanCurveLearner::observeFirmware(const std::string& identity, std::optional<int> duty,
                                      std::optional<double> measuredRPM) {
    FanLearning& fan = learning(identity);
    const Clock::time_point now = now_();
    fan.written.reset();
    if (duty && measuredRPM && *duty >= 0 && *duty <= 255)
        observe(fan, *duty, *measuredRPM, true, now);
    maybeSave(identity, fan, now);
}

int FanCurveLearner::mappedDuty(const FanLearning& fan, double targetRPM, double minRPM,
                                double maxRPM) const {
    const FanKnowledge& knowledge = fan.knowledge;
    const FanCurve curve = knowledge.turningCurve();
    const std::optional<int> onCurve = dutyForRPMOnCurve(curve, targetRPM);
    int duty = onCurve.value_or(linearDuty(targetRPM, minRPM, maxRPM));
    // A curve learned while the fan worked ends at the fastest duty it has run at so far, not at
    // full duty: above it, head for the fan's top speed at 255 instead of jumping there.
    if (onCurve && curve.back().first < kMaxDuty && std::isfinite(targetRPM)) {
        const double topDuty = curve.back().first;
        double topRPM = 0;
        for (const auto& point : curve) topRPM = std::max(topRPM, point.second);
        if (targetRPM > topRPM) {
            const double ceiling = std::max(maxRPM > 0 ? maxRPM : kAssumedMaxRPM, topRPM + 1);
            const double share = std::min(1.0, (targetRPM - topRPM) / (ceiling - topRPM));
            duty = static_cast<int>(std::ceil(topDuty + share * (kMaxDuty - topDuty)));
        }
    }
    // Never under what has been seen to keep the fan turning (the lowest duty it settled at,
    // or one that started it), nor at a duty it came to rest at.
    std::optional<int> turns = knowledge.lowestTurningDuty();
    if (knowledge.startsAt) turns = std::min(turns.value_or(255), *knowledge.startsAt);
    if (turns) duty = std::max(duty, *turns);
    if (knowledge.stopsAt) duty = std::max(duty, *knowledge.stopsAt + 1);
    return std::clamp(duty, 0, 255);
}

std::optional<int> FanCurveLearner::probeDuty(FanLearning& fan, double targetRPM,
                                              double measuredRPM, Clock::time_point now) {
    const FanKnowledge& knowledge = fan.knowledge;
    const auto lowest = knowledge.lowestTurningDuty();
    if (!lowest || !(measuredRPM > 0)) {
        fan.probe.reset();
        return std::nullopt;
    }
    // The engine's lowest target is the minimum speed reported for the fan: that asks for the
    // fan's minimum, which may lie lower still. A target under every speed seen asks for a
    // lower duty than any known, too.
    const bool askedForMinimum = fan.reportedMin && targetRPM <= *fan.reportedMin * kAtMinimumShare;
    const bool underEverySpeed = targetRPM < *knowledge.lowestTurningRPM() / kAtMinimumShare;
    if (!askedForMinimum && !underEverySpeed) {
        fan.probe.reset();
        return std::nullopt;
    }
    // A step under way is held until its speed is taken (it then is the lowest turning point,
    // or the fan came to rest and the stop is known).
    if (fan.probe && fan.settle && fan.settle->duty == *fan.probe && !fan.settle->recorded &&
        !fan.settle->automatic)
        return fan.probe;
    fan.probe.reset();
    const int floor = knowledge.stopsAt ? *knowledge.stopsAt + 1 : 0;
    const int gap = *lowest - floor;
    const bool known = gap <= 0 || (knowledge.stopsAt && gap < kProbeStep);
    // Only from the lowest duty itself, settled under Kelvo: a step down from there is quieter
    // than what the fan does now.
    const bool settledThere =
        fan.settle && fan.settle->duty == *lowest && fan.settle->recorded && !fan.settle->automatic;
    // The fan has slowed since the last step began no faster than a walk may.
    const bool paced = [&] {
        if (!fan.stepFrom || !(fan.stepFrom->second > measuredRPM)) return true;
        const double seconds = std::chrono::duration<double>(now - fan.stepFrom->first).count();
        return 50 * std::log10(fan.stepFrom->second / measuredRPM) <= kWalkDbPerSecond * seconds;
    }();
    if (!known && settledThere && paced) {
        fan.probe = std::max(floor, *lowest - kProbeStep);
        fan.stepFrom = std::pair{now, measuredRPM};
        return fan.probe;
    }
    // The minimum is the lowest duty seen to keep the fan turning.
    return *lowest;
}

std::optional<int> FanCurveLearner::calibrationDuty(const std::string& identity, FanLearning& fan,
                                                    double targetRPM,
                                                    std::optional<double> measuredRPM,
                                                    double minRPM, Clock::time_point now) {
    if (!fan.calibration || !fan.calibration->running()) return std::nullopt;
    // A stop asked for during a calibration is no reason to end it: it goes down anyway. Nor is
    // the fan's slowest speed (the stop gate starting a stopped fan): only more air than that is.
    // The engine's minimum is the one reported to it a tick ago, which a step of the sweep may
    // since have lowered.
    double slowest = std::max(minRPM, fan.reportedMin.value_or(0));
    if (auto lowest = fan.knowledge.lowestTurningRPM()) slowest = std::max(slowest, *lowest);
    const bool atSlowest = slowest > 0 && targetRPM <= slowest * kAtMinimumShare;
    const double target = isFanStopTarget(targetRPM) || atSlowest ? 0 : targetRPM;
    if (auto duty = fan.calibration->advance(target, measuredRPM, now)) return duty;
    if (fan.calibration->status(now).succeeded.value_or(false)) {
        fan.knowledge = fan.calibration->result();
        fan.dirty = true;
        fan.probe.reset();
        maybeSave(identity, fan, now, true);
    }
    return std::nullopt;
}

int FanCurveLearner::dutyFor(const std::string& identity, double targetRPM,
                             std::optional<double> measuredRPM, double minRPM, double maxRPM) {
    const Clock::time_point now = now_();
    FanLearning& fan = learning(identity);
    if (fan.written && measuredRPM) observe(fan, *fan.written, *measuredRPM, false, now);
    const int duty = [&] {
        if (auto calibrating = calibrationDuty(identity, fan, targetRPM, measuredRPM, minRPM, now))
            return *calibrating;
        if (fan.kick && measuredRPM && *measuredRPM > 0) {
            // The kick has done its work, whatever is asked next: its duty starts this fan.
            fan.knowledge.noteStarted(fan.kick->duty);
            fan.dirty = true;
            fan.kick.reset();
        }
        if (isFanStopTarget(targetRPM)) {
            fan.kick.reset();
            fan.kickTried = false;
            fan.probe.reset();
            return fan.knowledge.stopsAt.value_or(0);
        }
        const int mapped = mappedDuty(fan, targetRPM, minRPM, maxRPM);
        if (measuredRPM && *measuredRPM > 0) {
            // Turning: the next rest may be kicked again.
            fan.kickTried = false;
        } else if (measuredRPM && !fan.kick && !fan.kickTried) {
            // At rest with a speed asked for: a start duty until it turns. One kick per rest,
            // bounded, so that a fan that will not start reads 0 for the stall check.
            const int start =
                std::max(mapped, fan.knowledge.startsAt.value_or(kConservativeStartDuty));
            fan.kickTried = true;
            if (start > mapped) fan.kick = Kick{start, now + kLongestKick};
        }
        if (fan.kick) {
            if (now < fan.kick->until) return fan.kick->duty;
            fan.kick.reset();
        }
        if (measuredRPM) {
            if (auto probe = probeDuty(fan, targetRPM, *measuredRPM, now)) return *probe;
        }
        return mapped;
    }();
    fan.written = duty;
    maybeSave(identity, fan, now);
    return duty;
}

void FanCurveLearner::wrote(const std::string& identity, int duty) {
    if (const auto it = fans_.find(identity); it != fans_.end()) it->second.written = duty;
}

void FanCurveLearner::maybeSave(const std::string& identity, FanLearning& fan,
                                Clock::time_point now, bool immediately) {
    if (!fan.dirty || !store_.save || fan.knowledge.empty()) return;
    if (!immediately && fan.savedAt && now - *fan.savedAt < kSaveInterval) return;
    if (store_.save(identity, fan.knowledge.toCurve())) fan.dirty = false;
    fan.savedAt = now;
}

void FanCurveLearner::released(const std::string& identity) {
    const auto it = fans_.find(identity);
    if (it == fans_.end()) return;
    FanLearning& fan = it->second;
    if (fan.calibration && fan.calibration->running())
        fan.calibration->abandon(
            "Calibration abandoned: the fan went back to firmware control before it ended.");
    fan.written.reset();
    fan.kick.reset();
    fan.kickTried = false;
    fan.probe.reset();
    fan.settle.reset();
    maybeSave(identity, fan, now_(), true);
}

FanCurveLearner::Report FanCurveLearner::report(const std::string& identity) {
    FanLearning& fan = learning(identity);
    Report report;
    if (fan.knowledge.usable()) report.minRPM = fan.knowledge.lowestTurningRPM();
    fan.reportedMin = report.minRPM;
    report.maxRPM = fan.knowledge.topRPM();
    report.canStop = fan.knowledge.stopsAt.has_value() || fan.seenResting;
    report.firmwareStops = fan.seenFirmwareResting;
    return report;
}

bool FanCurveLearner::startCalibration(const std::string& identity, double currentTargetRPM,
                                       std::string* why) {
    FanLearning& fan = learning(identity);
    if (fan.calibration && fan.calibration->running()) {
        if (why) *why = "a calibration of this fan is already running";
        return false;
    }
    // A stopped or slowest fan may be asked to turn at its minimum while the calibration runs
    // (the stop gate restarting it): that is no call for more air than the sweep gives.
    double baseline = isFanStopTarget(currentTargetRPM) ? 0 : currentTargetRPM;
    if (fan.reportedMin) baseline = std::max(baseline, *fan.reportedMin);
    if (auto lowest = fan.knowledge.lowestTurningRPM()) baseline = std::max(baseline, *lowest);
    fan.calibration.emplace(baseline, now_());
    fan.kick.reset();
    fan.probe.reset();
    return true;
}

std::optional<FanCalibrationStatus> FanCurveLearner::calibrationStatus(
    const std::string& identity) const {
    const auto it = fans_.find(identity);
    if (it == fans_.end() || !it->second.calibration) return std::nullopt;
    return it->second.calibration->status(now_());
}

bool FanCurveLearner::calibrating(const std::string& identity) const {
    const auto it = fans_.find(identity);
    return it != fans_.end() && it->second.calibration && it->second.calibration->running();
}

std::optional<FanCurve> FanCurveLearner::curve(const std::string& identity) {
    const FanLearning& fan = learning(identity);
    if (fan.knowledge.empty()) return std::nullopt;
    return fan.knowledge.toCurve();
}

}  // namespace kelvo

// ControlEngine's fan stops, stalls and calibrations: what each fan does beyond following the
// policy's duty.
#include <algorithm>
#include <cstdio>

#include "foundation/control/ControlEngine.h"

namespace kelvo {

namespace {
// A driven fan that reads 0 rpm for this many ticks in a row has stopped: longer than any fan
// takes to spin up from rest.
constexpr int kStallTicks = 5;
// A fan started again after a stop gets this long for the back-end's start kick before a 0 rpm
// reading counts towards a stall.
constexpr double kRestartKickSeconds = 10;
// A stall this soon after a restart is a fan that did not spin again.
constexpr double kRestartBlameSeconds = 60;

std::string rpmText(double rpm) {
    char text[32];
    std::snprintf(text, sizeof text, "%.0f", rpm);
    return text;
}
}  // namespace

bool ControlEngine::calibrating(const std::string& fan) const {
    return calibrationQuarters_.contains(fan);
}

void ControlEngine::noticeStalledFans(Timestamp now) {
    for (const auto& fan : lastFans_) {
        const bool driven = fan.targetRPM > 0 && !leftToFirmware_.contains(fan.name);
        const auto restarted = stopGate_.restartedAt(fan.name);
        const auto calibrated = calibrationEnded_.find(fan.name);
        // A fan told to stand still reads 0 on purpose, one being calibrated goes through a
        // stop, and one just started again (after a stop or a calibration) is still being kicked.
        const bool stillOnPurpose = fan.stopCommanded || isFanStopTarget(fan.targetRPM) ||
                                    stopGate_.isStopped(fan.name) || calibrating(fan.name) ||
                                    (restarted && now - *restarted < kRestartKickSeconds) ||
                                    (calibrated != calibrationEnded_.end() &&
                                     now - calibrated->second < kRestartKickSeconds);
        if (!driven || stillOnPurpose || !isReadableRPM(fan.currentRPM) || fan.currentRPM > 0) {
            stalledTicks_.erase(fan.name);
            continue;
        }
        if (++stalledTicks_[fan.name] < kStallTicks) continue;
        stalledTicks_.erase(fan.name);
        leftToFirmware_.insert(fan.name);
        stopGate_.forget(fan.name);
        if (restarted && now - *restarted < kRestartBlameSeconds)
            record("Fan stalled (" + fan.name + "): it did not spin again after a stop (0 rpm " +
                       "while driven at " + rpmText(fan.targetRPM) +
                       " rpm); handed back to the firmware",
                   true);
        else
            record("Fan stalled (" + fan.name + "): 0 rpm while driven at " +
                       rpmText(fan.targetRPM) + " rpm; handed back to the firmware",
                   true);
    }
}

void ControlEngine::applyFanStops(std::vector<double>& targets, const std::vector<double>& duties,
                                  const TelemetrySample& sample) {
    // Every die the fans answer to; blindDies() has already made sure each can be read.
    std::vector<FanStopGate::Die> dies;
    if (sample.cpuTemperatureC) dies.push_back({*sample.cpuTemperatureC, policy_.cpuLimit(mode_)});
    if (sample.gpuTemperatureC) dies.push_back({*sample.gpuTemperatureC, policy_.gpuLimit(mode_)});
    for (std::size_t i = 0; i < lastFans_.size() && i < targets.size(); ++i) {
        const FanState& fan = lastFans_[i];
        if (calibrating(fan.name)) continue;
        if (targets[i] <= 0) {
            // The firmware's: whatever stop Kelvo held is over.
            stopGate_.forget(fan.name);
            continue;
        }
        // A fan never seen standing still would only run at its lowest speed: no stop for it.
        // A floor keeps it turning.
        const bool mayStop = fanMayStop(fan, effectiveFanChoice(fan, fanChoices_)) &&
                             (fan.canStop || fan.firmwareStops) && !(fan.floorPercent > 0);
        FanStopGate::Change change = FanStopGate::Change::none;
        const double duty = i < duties.size() ? duties[i] : 1.0;
        if (stopGate_.decide(fan.name, mayStop, duty, dies, sample.timestamp, &change))
            targets[i] = kFanStopRPM;
        if (change == FanStopGate::Change::stopped)
            record("Fan stopped (" + fan.name + "): every temperature is well under its limit");
        else if (change == FanStopGate::Change::restarted)
            record("Fan restarted (" + fan.name + ")");
    }
}

bool ControlEngine::requestFanCalibration(const std::string& identity) {
    FanCurveLearning* learning = fans_->curveLearning();
    std::string why;
    if (!learning) {
        why = "this fan back-end cannot calibrate fans";
    } else if (calibrating(identity)) {
        why = "its calibration is already running";
    } else if (!learning->requestCalibration(identity, &why)) {
        if (why.empty()) why = "the fan back-end refused";
    } else {
        const auto status = learning->calibrationStatus(identity);
        const double seconds = status && status->running ? status->secondsLeft : 0;
        record("Calibrating " + identity +
               ": it runs from full speed down to its lowest speed and to a stop where it "
               "stops, " +
               (seconds > 0 ? "about " + rpmText(seconds) + " s" : std::string("a few minutes")) +
               "; the fan will be loud for part of it");
        calibrationQuarters_[identity] = 0;
        FanCalibrationStatus started;
        started.running = true;
        calibrations_[identity] = status && status->running ? *status : started;
        stalledTicks_.erase(identity);
        return true;
    }
    record("Cannot calibrate " + identity + ": " + why, true);
    return false;
}

void ControlEngine::followCalibrations(Timestamp now) {
    FanCurveLearning* learning = fans_->curveLearning();
    for (auto it = calibrationQuarters_.begin(); it != calibrationQuarters_.end();) {
        const std::string& fan = it->first;
        auto status = learning ? learning->calibrationStatus(fan) : std::nullopt;
        if (!status) {
            FanCalibrationStatus lost;
            lost.succeeded = false;
            lost.message = "the fan back-end lost track of it";
            status = lost;
        }
        calibrations_[fan] = *status;
        if (status->running) {
            // A quarter at a time: enough to see it move, never a flood.
            const int quarter = std::clamp(static_cast<int>(status->progress * 4), 0, 3);
            if (quarter > it->second) {
                it->second = quarter;
                record("Calibrating " + fan + ": " + std::to_string(quarter * 25) +
                       " % done, about " + rpmText(status->secondsLeft) + " s left");
            }
            ++it;
            continue;
        }
        const bool ok = status->succeeded.value_or(false);
        const std::string detail = status->message.empty() ? "" : ": " + status->message;
        record((ok ? "Calibration of " + fan + " finished" : "Calibration of " + fan + " failed") +
                   detail,
               !ok);
        calibrationEnded_[fan] = now;
        it = calibrationQuarters_.erase(it);
    }
}

}  // namespace kelvo

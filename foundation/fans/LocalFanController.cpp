#include "foundation/fans/LocalFanController.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <utility>

#include "foundation/fans/FanTargets.h"

namespace kelvo {

namespace {

std::string describeWriteFailure(const std::string& detail, int errorNumber) {
    if (errorNumber == EACCES || errorNumber == EPERM) {
        return "permission denied (fan writes need root or the helper): " + detail;
    }
    return detail;
}

}  // namespace

LocalFanController::LocalFanController(std::shared_ptr<HwmonFanService> service,
                                       FanCurveLearner::Now curveClock)
    : service_(service ? std::move(service) : std::make_shared<HwmonFanService>()),
      curves_(std::move(curveClock)) {}

int LocalFanController::linearPWMForRPM(double targetRPM, double minRPM, double maxRPM) {
    return FanCurveLearner::linearDuty(targetRPM, minRPM, maxRPM);
}

void LocalFanController::attachCurveStore(FanCurveStore store) {
    std::lock_guard lock(mutex_);
    curves_.setStore(std::move(store));
}

std::optional<FanCurve> LocalFanController::learnedCurve(const std::string& identity) {
    std::lock_guard lock(mutex_);
    return curves_.curve(identity);
}

bool LocalFanController::calibrating(const std::string& identity) const {
    std::lock_guard lock(mutex_);
    return curves_.calibrating(identity);
}

bool LocalFanController::requestCalibration(const std::string& identity, std::string* why) {
    std::lock_guard lock(mutex_);
    const std::vector<HwmonFan> fans = service_->discover();
    const auto fan = std::find_if(fans.begin(), fans.end(),
                                  [&](const HwmonFan& f) { return f.identity == identity; });
    if (fan == fans.end()) {
        if (why) *why = "no fan " + identity + " is found";
        return false;
    }
    const auto held = held_.find(identity);
    const std::string obstacle =
        calibrationObstacle(fan->controllable, held != held_.end(), fan->currentRPM.has_value());
    if (!obstacle.empty()) {
        if (why) *why = obstacle;
        return false;
    }
    return curves_.startCalibration(identity, held->second.targetRPM, why);
}

std::optional<FanCalibrationStatus> LocalFanController::calibrationStatus(
    const std::string& identity) {
    std::lock_guard lock(mutex_);
    return curves_.calibrationStatus(identity);
}

FanReadResult LocalFanController::readFans() {
    std::lock_guard lock(mutex_);
    FanReadResult result;
    const std::vector<HwmonFan> discovered = service_->discover();
    // A held fan that is no longer found: its device went away (nothing left to give back) or
    // only its tachometer did, and then the firmware gets it back through the paths it had.
    std::erase_if(held_, [&](const auto& entry) {
        const bool gone =
            std::none_of(discovered.begin(), discovered.end(),
                         [&](const HwmonFan& f) { return f.identity == entry.first; });
        if (!gone) return false;
        service_->restore(entry.second.fan, nullptr, nullptr);
        curves_.released(entry.first);
        return true;
    });
    for (const HwmonFan& fan : discovered) {
        FanState state;
        state.name = fan.identity;
        state.label = fan.label;
        state.currentRPM = fan.currentRPM.value_or(kUnreadableRPM);
        auto held = held_.find(fan.identity);
        // Someone else switched a fan Kelvo holds out of manual mode: it is theirs now, and
        // writing the duty again would fight them.
        if (held != held_.end() && fan.pwmEnable && *fan.pwmEnable != 1) {
            reclaimed_.push_back(fan.identity);
            curves_.released(fan.identity);
            service_->forget(fan);
            held_.erase(held);
            held = held_.end();
        }
        state.targetRPM = held != held_.end() ? held->second.targetRPM : 0;
        // Asked to stand still, and it does.
        state.stopCommanded =
            isFanStopTarget(state.targetRPM) && fan.currentRPM && *fan.currentRPM <= 0;
        // The firmware's own duty (pwmN in automatic mode) teaches the curve too.
        if (held == held_.end() && fan.controllable && fan.pwmEnable && *fan.pwmEnable >= 2)
            curves_.observeFirmware(fan.identity, fan.pwm, fan.currentRPM);
        const FanCurveLearner::Report learned = curves_.report(fan.identity);
        state.minRPM = learned.minRPM.value_or(fan.minRPM);
        state.maxRPM = learned.maxRPM.value_or(fan.maxRPM);
        state.canStop = learned.canStop;
        state.firmwareStops = learned.firmwareStops;
        result.fans.push_back(std::move(state));
    }
    return result;
}

FanResult LocalFanController::setTargets(const std::vector<double>& targetRPM) {
    std::lock_guard lock(mutex_);
    const std::vector<HwmonFan> fans = service_->discover();
    const auto controllable = static_cast<std::size_t>(
        std::count_if(fans.begin(), fans.end(), [](const HwmonFan& f) { return f.controllable; }));
    if (FanResult refused = checkFanTargets(fans.size(), controllable, targetRPM.size());
        !refused.ok) {
        return refused;
    }
    return runFanRound(fans.size(), [&](std::size_t i) {
        const HwmonFan& fan = fans[i];
        std::string error;
        int errorNumber = 0;
        if (!(targetRPM[i] > 0) && !isFanStopTarget(targetRPM[i])) {
            if (!held_.contains(fan.identity)) return FanStep::done();
            if (service_->restore(fan, &error, &errorNumber)) {
                held_.erase(fan.identity);
                curves_.released(fan.identity);
                return FanStep::done();
            }
        } else {
            if (!fan.controllable) return FanStep::done();
            const int pwm =
                curves_.dutyFor(fan.identity, targetRPM[i], fan.currentRPM, fan.minRPM, fan.maxRPM);
            if (service_->writePWM(fan, pwm, &error, &errorNumber)) {
                held_[fan.identity] = Held{fan, targetRPM[i]};
                return FanStep::done();
            }
        }
        return FanStep::failed(describeWriteFailure(error, errorNumber));
    });
}

FanResult LocalFanController::releaseToAutomatic() {
    std::lock_guard lock(mutex_);
    // A fan that will not go back does not keep the others from it.
    FirstFanError errors;
    for (auto it = held_.begin(); it != held_.end();) {
        std::string error;
        int errorNumber = 0;
        if (service_->restore(it->second.fan, &error, &errorNumber)) {
            curves_.released(it->first);
            it = held_.erase(it);
        } else {
            errors.note(describeWriteFailure(error, errorNumber));
            ++it;
        }
    }
    return errors.result();
}

std::vector<std::string> LocalFanController::takeFansReclaimedFromUs() {
    std::lock_guard lock(mutex_);
    return std::exchange(reclaimed_, {});
}

bool LocalFanController::holdsControl() const {
    std::lock_guard lock(mutex_);
    return !held_.empty();
}

}  // namespace kelvo

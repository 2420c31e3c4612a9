#include "foundation/fans/HelperFanController.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "foundation/fans/FanTargets.h"

namespace kelvo {

namespace hp = helper_protocol;

HelperFanController::HelperFanController(std::string socketPath, int connectTimeoutMs,
                                         FanCurveLearner::Now curveClock)
    : socketPath_(socketPath),
      connectTimeoutMs_(connectTimeoutMs),
      client_(std::move(socketPath), connectTimeoutMs, kReplyTimeoutMs),
      curves_(std::move(curveClock)) {}

bool HelperFanController::helperReachable() const {
    return HelperClient::reachable(socketPath_, connectTimeoutMs_);
}

FanResult HelperFanController::failureFrom(const HelperCallResult& call) {
    using Failure = HelperCallResult::Failure;
    switch (call.failure) {
        case Failure::unreachable:
        case Failure::connectionLost: return FanResult::failure(kUnavailable);
        case Failure::timedOut: return FanResult::failure(kNotResponding);
        case Failure::badReply: return FanResult::failure(call.error);
        case Failure::none: break;
    }
    return FanResult::failure(call.reply.message);
}

void HelperFanController::dropHeldIfReconnected() {
    if (client_.connected() && client_.connectionNumber() == heldConnection_) return;
    // On a new connection the helper has given back what the old one held. With no connection
    // at all the helper is gone, which the failed call itself reports.
    const bool reconnected = client_.connected();
    for (const auto& [identity, target] : held_) {
        curves_.released(identity);
        if (reconnected) lostBehindOurBack_.push_back(identity);
    }
    held_.clear();
}

std::vector<std::string> HelperFanController::takeFansLostBehindOurBack() {
    std::lock_guard lock(mutex_);
    return std::exchange(lostBehindOurBack_, {});
}

std::vector<std::string> HelperFanController::takeFansReclaimedFromUs() {
    std::lock_guard lock(mutex_);
    return std::exchange(reclaimed_, {});
}

std::optional<hp::Inventory> HelperFanController::list(FanResult* failure) {
    const HelperCallResult call = client_.call(hp::Request::of(hp::Op::list));
    dropHeldIfReconnected();
    if (!call.ok()) {
        *failure = failureFrom(call);
        return std::nullopt;
    }
    auto inventory = hp::decodeInventory(call.reply.data);
    if (!inventory.ok()) {
        *failure = FanResult::failure("unreadable fan list from the helper: " + inventory.error);
        return std::nullopt;
    }
    // A fan the helper no longer counts as ours was released behind our back (lease expiry);
    // one it no longer lists at all went away with its device, which the engine reports.
    std::erase_if(held_, [&](const auto& entry) {
        const auto& fans = inventory.value->fans;
        const auto listed = std::find_if(fans.begin(), fans.end(), [&](const hp::FanInfo& fan) {
            return fan.identity == entry.first;
        });
        const bool stillMine = listed != fans.end() && listed->mine;
        if (!stillMine) {
            curves_.released(entry.first);
            if (listed != fans.end()) lostBehindOurBack_.push_back(entry.first);
        }
        return !stillMine;
    });
    return std::move(inventory.value);
}

FanReadResult HelperFanController::readFans() {
    std::lock_guard lock(mutex_);
    FanResult failure;
    const auto inventory = list(&failure);
    if (!inventory) return FanReadResult{false, failure.error, {}};
    FanReadResult result;
    for (const hp::FanInfo& fan : inventory->fans) {
        FanState state;
        state.name = fan.identity;
        // Not value_or(): on an optional<int> it would squeeze NaN into an int (0), and a GPU
        // fan, which has no rpm at all, would read as standing still.
        state.currentRPM = fan.rpm ? static_cast<double>(*fan.rpm) : kUnreadableRPM;
        const auto held = held_.find(fan.identity);
        state.targetRPM = held != held_.end() ? held->second : 0;
        // Asked to stand still, and it does.
        state.stopCommanded = isFanStopTarget(state.targetRPM) && fan.rpm && *fan.rpm <= 0;
        // The firmware's own duty (pwmN in automatic mode) teaches the curve too.
        if (held == held_.end() && fan.controllable && fan.mode && *fan.mode >= 2) {
            std::optional<double> rpm;
            if (fan.rpm) rpm = *fan.rpm;
            curves_.observeFirmware(fan.identity, fan.pwm, rpm);
        }
        const FanCurveLearner::Report learned = curves_.report(fan.identity);
        state.minRPM = learned.minRPM.value_or(fan.minRPM);
        state.maxRPM = learned.maxRPM.value_or(fan.maxRPM);
        state.canStop = learned.canStop;
        state.firmwareStops = learned.firmwareStops;
        result.fans.push_back(std::move(state));
    }
    return result;
}

FanResult HelperFanController::setTargets(const std::vector<double>& targetRPM) {
    std::lock_guard lock(mutex_);
    FanResult failure;
    const auto inventory = list(&failure);
    if (!inventory) return failure;
    const std::vector<hp::FanInfo>& fans = inventory->fans;
    const auto controllable = static_cast<std::size_t>(std::count_if(
        fans.begin(), fans.end(), [](const hp::FanInfo& fan) { return fan.controllable; }));
    if (FanResult refused = checkFanTargets(fans.size(), controllable, targetRPM.size());
        !refused.ok) {
        return refused;
    }
    // A broken connection ends the round: the helper has released everything taken on it.
    return runFanRound(fans.size(), [&](std::size_t i) {
        const hp::FanInfo& fan = fans[i];
        const double target = targetRPM[i];
        hp::Request request;
        request.fan = fan.identity;
        if (!(target > 0) && !isFanStopTarget(target)) {
            if (!held_.contains(fan.identity)) return FanStep::done();
            request.op = hp::Op::release;
        } else {
            if (!fan.controllable) return FanStep::done();
            request.op = hp::Op::setTarget;
            // Kelvo maps speeds to duty cycles itself, through the fan's learned curve.
            std::optional<double> measured;
            if (fan.rpm) measured = *fan.rpm;
            request.pwm = curves_.dutyFor(fan.identity, target, measured, fan.minRPM, fan.maxRPM);
        }
        const HelperCallResult call = client_.call(request);
        dropHeldIfReconnected();
        if (call.failure != HelperCallResult::Failure::none)
            return FanStep::endRound(failureFrom(call));
        if (!call.reply.ok && call.reply.code == hp::codes::takenBack) {
            // Not a broken path: someone else set the fan's mode and the helper let it go. The
            // engine decides whether to take it again.
            held_.erase(fan.identity);
            curves_.released(fan.identity);
            reclaimed_.push_back(fan.identity);
            return FanStep::done();
        }
        // The helper's per-fan errors name the fan already.
        if (!call.reply.ok) return FanStep::failed(call.reply.message);
        if (request.op == hp::Op::release) {
            held_.erase(fan.identity);
            curves_.released(fan.identity);
        } else {
            held_[fan.identity] = target;
            heldConnection_ = client_.connectionNumber();
        }
        return FanStep::done();
    });
}

FanResult HelperFanController::releaseToAutomatic() {
    std::lock_guard lock(mutex_);
    // Fans are only ever held on an open connection; without one there is nothing to give back.
    if (!client_.connected()) {
        held_.clear();
        return FanResult::success();
    }
    const HelperCallResult call = client_.call(hp::Request::of(hp::Op::releaseAll));
    dropHeldIfReconnected();
    if (call.failure != HelperCallResult::Failure::none) return failureFrom(call);
    for (const auto& [identity, target] : held_) curves_.released(identity);
    held_.clear();
    // Given back on purpose: whatever was lost before no longer matters to the caller.
    lostBehindOurBack_.clear();
    if (!call.reply.ok) {
        // The helper let go of the fans but could not put every one back: it keeps trying,
        // and until it succeeds they are not the firmware's.
        return FanResult::failure("fans could not be given back (" + call.reply.message +
                                  "); the helper will retry");
    }
    return FanResult::success();
}

void HelperFanController::attachCurveStore(FanCurveStore store) {
    std::lock_guard lock(mutex_);
    curves_.setStore(std::move(store));
}

std::optional<FanCurve> HelperFanController::learnedCurve(const std::string& identity) {
    std::lock_guard lock(mutex_);
    return curves_.curve(identity);
}

bool HelperFanController::requestCalibration(const std::string& identity, std::string* why) {
    std::lock_guard lock(mutex_);
    FanResult failure;
    const auto inventory = list(&failure);
    if (!inventory) {
        if (why) *why = failure.error;
        return false;
    }
    const auto& fans = inventory->fans;
    const auto fan = std::find_if(fans.begin(), fans.end(),
                                  [&](const hp::FanInfo& f) { return f.identity == identity; });
    if (fan == fans.end()) {
        if (why) *why = "the helper sees no fan " + identity;
        return false;
    }
    const auto held = held_.find(identity);
    const std::string obstacle =
        calibrationObstacle(fan->controllable, held != held_.end(), fan->rpm.has_value());
    if (!obstacle.empty()) {
        if (why) *why = obstacle;
        return false;
    }
    return curves_.startCalibration(identity, held->second, why);
}

std::optional<FanCalibrationStatus> HelperFanController::calibrationStatus(
    const std::string& identity) {
    std::lock_guard lock(mutex_);
    return curves_.calibrationStatus(identity);
}

bool HelperFanController::holdsControl() const {
    std::lock_guard lock(mutex_);
    return !held_.empty();
}

std::optional<std::string> HelperFanController::helperVersion() {
    std::lock_guard lock(mutex_);
    const HelperCallResult call = client_.call(hp::Request::of(hp::Op::version));
    dropHeldIfReconnected();
    if (!call.ok()) return std::nullopt;
    auto info = hp::decodeVersionInfo(call.reply.data);
    if (!info.ok()) return std::nullopt;
    return info.value->version;
}

FanResult HelperFanController::renewLease() {
    std::lock_guard lock(mutex_);
    if (held_.empty()) return FanResult::success();
    const HelperCallResult call = client_.call(hp::Request::of(hp::Op::renew));
    dropHeldIfReconnected();
    if (!call.ok()) return failureFrom(call);
    auto lease = hp::decodeLeaseInfo(call.reply.data);
    if (!lease.ok())
        return FanResult::failure("unreadable lease reply from the helper: " + lease.error);
    if (held_.empty() || lease.value->heldFans == 0) {
        held_.clear();
        return FanResult::failure("helper lease expired; the fans are back under firmware control");
    }
    return FanResult::success();
}

}  // namespace kelvo

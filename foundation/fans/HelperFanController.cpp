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

std::vector<FanRefusal> HelperFanController::takeFanRefusals() {
    std::lock_guard lock(mutex_);
    return std::exchange(refusals_, {});
}

void HelperFanController::learnHelperLimits() {
    if (limitsConnection_ == client_.connectionNumber()) return;
    // Another connection may be another helper, started with another configuration.
    floors_.clear();
    forbidden_.clear();
    const HelperCallResult call = client_.call(hp::Request::of(hp::Op::config));
    dropHeldIfReconnected();
    if (call.failure != HelperCallResult::Failure::none) return;  // asked again next round
    limitsConnection_ = client_.connectionNumber();
    // A helper older than `config` answers bad_request: its refusals teach the same, fan by fan.
    if (!call.reply.ok) return;
    auto info = hp::decodeConfigInfo(call.reply.data);
    if (!info.ok()) return;
    const std::string source =
        info.value->file.empty() ? std::string("the helper's configuration") : info.value->file;
    for (const auto& [identity, pwm] : info.value->floors) floors_[identity] = pwm;
    for (const auto& identity : info.value->forbidden)
        forbidden_[identity] = "the helper's configuration (" + source + ") forbids it to Kelvo";
}

std::optional<int> HelperFanController::floorOf(const std::string& identity) const {
    const auto found = floors_.find(identity);
    if (found == floors_.end() || found->second <= 0) return std::nullopt;
    return found->second;
}

std::string HelperFanController::forbiddenWhy(const std::string& identity) const {
    const auto found = forbidden_.find(identity);
    return found == forbidden_.end() ? std::string() : found->second;
}

namespace {
// The floor a below_floor message names ("... is below the floor 153 that ..."), for a helper
// whose configuration could not be asked for.
std::optional<int> floorInMessage(const std::string& message) {
    static const std::string marker = "below the floor ";
    const auto at = message.find(marker);
    if (at == std::string::npos) return std::nullopt;
    int value = 0;
    std::size_t i = at + marker.size();
    const std::size_t start = i;
    while (i < message.size() && message[i] >= '0' && message[i] <= '9' && value <= hp::kMaxPWM)
        value = value * 10 + (message[i++] - '0');
    if (i == start || value > hp::kMaxPWM) return std::nullopt;
    return value;
}
}  // namespace

FanStep HelperFanController::refused(const hp::Request& request, const hp::Reply& reply,
                                     double target) {
    const std::string& fan = request.fan;
    if (reply.code == hp::codes::forbidden) {
        // Not asked again: the helper's configuration holds until the helper restarts.
        forbidden_[fan] = reply.message.empty() ? "the helper's configuration forbids it to Kelvo"
                                                : reply.message;
        return FanStep::done();
    }
    if (reply.code == hp::codes::belowFloor && request.pwm) {
        limitsConnection_ = 0;
        learnHelperLimits();
        if (!floorOf(fan)) {
            if (auto floor = floorInMessage(reply.message)) floors_[fan] = *floor;
        }
        const auto floor = floorOf(fan);
        if (floor && *floor > *request.pwm) {
            hp::Request raised = request;
            raised.pwm = *floor;
            const HelperCallResult again = client_.call(raised);
            dropHeldIfReconnected();
            if (again.failure != HelperCallResult::Failure::none)
                return FanStep::endRound(failureFrom(again));
            if (again.reply.ok) {
                curves_.wrote(fan, *floor);
                held_[fan] = target;
                heldConnection_ = client_.connectionNumber();
                return FanStep::done();
            }
            return giveBack(fan, again.reply);
        }
    }
    return giveBack(fan, reply);
}

FanStep HelperFanController::giveBack(const std::string& fan, const hp::Reply& reply) {
    // Anything else the helper refuses for this fan alone leaves it with the firmware; the other
    // fans keep their targets.
    refusals_.push_back({fan, reply.message.empty() ? reply.code : reply.message});
    if (!held_.contains(fan)) return FanStep::done();
    // Still held at its last duty, which can no longer be changed: given back now.
    hp::Request release;
    release.op = hp::Op::release;
    release.fan = fan;
    const HelperCallResult call = client_.call(release);
    dropHeldIfReconnected();
    if (call.failure != HelperCallResult::Failure::none)
        return FanStep::endRound(failureFrom(call));
    if (!call.reply.ok) return FanStep::failed(call.reply.message);
    held_.erase(fan);
    curves_.released(fan);
    return FanStep::done();
}

std::optional<hp::Inventory> HelperFanController::list(FanResult* failure) {
    const HelperCallResult call = client_.call(hp::Request::of(hp::Op::list));
    dropHeldIfReconnected();
    if (!call.ok()) {
        *failure = failureFrom(call);
        return std::nullopt;
    }
    learnHelperLimits();
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
        if (const auto floor = floorOf(fan.identity))
            state.floorPercent = std::round(*floor * 1000.0 / hp::kMaxPWM) / 10;
        state.heldBackWhy = forbiddenWhy(fan.identity);
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
            // The engine is told through readFans() and leaves it to the firmware.
            if (!forbiddenWhy(fan.identity).empty()) return FanStep::done();
            request.op = hp::Op::setTarget;
            // Kelvo maps speeds to duty cycles itself, through the fan's learned curve.
            std::optional<double> measured;
            if (fan.rpm) measured = *fan.rpm;
            int duty = curves_.dutyFor(fan.identity, target, measured, fan.minRPM, fan.maxRPM);
            // Under a floor the fan runs at the floor: asking for less would only be refused.
            if (const auto floor = floorOf(fan.identity); floor && duty < *floor) {
                duty = *floor;
                curves_.wrote(fan.identity, duty);
            }
            request.pwm = duty;
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
        // The helper's per-fan errors name the fan already. A release it refuses leaves the fan
        // in an unknown state: that fails the round, and every fan goes back to the firmware.
        if (!call.reply.ok && request.op == hp::Op::release)
            return FanStep::failed(call.reply.message);
        if (!call.reply.ok) return refused(request, call.reply, target);
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

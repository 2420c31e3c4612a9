#include "foundation/control/ControlEngine.h"

#include <algorithm>
#include <cstdio>

#include "foundation/control/HardwareCapabilityTracker.h"
#include "foundation/core/EventRing.h"
#include "foundation/store/SQLiteStore.h"

namespace kelvo {

namespace {
constexpr double kReleaseTimeoutSeconds = 2.0;
}  // namespace

ControlEngine::ControlEngine(std::shared_ptr<TelemetryProvider> telemetry,
                             std::shared_ptr<FanController> fans,
                             std::shared_ptr<SQLiteStore> store, std::shared_ptr<EventRing> events,
                             std::shared_ptr<HardwareCapabilityTracker> tracker,
                             ControlLoopConfig config)
    : telemetry_(std::move(telemetry)),
      fans_(std::move(fans)),
      store_(std::move(store)),
      events_(std::move(events)),
      tracker_(std::move(tracker)),
      config_(config),
      writer_(fans_),
      policy_(config.limits),
      previewPolicy_(config.limits),
      diePolicies_{ControlPolicy(config.limits), ControlPolicy(config.limits)},
      assessor_(config.throttle) {
    config_.tickSeconds = std::clamp(config_.tickSeconds, 0.25, 5.0);
    assessor_.setMachineHighLoadPowerW(telemetry_->highLoadPowerW());
    loadCoupling();
}

ControlEngine::~ControlEngine() = default;

void ControlEngine::record(std::string message, bool failure) {
    recordEvent(RuntimeEvent::make(std::move(message), failure));
}

void ControlEngine::recordEvent(const RuntimeEvent& event) {
    if (events_) events_->append(event);
    if (store_) store_->appendEvent(event);
}

void ControlEngine::applyMode(ControlMode mode) {
    if (mode == mode_) return;
    ControlMode previous = mode_;
    mode_ = mode;
    boundaryHits_.clear();
    if (mode == ControlMode::systemAuto) {
        releasePending_ = true;
    } else if (previous == ControlMode::systemAuto) {
        // Start from the speed the firmware was running so the switch is not audible.
        resetPolicies(currentFanDuty());
    }
    // A new mode is the user's fresh start: fans left to the firmware are tried again.
    leftToFirmware_.clear();
    refused_.clear();
    stalledTicks_.clear();
    takebacks_.clear();
    record("Control mode changed to " + std::string(displayName(mode)));
}

void ControlEngine::setUserLimits(double cpuQuietC, double gpuQuietC, double performanceTargetC) {
    ControlLimits limits = config_.limits;
    limits.quietCpuLimitC = cpuQuietC;
    limits.quietGpuLimitC = gpuQuietC;
    limits.performanceTargetC = performanceTargetC;
    config_.limits = limits;
    policy_.setLimits(limits);
    previewPolicy_.setLimits(limits);
    for (ControlPolicy& die : diePolicies_) die.setLimits(limits);
}

double ControlEngine::currentFanDuty() const {
    double sum = 0;
    int counted = 0;
    for (const auto& fan : lastFans_) {
        const double span = fan.maxRPM - fan.minRPM;
        if (span <= 0 || !isReadableRPM(fan.currentRPM)) continue;
        sum += std::clamp((fan.currentRPM - fan.minRPM) / span, 0.0, 1.0);
        ++counted;
    }
    return counted > 0 ? sum / counted : 0;
}

void ControlEngine::setCooldownEnabled(bool enabled) {
    if (enabled == cooldown_) return;
    cooldown_ = enabled;
    if (!enabled && mode_ == ControlMode::systemAuto) releasePending_ = true;
    record(enabled ? "Cooldown started: fans at maximum" : "Cooldown switched off");
}

void ControlEngine::setShareAmongFans(bool share) {
    if (share == config_.shareAmongFans) return;
    config_.shareAmongFans = share;
    // Said as a state, not a change: a launch with sharing off says it too.
    record(share ? "Sharing the work among the fans is on: in the quiet modes Kelvo raises first "
                   "the fans that cool the hot part best, once it has measured them"
                 : "Sharing the work among the fans is off: every fan Kelvo drives follows one "
                   "speed, and none is measured");
}

void ControlEngine::setSleeping(bool sleeping) {
    if (sleeping == sleeping_) return;
    sleeping_ = sleeping;
    if (sleeping) {
        // The firmware keeps the machine safe through suspend and the first moments after it.
        if (fans_->holdsControl()) releaseFans(nullptr);
        status_ = ControlStatus::monitoring;
        authority_ = ControlAuthorityState::system;
        record("Fans handed to the firmware for sleep");
        return;
    }
    resetPolicies(currentFanDuty());
    record("Fan control resumed after sleep");
}

void ControlEngine::setLearnedModel(std::optional<LearnedModel> model) {
    model_ = std::move(model);
    assessor_.setLearnedModel(model_);
}

GPUClockWindowAnalysisConfig ControlEngine::gpuAnalysisConfig() const {
    GPUClockWindowAnalysisConfig config;
    config.referenceClockMHz = assessor_.gpuReferenceMHz();
    config.cpuReferenceClockMHz = assessor_.cpuReferenceMHz();
    config.highLoadPowerW = telemetry_->highLoadPowerW();
    return config;
}

void ControlEngine::releaseFans(const char* why) {
    auto result = writer_.run([](FanController& c) { return c.releaseToAutomatic(); },
                              kReleaseTimeoutSeconds);
    FanResult released = result.outcome == FanWriter::Outcome::completed
                             ? result.result
                             : FanResult::failure("the fan back-end did not answer in time");
    if (!released.ok) {
        writer_.drain();
        released = fans_->releaseToAutomatic();
    }
    // Only what the back-end confirms is said to be back with the firmware.
    if (!released.ok)
        record("Fans could not be given back to automatic control (" + released.error + ")", true);
    else if (why)
        record(std::string("Fans released to automatic control (") + why + ")");
    authority_ = fallback_ ? ControlAuthorityState::unavailable : ControlAuthorityState::system;
}

std::vector<double> ControlEngine::targetsFor(double duty) const {
    return targetsFor(std::vector<double>(lastFans_.size(), duty));
}

std::vector<double> ControlEngine::targetsFor(const std::vector<double>& duties) const {
    std::vector<double> targets;
    for (std::size_t i = 0; i < lastFans_.size(); ++i) {
        const FanState& fan = lastFans_[i];
        if (leftToFirmware_.contains(fan.name) || !fan.heldBackWhy.empty() ||
            refusalHolds(fan.name)) {
            targets.push_back(0);
            continue;
        }
        const double duty = i < duties.size() ? duties[i] : 1.0;
        targets.push_back(fanTargetRPM(fan, effectiveFanChoice(fan, fanChoices_), duty));
    }
    return targets;
}

void ControlEngine::resetPolicies(double duty) {
    policy_.reset(duty);
    for (ControlPolicy& die : diePolicies_) die.reset(duty);
    // From one duty, as the fans are now; a mix is eased in again where it applies.
    shareBlend_ = 0;
    mixDuties_.clear();
    mixFromDuty_.reset();
}

void ControlEngine::enterFallback(const std::string& reason) {
    fallback_ = true;
    fallbackReason_ = reason;
    lastFallbackProbe_ = lastTick_.value_or(0);  // the next try waits a full retry period
    status_ = ControlStatus::fallback;
    releaseFans(nullptr);
    authority_ = ControlAuthorityState::unavailable;
    record("Entered monitor+alert fallback (" + reason + ")", true);
}

bool ControlEngine::applyTargets(const std::vector<double>& targets) {
    auto result = writer_.run([targets](FanController& c) { return c.setTargets(targets); },
                              config_.tickSeconds);
    if (result.outcome == FanWriter::Outcome::completed) {
        noticeRefusedFans(targets);
        consecutiveTimeouts_ = 0;
        writeTimeoutReported_ = false;
        if (!result.result.ok) {
            enterFallback(result.result.error.empty() ? "fan write failed" : result.result.error);
            return false;
        }
        return true;
    }
    if (result.outcome == FanWriter::Outcome::timedOut && !writeTimeoutReported_) {
        writeTimeoutReported_ = true;
        char text[128];
        std::snprintf(text, sizeof text,
                      "Fan write abandoned: the back-end took longer than the %.2f s tick",
                      config_.tickSeconds);
        record(text, true);
    }
    if (++consecutiveTimeouts_ >= config_.timeoutsBeforeFallback) {
        consecutiveTimeouts_ = 0;
        enterFallback("fan writes timed out");
    }
    return false;
}

void ControlEngine::updateCooldown(const TelemetrySample& sample) {
    // A die that cannot be read is not known to be cool.
    if (!cooldown_ || !blindDies(sample).empty()) return;
    bool cool = true;
    bool any = false;
    double margin = config_.limits.cooldownMarginC;
    if (sample.cpuTemperatureC) {
        any = true;
        cool = cool && *sample.cpuTemperatureC <= policy_.cpuLimit(mode_) - margin;
    }
    if (sample.gpuTemperatureC) {
        any = true;
        cool = cool && *sample.gpuTemperatureC <= policy_.gpuLimit(mode_) - margin;
    }
    if (any && cool) {
        cooldown_ = false;
        if (mode_ == ControlMode::systemAuto) releasePending_ = true;
        record("Cooldown finished: every temperature is 10 °C under its limit");
    }
}

std::string ControlEngine::blindDies(const TelemetrySample& sample) {
    if (sample.gpuTemperatureC) gpuTemperatureSeen_ = true;
    // Every fan Kelvo drives follows one decision over both dies, so each fan cools each die
    // Kelvo knows of. The CPU always counts. The GPU counts once it has shown a temperature, and
    // only while it is awake (other readings still come): a discrete GPU that sleeps reports
    // nothing at all and makes no heat.
    const bool cpuBlind = !sample.cpuTemperatureC;
    const bool gpuAwake = sample.gpuClockMHz || sample.gpuUtilizationPct;
    const bool gpuBlind = gpuTemperatureSeen_ && !sample.gpuTemperatureC && gpuAwake;
    if (cpuBlind && gpuBlind) return "CPU and GPU";
    if (cpuBlind) return "CPU";
    if (gpuBlind) return "GPU";
    return {};
}

void ControlEngine::holdBlind(const std::string& dies) {
    status_ = ControlStatus::fallback;
    if (!blind_ || fans_->holdsControl()) releaseFans(nullptr);
    authority_ = ControlAuthorityState::system;
    if (blind_) return;
    blind_ = true;
    record("Entered monitor+alert fallback (no " + dies + " temperature can be read)", true);
}

std::optional<ControlDecision> ControlEngine::controlStep(const TelemetrySample& sample,
                                                          double dt) {
    if (sleeping_) {
        status_ = ControlStatus::monitoring;
        authority_ = ControlAuthorityState::system;
        return std::nullopt;
    }
    bool wantsControl = mode_ != ControlMode::systemAuto || cooldown_;
    const std::string blind = blindDies(sample);
    if (!wantsControl) {
        // A calibration the user asked for holds its fan until it ends.
        if (releasePending_ || (fans_->holdsControl() && calibrationQuarters_.empty())) {
            releasePending_ = false;
            releaseFans(nullptr);
        }
        // The firmware is in charge anyway: nothing is left to fall back from.
        fallback_ = false;
        blind_ = false;
        leaseLost_ = false;
        leaseRetakePending_ = false;
        status_ = ControlStatus::monitoring;
        authority_ = ControlAuthorityState::system;
        return std::nullopt;
    }
    // Never drive a fan blind: the firmware's own curve reads the sensors directly and holds
    // the machine safe until Kelvo can see again.
    if (!blind.empty()) {
        holdBlind(blind);
        return std::nullopt;
    }
    if (blind_) {
        blind_ = false;
        resetPolicies(currentFanDuty());
        record("Temperatures can be read again: Kelvo controls the fans again");
    }
    // The tick that finds the lease lost shows it: the firmware has the fans until the next.
    if (leaseLost_) {
        leaseLost_ = false;
        leaseRetakePending_ = true;
        status_ = ControlStatus::fallback;
        authority_ = ControlAuthorityState::system;
        return std::nullopt;
    }
    if (fallback_) {
        if (sample.timestamp - lastFallbackProbe_ < config_.fallbackRetrySeconds)
            return std::nullopt;
        lastFallbackProbe_ = sample.timestamp;
    }

    ControlDecision decision;
    decision.timestamp = sample.timestamp;
    decision.mode = mode_;
    decision.cooldownActive = cooldown_;
    if (cooldown_) {
        decision.targetRPM = targetsFor(1.0);
        applyFanStops(decision.targetRPM, std::vector<double>(lastFans_.size(), 1.0), sample);
        decision.reason = "cooldown";
    } else {
        auto out = policy_.decide(mode_, sample, dt, leadModel_);
        // Where Kelvo knows which fan cools what, the quiet modes share the work among them.
        const std::vector<double> duties = shareAmongFans(sample, dt, out.duty);
        decision.targetRPM = targetsFor(duties);
        applyFanStops(decision.targetRPM, duties, sample);
        // With no fan known yet there is no duty per fan: the policy's own stands.
        const double busiest =
            duties.empty() ? out.duty : *std::max_element(duties.begin(), duties.end());
        probeCoupling(sample, busiest, decision.targetRPM);
        if (mode_ == ControlMode::quiet || mode_ == ControlMode::quietHybrid)
            decision.probedFan = coupling_.probedFan();
        decision.anticipating = out.anticipating;
        decision.reason = out.reason;
    }
    // With no fans known the write still goes out: the back-end says why it cannot drive them.
    bool wasFallback = fallback_;
    if (!applyTargets(decision.targetRPM)) return std::nullopt;
    if (wasFallback) {
        fallback_ = false;
        record("Fan control path restored; Kelvo controls the fans again");
    }
    if (leaseRetakePending_) {
        leaseRetakePending_ = false;
        record("Fan lease retaken: Kelvo controls the fans again");
    }
    releasePending_ = false;
    status_ = ControlStatus::controlling;
    authority_ = ControlAuthorityState::kelvo;
    return decision;
}

void ControlEngine::trackBoundary(const TelemetrySample& sample) {
    auto check = [&](const std::optional<double>& temp, double limit, bool& armed) {
        if (!temp) return;
        if (armed && *temp >= limit) {
            armed = false;
            boundaryHits_.push_back(sample.timestamp);
        } else if (!armed && *temp < limit - config_.limits.hysteresisC) {
            armed = true;
        }
    };
    check(sample.cpuTemperatureC, policy_.cpuLimit(mode_), cpuArmed_);
    check(sample.gpuTemperatureC, policy_.gpuLimit(mode_), gpuArmed_);
    while (!boundaryHits_.empty() &&
           sample.timestamp - boundaryHits_.front() > config_.boundaryWindowSeconds)
        boundaryHits_.pop_front();
    if (static_cast<int>(boundaryHits_.size()) >= config_.boundaryHitsForWarning) {
        boundaryHits_.clear();
        record("Repeated boundary pressure while in " + std::string(displayName(mode_)), true);
    }
}

void ControlEngine::setActiveProfilingRunID(std::optional<std::int64_t> id) {
    if (id != activeRunID_) runSampleFailureReported_ = false;
    activeRunID_ = id;
}

void ControlEngine::recordRunSample(const TelemetrySample& sample) {
    if (!store_ || !activeRunID_) return;
    if (store_->appendRunSample(*activeRunID_, sample)) {
        runSampleFailureReported_ = false;
        return;
    }
    // A locked or full database fails every tick: say so once per run (and again after a
    // recovery), into the ring only, since the store is what is failing.
    if (runSampleFailureReported_) return;
    runSampleFailureReported_ = true;
    if (events_)
        events_->append(RuntimeEvent::make("Capture samples for run " +
                                               std::to_string(*activeRunID_) +
                                               " are not being recorded: " + store_->lastError(),
                                           true));
}

ControlSnapshot ControlEngine::tick(Timestamp now) {
    double dt = lastTick_ ? now - *lastTick_ : config_.tickSeconds;
    lastTick_ = now;

    ControlSnapshot snap;
    snap.sample = telemetry_->sample(now);
    snap.sample.timestamp = now;
    readFans(snap.sample);
    if (tracker_) tracker_->observe(snap.sample);

    followCalibrations(now);
    updateCooldown(snap.sample);
    snap.decision = controlStep(snap.sample, dt);
    // Without Kelvo's targets every fan is the firmware's, stopped or not.
    if (!snap.decision) stopGate_.forgetAll();
    if (mode_ == ControlMode::systemAuto) {
        auto preview = previewPolicy_.decide(ControlMode::quietHybrid, snap.sample, dt, leadModel_);
        ControlDecision decision;
        decision.timestamp = now;
        decision.mode = ControlMode::quietHybrid;
        decision.targetRPM = targetsFor(preview.duty);
        decision.anticipating = preview.anticipating;
        decision.reason = preview.reason;
        snap.previewDecision = std::move(decision);
        snap.previewActive = true;
    } else {
        // Keep the preview policy in step so a later switch to System previews sensibly.
        previewPolicy_.reset(policy_.duty());
    }

    snap.assessment = assessor_.assess(snap.sample);
    warning_ = snap.assessment.isWarning;
    trackBoundary(snap.sample);
    if (store_) store_->appendSample(snap.sample);
    recordRunSample(snap.sample);

    snap.mode = mode_;
    snap.status = status_;
    snap.authority = authority_;
    snap.throttleWarning = warning_;
    snap.cooldownActive = cooldown_;
    snap.gpuConfig = gpuAnalysisConfig();
    snap.fans = lastFans_;
    snap.stoppedFans = stopGate_.stoppedFans();
    snap.calibrations = calibrations_;
    snap.couplings = currentCouplings();
    snap.fansShared = snap.decision && shareBlend_ > 0;
    return snap;
}

}  // namespace kelvo

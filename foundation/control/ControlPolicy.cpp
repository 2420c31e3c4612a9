#include "foundation/control/ControlPolicy.h"

#include <algorithm>
#include <cmath>

namespace kelvo {

namespace {
constexpr double kRiseGainPerDegreeSecond = 0.04;
constexpr double kFallGainPerDegreeSecond = 0.004;
constexpr double kMaxFallPerSecond = 0.02;
constexpr double kTrimPerSecond = 0.002;
// The creep grows with the distance under the setpoint: fans a rise left well too fast come back
// sooner, still too slowly to be heard.
constexpr double kTrimGainPerDegreeSecond = 0.002;
constexpr double kTrimBelowC = 0.5;
// Within this much over the setpoint the rise eases in (quadratically), so a degree of drift does
// not step the fans audibly; beyond it the full gain applies.
constexpr double kSoftRiseC = 2;
// Quiet modes ramp the fans no faster than this: a slow ramp is heard as the machine working, a
// step as a noise. Close to the hard limit a steeper rise takes over.
constexpr double kQuietRiseRPMPerSecond = 120;
constexpr double kQuietRiseDutyWithoutSpeeds = 0.03;  // fans that report no range
// A die heading over its hard limit takes the rise in rpm by degrees: all of it once its course
// passes the limit by this much, a share of it when only just.
constexpr double kHeadingOverBlendC = 3;
// Duty per second per squared degree past the edge under the hard limit: four tenths of the range
// a second at a degree past it, none at the edge itself.
constexpr double kLimitRiseGain = 0.4;
constexpr double kLimitLookaheadS = 3;
// After such a rise the fans come back down at the quiet ramp only while every die's course over
// the next few seconds stays this far under its limit.
constexpr double kEaseClearOfLimitC = 2;
// A die keeps the whole setpoint margin while its burst reserve is at least this large, or while
// its course still rises by this much over the trend's horizon; the settled margin once neither is
// left, and a share of the difference in between.
constexpr double kFullMarginFromReserveC = 2;
constexpr double kFullMarginFromRiseC = 1;
constexpr double kPowerRiseWatts = 12;
constexpr double kTrendSeconds = 3;
// A burst shorter than this (opening an application, a page, a search) is not the sustained load
// anticipation is for: raising the fans for it only adds noise.
constexpr double kSustainedConfirmSeconds = 8;
}  // namespace

ControlPolicy::ControlPolicy(ControlLimits limits) : limits_(limits) {}

void ControlPolicy::follow(double duty) {
    if (std::isfinite(duty)) duty_ = std::clamp(duty, 0.0, 1.0);
}

void ControlPolicy::reset(double duty) {
    duty_ = std::clamp(duty, 0.0, 1.0);
    limitRise_.reset();
    drive_ = -1e9;
    sinceIncrease_ = 1e9;
    anticipationLeft_ = 0;
    powerTrend_.clear();
    highLoadSince_.reset();
    lastHighLoad_.reset();
    powerRoseUnderLoad_ = false;
    freshLoad_ = false;
    trend_.clear();
}

double ControlPolicy::cpuLimit(ControlMode) const {
    return limits_.quietCpuLimitC;
}
double ControlPolicy::gpuLimit(ControlMode) const {
    return limits_.quietGpuLimitC;
}

// How far under its limit a quiet mode holds a die: its burst reserve, and the margin. The margin
// is for what the policy cannot see coming: a burst landing on a device that still has headroom,
// and the overshoot of the fans' own answer to a die still heading up. A die whose device already
// runs flat out and whose course has levelled off has neither left: it is held at the settled
// margin. A device whose load cannot be read, or a course not yet known, keeps the whole margin.
ControlPolicy::Room ControlPolicy::roomFor(Die die) const {
    Room room;
    room.reserve = die == Die::cpu ? cpuReserve() : gpuReserve();
    room.ahead = riseAhead(die, horizon_);
    room.margin = margin_;
    const auto load = die == Die::cpu ? trend_.cpuBaseLoadPct() : trend_.gpuBaseLoadPct();
    if (!load) return room;
    const double fromReserve = std::clamp(room.reserve / kFullMarginFromReserveC, 0.0, 1.0);
    const double fromRise =
        room.ahead ? std::clamp(*room.ahead / kFullMarginFromRiseC, 0.0, 1.0) : 1.0;
    const double settled = std::min(limits_.quietSettledMarginC, margin_);
    room.margin = settled + (margin_ - settled) * std::max(fromReserve, fromRise);
    return room;
}

// Positive when the hottest sensor is over the mode's setpoint, negative when under it.
double ControlPolicy::setpointExcess(ControlMode mode, const TelemetrySample& sample) const {
    double worst = -1e9;
    // An idle die sits close to its heatsink; a burst lifts it by its full power over the
    // die-to-sink resistance within a second or two, faster than any fan can answer. So the
    // less busy its device has been, the further under the limit quiet keeps it.
    auto consider = [&](const std::optional<double>& temp, double limit, const Room& room) {
        if (!temp) return;
        double setpoint = mode == ControlMode::performance
                              ? std::min(limits_.performanceTargetC, limit)
                              : limit - room.margin - room.reserve;
        worst = std::max(worst, *temp - setpoint);
    };
    consider(sample.cpuTemperatureC, limits_.quietCpuLimitC, room_[0]);
    consider(sample.gpuTemperatureC, limits_.quietGpuLimitC, room_[1]);
    return worst;
}

// The setpoint excess the dies are heading for: each die's excess plus how far its trend carries
// it over the horizon (less where the rise is levelling off). Falling temperatures are not
// extrapolated: the fans come down by the slow rules only.
double ControlPolicy::predictedExcess(const TelemetrySample& sample) const {
    double worst = -1e9;
    auto consider = [&](const std::optional<double>& temp, double limit, const Room& room) {
        if (!temp) return;
        const std::optional<double>& ahead = room.ahead;
        const double setpoint = limit - room.margin;
        const double rise = ahead ? std::max(0.0, *ahead) : 0.0;
        worst = std::max(worst, *temp + rise - setpoint);
        // The burst reserve is for a die that is not cooling already: one on its way down after
        // its load ended gets there without the fans. Until the slope is known, only the plain
        // setpoint drives the fans up; a burst's own jump is not a trend.
        if (ahead) worst = std::max(worst, *temp + *ahead - (setpoint - room.reserve));
    };
    consider(sample.cpuTemperatureC, limits_.quietCpuLimitC, room_[0]);
    consider(sample.gpuTemperatureC, limits_.quietGpuLimitC, room_[1]);
    return worst;
}

// While a sustained load is anticipated the heatsink is about to take it for minutes: a die
// levelling off after the load's step says nothing of that, so its slope is carried on in full.
std::optional<double> ControlPolicy::riseAhead(Die die, double seconds) const {
    if (anticipationLeft_ > 0) {
        const auto slope = die == Die::cpu ? trend_.cpuSlope() : trend_.gpuSlope();
        return slope ? std::optional<double>(*slope * seconds) : std::nullopt;
    }
    return die == Die::cpu ? trend_.cpuRiseAhead(seconds) : trend_.gpuRiseAhead(seconds);
}

// How far the hottest die will be past its hard limit `seconds` from now, along its rising trend
// (a falling one is not extrapolated); far negative with no temperature at all.
double ControlPolicy::pastLimitAhead(const TelemetrySample& sample, double seconds) const {
    double worst = -1e9;
    auto consider = [&](const std::optional<double>& temp, const std::optional<double>& ahead,
                        double limit) {
        if (!temp) return;
        worst = std::max(worst, *temp + (ahead ? std::max(0.0, *ahead) : 0.0) - limit);
    };
    consider(sample.cpuTemperatureC, riseAhead(Die::cpu, seconds), limits_.quietCpuLimitC);
    consider(sample.gpuTemperatureC, riseAhead(Die::gpu, seconds), limits_.quietGpuLimitC);
    return worst;
}

// A die's reserve against a burst: the jump a full load brings (learned from the steps seen so
// far, a guess before the first) scaled by how much of its device is still idle. A device that
// reports no utilisation is not guessed at.
double ControlPolicy::burstReserve(const std::optional<double>& util,
                                   const std::optional<double>& peak,
                                   const std::optional<double>& jumpC) const {
    if (!util) return 0;
    double level = 100;
    if (peak && *peak - *util >= 20) level = *peak;
    return jumpC.value_or(limits_.quietBurstReserveC) *
           std::clamp((level - *util) / 100.0, 0.0, 1.0);
}

// Measured from the load the heatsink carries: a build's link step or a game's loading screen is
// followed by the load it interrupted, already in the heatsink, so it keeps no reserve; a short
// burst is not carried, so the next one, from the same base load, still has its whole reserve.
double ControlPolicy::cpuReserve() const {
    return burstReserve(trend_.cpuBaseLoadPct(), trend_.cpuRecentPeakPct(), trend_.cpuJumpC());
}

double ControlPolicy::gpuReserve() const {
    return burstReserve(trend_.gpuBaseLoadPct(), trend_.gpuRecentPeakPct(), trend_.gpuJumpC());
}

// Duty per second that moves the widest fan by the quiet ramp, and no fan's own level faster than
// a listener hears as a change: a slow fan a few hundred rpm faster is already a few dB louder.
// `down` gives the same for a fall. A die heading over its hard limit within the trend horizon
// is caught first: its rise may go on towards the ramp in rpm, the more the further past the
// limit its course leads.
double ControlPolicy::quietRampLimit(const TelemetrySample& sample, bool down) const {
    double heard = 1e9;
    double rpmRamp = 1e9;
    const double factor = std::pow(10.0, kQuietRampDbPerSecond / 50.0);
    const double perSecond = down ? 1 - 1 / factor : factor - 1;
    const std::size_t fans = std::min(sample.fanMinRPM.size(), sample.fanMaxRPM.size());
    for (std::size_t i = 0; i < fans; ++i) {
        const double span = sample.fanMaxRPM[i] - sample.fanMinRPM[i];
        if (!(span > 0)) continue;
        const double rpm = sample.fanMinRPM[i] + duty_ * span;
        // A fan standing still is heard when it starts, however gently it is asked to: holding
        // the duty back would only keep it still while the die warms.
        const bool still = i < sample.fanCurrentRPM.size() &&
                           isReadableRPM(sample.fanCurrentRPM[i]) && !(sample.fanCurrentRPM[i] > 0);
        if (!still) heard = std::min(heard, perSecond * rpm / span);
        rpmRamp = std::min(rpmRamp, kQuietRiseRPMPerSecond / span);
    }
    if (rpmRamp >= 1e9) return kQuietRiseDutyWithoutSpeeds;
    if (down) return heard < 1e9 ? heard : rpmRamp;
    const double past = pastLimitAhead(sample, horizon_);
    const double urgency = std::clamp(past / kHeadingOverBlendC, 0.0, 1.0);
    if (heard >= rpmRamp) return rpmRamp;
    return heard + urgency * (rpmRamp - heard);
}

// How fast a quiet mode creeps down under its setpoint (`excess` negative): a little faster the
// further under it the hottest die is, never faster than any fall.
double ControlPolicy::settleRate(double excess) {
    return std::clamp(kTrimGainPerDegreeSecond * (-excess - kTrimBelowC), kTrimPerSecond,
                      kMaxFallPerSecond);
}

bool ControlPolicy::predictsSustainedLoad(const TelemetrySample& sample,
                                          const AdaptiveLeadModel& model) {
    if (sample.totalPowerW) powerTrend_.emplace_back(sample.timestamp, *sample.totalPowerW);
    while (!powerTrend_.empty() && sample.timestamp - powerTrend_.front().first > kTrendSeconds)
        powerTrend_.pop_front();
    auto util = sample.maxUtilizationPct();
    if (!util || *util < model.utilizationThresholdPct) {
        highLoadSince_.reset();
        powerRoseUnderLoad_ = false;
        return false;
    }
    if (!highLoadSince_) {
        highLoadSince_ = sample.timestamp;
        // A pause shorter than the lead (a link step, a loading screen) leaves the heat of the
        // load before it in place: the same workload goes on, and it was anticipated already.
        const double leadSeconds = model.averageLeadMs / 1000.0;
        freshLoad_ = !lastHighLoad_ || sample.timestamp - *lastHighLoad_ > leadSeconds;
    }
    lastHighLoad_ = sample.timestamp;
    if (powerTrend_.size() >= 2 &&
        powerTrend_.back().second - powerTrend_.front().second >= kPowerRiseWatts)
        powerRoseUnderLoad_ = true;
    return freshLoad_ && powerRoseUnderLoad_ &&
           sample.timestamp - *highLoadSince_ >= kSustainedConfirmSeconds - 1e-9;
}

// A predicted sustained load opens a window as long as the lead: inside it the rising trend is
// extrapolated over the whole lead, so the fans start earlier and climb more gently, and they do
// not fall back while the load builds up. A load that falls away before the window is over ends
// it early: the prediction missed.
void ControlPolicy::anticipate(const TelemetrySample& sample, double dt,
                               const AdaptiveLeadModel& model, PolicyOutput& out) {
    if (predictsSustainedLoad(sample, model)) {
        // One window per rise: a load that simply stays high does not keep renewing it.
        powerRoseUnderLoad_ = false;
        anticipationLeft_ = std::max(anticipationLeft_, model.averageLeadMs / 1000.0 + 5);
    }
    if (!highLoadSince_) anticipationLeft_ = 0;
    if (anticipationLeft_ <= 0) return;
    anticipationLeft_ -= dt;
    sinceIncrease_ = 0;
    out.anticipating = true;
    if (out.reason == "holding" || out.reason == "below setpoint" || out.reason == "settling" ||
        out.reason == "above setpoint")
        out.reason = "anticipating sustained load";
}

PolicyOutput ControlPolicy::decide(ControlMode mode, const TelemetrySample& sample, double dt,
                                   const std::optional<AdaptiveLeadModel>& leadModel) {
    PolicyOutput out;
    dt = std::clamp(dt, 0.0, 5.0);
    sinceIncrease_ += dt;
    trend_.add(sample);
    margin_ = limits_.quietSetpointMarginC;
    horizon_ = limits_.trendHorizonS;
    if (mode == ControlMode::quietHybrid && leadModel) {
        // Anticipation looks as far ahead as a sustained load takes to heat the machine, so
        // the fans are already on their way when it arrives: that is what buys the closer hold.
        margin_ = limits_.quietHybridSetpointMarginC;
        if (anticipationLeft_ > 0) horizon_ = std::max(horizon_, leadModel->averageLeadMs / 1000.0);
    }
    // Performance aims at its own target, far under the limits: the room under them is the quiet
    // modes' concern, and its steep rise keeps the whole margin's edge.
    if (mode == ControlMode::performance)
        room_ = {Room{0, margin_, std::nullopt}, Room{0, margin_, std::nullopt}};
    else
        room_ = {roomFor(Die::cpu), roomFor(Die::gpu)};
    double excess = setpointExcess(mode, sample);
    drive_ = excess;
    if (excess <= -1e8) {
        // No temperature at all: run at a safe middle speed rather than guess.
        duty_ = std::max(duty_, 0.6);
        out.duty = duty_;
        out.reason = "no temperature readings";
        return out;
    }
    double riseGain =
        mode == ControlMode::performance ? 2 * kRiseGainPerDegreeSecond : kRiseGainPerDegreeSecond;
    // Quiet modes answer where the temperature is heading, so the fans rise early and gently
    // and settle where the die will, instead of overshooting after the heatsink has warmed.
    const double drive = mode != ControlMode::performance ? predictedExcess(sample) : excess;
    drive_ = drive;
    // Where each die's course leads over the next few seconds, against its hard limit.
    const double hardExcess = pastLimitAhead(sample, kLimitLookaheadS);
    if (drive > 0) {
        const double eased = drive * std::min(1.0, drive / kSoftRiseC);
        double rise = riseGain * eased * dt;
        if (mode != ControlMode::performance)
            rise = std::min(rise, quietRampLimit(sample, false) * dt);
        duty_ = std::min(1.0, duty_ + rise);
        sinceIncrease_ = 0;
        // Eased down far enough that the die climbs again: the fans are where the load needs
        // them, and from here the policy's own ramps hold.
        if (limitRise_ && limitRise_->easing) limitRise_.reset();
        out.reason = "above setpoint";
    } else if (easesAfterLimitRise(mode, drive, hardExcess)) {
        duty_ = std::max(limitRise_->from, duty_ - quietRampLimit(sample, true) * dt);
        limitRise_->easing = true;
        out.reason = "easing after the limit";
    } else if (excess < -limits_.hysteresisC && sinceIncrease_ >= limits_.decreaseHoldSeconds) {
        // Measured from the band's lower edge: the fans settle just under the band instead of
        // sliding through it and coming back up with a second audible change.
        double under = -excess - limits_.hysteresisC;
        double fall = std::min(kMaxFallPerSecond, kFallGainPerDegreeSecond * under);
        // Just under the band a quiet mode falls no slower than it crept inside it.
        if (mode != ControlMode::performance)
            fall = std::min(std::max(fall, settleRate(excess)), quietRampLimit(sample, true));
        fall *= dt;
        duty_ = std::max(0.0, duty_ - fall);
        out.reason = "below setpoint";
    } else if (mode != ControlMode::performance && duty_ > 0 && excess < -kTrimBelowC &&
               drive < -kTrimBelowC && sinceIncrease_ >= limits_.decreaseHoldSeconds) {
        // Inside the band a quiet mode still creeps down, too slowly to be heard, so a rise that
        // went too far does not leave the fans faster than the load needs for as long as the
        // load lasts.
        duty_ =
            std::max(0.0, duty_ - std::min(settleRate(excess), quietRampLimit(sample, true)) * dt);
        out.reason = "settling";
    } else {
        out.reason = "holding";
    }
    // Close to the hard limit the integrator and the quiet ramp may be too slow: past an edge a
    // little under the limit the fans also rise by a rate that grows with the square of the
    // distance past it. It starts from nothing, so a few millidegrees change almost nothing,
    // and it is a flood a degree over the limit.
    // A die creeping towards the limit is met a few seconds early, where the fans can still
    // catch it.
    // The edge stays inside the margins, so holding the setpoint never reaches it.
    const double pastEdge =
        hardExcess + std::min(1.0, 0.5 * std::min(room_[0].margin, room_[1].margin));
    if (pastEdge > 0 && duty_ < 1.0) {
        if (!limitRise_ || limitRise_->easing) limitRise_ = LimitRise{duty_, false};
        duty_ = std::min(1.0, duty_ + kLimitRiseGain * pastEdge * pastEdge * dt);
        sinceIncrease_ = 0;
        out.reason = "near limit";
    }

    if (limitRise_ && duty_ <= limitRise_->from) limitRise_.reset();
    out.duty = duty_;
    if (mode == ControlMode::quietHybrid && leadModel) anticipate(sample, dt, *leadModel, out);
    return out;
}

// The rise the hard limit forces overshoots what the load needs: a die that jumps near its limit
// carries its own heat over a heatsink that warms in minutes, and a few seconds of full air barely
// touch the heatsink. The policy's own fall is paced for its gentle rises and would keep the fans
// loud for a minute or two after the die is back under its setpoint. So once the die heads under
// the setpoint, its course clear of the limit, a quiet mode brings the fans back down at the quiet
// ramp, too gently to be heard, at most to where they were when the limit took over.
bool ControlPolicy::easesAfterLimitRise(ControlMode mode, double drive, double hardExcess) const {
    return mode != ControlMode::performance && limitRise_ && duty_ > limitRise_->from &&
           drive < 0 && hardExcess < -kEaseClearOfLimitC;
}

}  // namespace kelvo

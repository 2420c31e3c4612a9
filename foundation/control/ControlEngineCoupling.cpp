// ControlEngine's coupling: which fans it may probe, the probes themselves, what they have
// shown (kept in the store and handed to the dashboard), and the quiet modes' use of it.
#include <algorithm>
#include <cmath>
#include <limits>

#include "foundation/control/ControlEngine.h"
#include "foundation/control/QuietestMix.h"
#include "foundation/core/FanChoices.h"
#include "foundation/store/SQLiteStore.h"

namespace kelvo {

namespace {
constexpr double kNoProbeAfterStopS = 300;
constexpr double kProbeFromDuty = 0.02;
constexpr double kProbeFromLoadPct = 60;
// A spell of work is told from a spike by how much of the last while was work, smoothed over
// this long: a probe starts once most of it was, and goes on through a compile's pauses and a
// loading screen until little of it was. An idle desktop's spikes never make a spell.
constexpr double kWorkSmoothingS = 20;
constexpr double kWorkStarts = 0.5;
constexpr double kWorkEnds = 0.1;
// Ticks further apart than this are a gap: the spell is read again from what is seen now.
constexpr double kWorkGapS = 5;
// The quiet modes share the work by what the fans cool only once every fan is this sure: each
// share known to within about 0.18 (FanCoupling.cpp), close enough for the mix to be quieter
// than one duty on the machines the control table measures (docs/measurements.md). At 0.4 a
// fresh launch ran one duty for minutes longer than it needed to.
constexpr double kShareFromConfidence = 0.3;
// A change between one duty for every fan and the mix takes a minute.
constexpr double kShareBlendPerSecond = 1.0 / 60;
// A new plan moves each fan at most this fast, unless the shared duty moves the fans faster: the
// quiet ramp, so that a probe easing out on top of it stays under 3 dB in 5 s. At 0.5 dB a second
// the two together made 3.0 dB on a fan falling after a render.
constexpr double kMixRampDbPerSecond = kQuietRampDbPerSecond;

// A fan's speed for a duty, kept off 0 so that its level in dB stays finite.
double audibleRPM(const FanSpeedRange& range, double duty) {
    const double rpm = range.minRPM + std::clamp(duty, 0.0, 1.0) * (range.maxRPM - range.minRPM);
    return std::max(rpm, 0.05 * range.maxRPM);
}

// How many dB a duty's move from `from` to `to` is on the fan it moves most.
double movedDb(const std::vector<FanSpeedRange>& ranges, double from, double to) {
    double most = 0;
    for (const FanSpeedRange& range : ranges) {
        if (!(range.maxRPM > range.minRPM)) continue;
        most = std::max(most,
                        50 * std::abs(std::log10(audibleRPM(range, to) / audibleRPM(range, from))));
    }
    return most;
}

// `from` moved towards `to` by at most `db` on the fan's own level. Where the fans that cool a
// die best are already at their top, more air for it comes from the others, and the plan can ask
// one of them for a great deal of speed at once: that must come as slowly as one duty would have
// moved the fans, or unheard.
double towards(const FanSpeedRange& range, double from, double to, double db) {
    const double span = range.maxRPM - range.minRPM;
    if (!(span > 0)) return to;
    const double rpm = audibleRPM(range, from);
    const double factor = std::pow(10.0, db / 50.0);
    const double high = (rpm * factor - range.minRPM) / span;
    const double low = (rpm / factor - range.minRPM) / span;
    return std::clamp(to, std::min(from, low), std::max(from, high));
}
}  // namespace

void ControlEngine::loadCoupling() {
    if (!store_) return;
    std::string skipped;
    const auto stored = store_->fanCouplings(&skipped);
    if (!stored) {
        record("Fan cooling measurements could not be read (" + store_->lastError() +
                   "); Kelvo measures them again",
               true);
        return;
    }
    if (!skipped.empty()) record("Fan cooling measurements: " + skipped + "; measured again", true);
    coupling_.setEvidence(*stored);
}

void ControlEngine::measureFansAgain() {
    bool kept = true;
    for (const auto& [fan, evidence] : coupling_.evidence())
        if (store_ && !(evidence == FanCouplingEvidence{}))
            kept = store_->saveFanCoupling(fan, FanCouplingEvidence{}) && kept;
    coupling_.setEvidence({});
    couplingAnnounced_ = false;
    record(config_.shareAmongFans
               ? "Fan cooling measurements dropped as asked: every fan follows one duty until "
                 "Kelvo has measured them again, in the quiet modes while the machine is busy"
               : "Fan cooling measurements dropped as asked: they are measured again once sharing "
                 "the work among the fans is turned on");
    if (!kept)
        record("Fan cooling measurements could not be dropped from the database: " +
                   store_->lastError() + "; the next launch starts from them",
               true);
}

bool ControlEngine::drivenAutomatically(const FanState& fan) const {
    return fanUnderAutoControl(fan, effectiveFanChoice(fan, fanChoices_)) &&
           !leftToFirmware_.contains(fan.name) && fan.heldBackWhy.empty() &&
           !refusalHolds(fan.name) && !calibrating(fan.name);
}

void ControlEngine::probeCoupling(const TelemetrySample& sample, double duty,
                                  std::vector<double>& targets) {
    // Only the quiet modes share the work among the fans by what each cools; they learn it.
    if (mode_ != ControlMode::quiet && mode_ != ControlMode::quietHybrid) return;
    // Turned off by the user, nothing more is probed, and a probe under way eases out unheard
    // as one whose load ended does.
    const bool sharing = config_.shareAmongFans;
    // While the fan stop holds a fan still, and for a while after, the fans are at the edge of
    // stopping: a probe would keep one turning that the machine does not need.
    if (!stopGate_.stoppedFans().empty()) lastFanStop_ = sample.timestamp;
    const bool stopping = lastFanStop_ && sample.timestamp - *lastFanStop_ < kNoProbeAfterStopS;
    // At idle and light load the quiet modes hold the fans at their lowest, quieter than the
    // firmware: a probe there would be the loudest thing in the room. Under real load the fans
    // are working anyway and a probe of a few dB on one of them goes unnoticed.
    // A device under heavy load is also working where its fans are still at their lowest (a
    // tower cooler's heatsink takes minutes to warm through).
    const bool busy = sample.maxUtilizationPct().value_or(0) >= kProbeFromLoadPct;
    followWork(sample.timestamp, duty >= kProbeFromDuty || busy);
    std::vector<ProbeFan> fans;
    for (std::size_t i = 0; i < lastFans_.size(); ++i) {
        const FanState& fan = lastFans_[i];
        const double target = i < targets.size() ? targets[i] : 0;
        // A fan standing still would have to start for a probe: that is heard.
        const bool turning =
            target > 0 && !isFanStopTarget(target) && !stopGate_.isStopped(fan.name);
        // What the fan turns at is what cools: a target under a fan's lowest speed, or one its
        // curve misses, is not what its air does.
        const double speed = isReadableRPM(fan.currentRPM) ? fan.currentRPM : target;
        const bool driven = turning && drivenAutomatically(fan);
        fans.push_back({fan.name, target, speed, fan.maxRPM,
                        sharing && driven && probeWorking_ && !stopping, driven});
    }
    coupling_.step(sample.timestamp, sample, fans, targets);
    for (const std::string& fan : coupling_.takeUpdated()) {
        if (!store_) break;
        if (store_->saveFanCoupling(fan, coupling_.evidence().at(fan))) {
            couplingSaveFailed_ = false;
        } else if (!couplingSaveFailed_) {
            couplingSaveFailed_ = true;
            record("Fan cooling measurements are not being kept: " + store_->lastError(), true);
        }
    }
    // A fan that no longer answers as it did is blocked or failing: the quiet modes stop
    // sharing by what it was measured to do, and it is measured again.
    for (const auto& [fan, die] : coupling_.takeFaded()) {
        record("Fan " + fan + " no longer cools the " + die +
                   " as Kelvo measured it (blocked or failing?): every fan follows one duty "
                   "until it is measured again",
               true);
        if (store_ && !store_->saveFanCoupling(fan, FanCouplingEvidence{}) &&
            !couplingSaveFailed_) {
            couplingSaveFailed_ = true;
            record("Fan cooling measurements are not being kept: " + store_->lastError(), true);
        }
    }
    if (coupling_.done() && !couplingAnnounced_) {
        couplingAnnounced_ = true;
        announceCoupling();
    }
    if (!coupling_.done()) couplingAnnounced_ = false;
}

void ControlEngine::announceCoupling() {
    std::string known;
    std::string unknown;
    for (const FanCoupling& c : currentCouplings()) {
        if (coolsMostly(c).empty()) continue;  // nothing measured of it
        const std::string cools = coolsMostlyKnown(c);
        if (cools.empty())
            unknown += (unknown.empty() ? "" : ", ") + c.identity;
        else
            known += (known.empty() ? "" : "; ") + c.identity + " cools mostly the " + cools;
    }
    if (!known.empty()) record("Fan cooling measured: " + known);
    // Probing ended at its limit with nothing learned (temperatures read in whole degrees hide a
    // swell's answer): said, rather than a die named by chance.
    if (!unknown.empty())
        record("Fan cooling could not be measured for " + unknown +
                   ": its swells did not show which part it cools; every fan follows one duty",
               true);
}

void ControlEngine::followWork(Timestamp now, bool working) {
    const double dt = probeWorkAt_ ? now - *probeWorkAt_ : 0;
    probeWorkAt_ = now;
    if (!(dt > 0) || dt > kWorkGapS) {
        probeWork_ = working ? 1 : 0;
    } else {
        probeWork_ += (1 - std::exp(-dt / kWorkSmoothingS)) * ((working ? 1 : 0) - probeWork_);
    }
    if (probeWork_ >= kWorkStarts) probeWorking_ = true;
    if (probeWork_ < kWorkEnds) probeWorking_ = false;
}

std::vector<FanCoupling> ControlEngine::currentCouplings() const {
    // Shares among the fans Kelvo drives itself: the others' air is the firmware's or fixed.
    std::vector<std::string> driven;
    for (const FanState& fan : lastFans_)
        if (drivenAutomatically(fan)) driven.push_back(fan.name);
    const auto shares = fanCouplings(coupling_.evidence(), driven);
    std::vector<FanCoupling> out;
    for (const FanState& fan : lastFans_) {
        const auto it = std::find_if(shares.begin(), shares.end(),
                                     [&](const FanCoupling& c) { return c.identity == fan.name; });
        FanCoupling c = it != shares.end() ? *it : FanCoupling{};
        c.identity = fan.name;
        out.push_back(std::move(c));
    }
    return out;
}

std::vector<double> ControlEngine::shareAmongFans(const TelemetrySample& sample, double dt,
                                                  double duty) {
    std::vector<double> duties(lastFans_.size(), duty);
    // Turned off by the user, a plan in use eases back to one duty as a plan that can no longer
    // be followed does; off from the start there is none.
    if ((mode_ != ControlMode::quiet && mode_ != ControlMode::quietHybrid) ||
        (!config_.shareAmongFans && shareBlend_ <= 0)) {
        shareBlend_ = 0;
        mixDuties_.clear();
        mixFromDuty_.reset();
        return duties;
    }
    // Each die's own policy runs every tick, known coupling or not, so it is in step when the
    // mix takes over.
    double levels[2] = {std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::quiet_NaN()};
    const std::optional<double>* temperatures[2] = {&sample.cpuTemperatureC,
                                                    &sample.gpuTemperatureC};
    for (int die : {0, 1}) {
        if (!*temperatures[die]) {
            diePolicies_[die].reset(duty);
            continue;
        }
        TelemetrySample own = sample;
        (die == 0 ? own.gpuTemperatureC : own.cpuTemperatureC).reset();
        levels[die] = diePolicies_[die].decide(mode_, own, dt, leadModel_).duty;
    }
    // The die heading furthest over its setpoint is the one the shared policy answers: it gets
    // what that policy asks, and is held as it always has been, so with fans that are alike the
    // mix is exactly one duty. The other die gets what its own policy asks, never more.
    int hot = -1;
    if (!std::isnan(levels[0]) || !std::isnan(levels[1])) {
        hot = std::isnan(levels[0]) ||
              (!std::isnan(levels[1]) && diePolicies_[1].drive() > diePolicies_[0].drive());
        levels[hot] = duty;
        if (!std::isnan(levels[1 - hot])) levels[1 - hot] = std::min(levels[1 - hot], duty);
    }
    std::vector<std::size_t> index;  // the mix's fans in lastFans_
    std::optional<QuietestMix> mix =
        config_.shareAmongFans ? fanMix(levels, index) : std::optional<QuietestMix>();
    if (mix) stepTowardsPlan(*mix, index, levels, duty, dt);
    const double step = kShareBlendPerSecond * std::clamp(dt, 0.0, 5.0);
    shareBlend_ = std::clamp(shareBlend_ + (mix ? step : -step), 0.0, 1.0);
    if (shareBlend_ <= 0) mixDuties_.clear();
    for (std::size_t i = 0; i < lastFans_.size(); ++i) {
        const auto it = mixDuties_.find(lastFans_[i].name);
        if (it != mixDuties_.end()) duties[i] = duty + shareBlend_ * (it->second - duty);
    }
    // The shared policy goes on from the cooling its die got: where the fans lag behind the
    // plan, it does not run on past them and then overshoot once they catch up.
    mixFromDuty_ = duty;
    if (mix && hot >= 0) {
        std::vector<double> ran;
        for (std::size_t k : index) ran.push_back(duties[k]);
        mixFromDuty_ = mix->levelAt(hot, ran);
        policy_.follow(*mixFromDuty_);
    }
    return duties;
}

void ControlEngine::stepTowardsPlan(QuietestMix& mix, const std::vector<std::size_t>& index,
                                    const double levels[2], double duty, double dt) {
    std::vector<FanSpeedRange> ranges;
    for (std::size_t k : index) ranges.push_back(fanSpeedRange(lastFans_[k]));
    // Each fan moves at most as far as the shared duty moved the fans this tick, or unheard.
    const double db = std::max(kMixRampDbPerSecond * std::clamp(dt, 0.0, 5.0),
                               movedDb(ranges, mixFromDuty_.value_or(duty), duty));
    const std::vector<double> planned = mix.duties(mix.speeds(levels[0], levels[1]));
    for (std::size_t k = 0; k < index.size() && k < planned.size(); ++k) {
        if (planned[k] < 0) continue;
        // A fan new to the mix ran at the one duty until now.
        const auto it = mixDuties_.find(lastFans_[index[k]].name);
        const double from = it != mixDuties_.end() ? it->second : duty;
        mixDuties_[lastFans_[index[k]].name] = towards(ranges[k], from, planned[k], db);
    }
}

std::optional<QuietestMix> ControlEngine::fanMix(const double levels[2],
                                                 std::vector<std::size_t>& index) const {
    index.clear();
    const std::vector<FanCoupling> couplings = currentCouplings();
    std::vector<QuietestMix::Fan> mixFans;
    for (std::size_t i = 0; i < lastFans_.size() && i < couplings.size(); ++i) {
        const FanState& fan = lastFans_[i];
        if (!drivenAutomatically(fan)) continue;
        const FanCoupling& c = couplings[i];
        if (c.confidence < kShareFromConfidence) return std::nullopt;
        const std::optional<double> perRPM[2] = {c.cpuPerRPM, c.gpuPerRPM};
        QuietestMix::Fan mixFan;
        const FanSpeedRange range = fanSpeedRange(fan);
        mixFan.lo = range.minRPM;
        mixFan.hi = range.maxRPM;
        if (!(mixFan.hi > mixFan.lo)) return std::nullopt;
        for (int die : {0, 1}) {
            if (std::isnan(levels[die])) continue;
            if (!perRPM[die]) return std::nullopt;
            mixFan.weight[die] = *perRPM[die];
        }
        // Kelvo cannot hear its fans: it takes each to be as loud as the others at the same
        // speed (sound power with the fifth power of it), so the fan that cools a die more per
        // rpm is the cheaper one to raise for it.
        mixFan.cost = 1;
        mixFans.push_back(mixFan);
        index.push_back(i);
    }
    if (mixFans.size() < 2) return std::nullopt;
    // A die no fan is seen to cool would get nothing from the mix however hot it ran.
    for (int die : {0, 1}) {
        if (std::isnan(levels[die])) continue;
        double total = 0;
        for (const QuietestMix::Fan& fan : mixFans) total += fan.weight[die];
        if (!(total > 0)) return std::nullopt;
    }
    return QuietestMix(std::move(mixFans));
}

}  // namespace kelvo

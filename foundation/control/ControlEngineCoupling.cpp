// ControlEngine's coupling learning: which fans it may probe, the probes themselves, and what
// they have shown, kept in the store and handed to the dashboard.
#include <algorithm>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/FanChoices.h"
#include "foundation/store/SQLiteStore.h"

namespace kelvo {

namespace {
constexpr double kNoProbeAfterStopS = 300;
constexpr double kProbeFromDuty = 0.02;
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

bool ControlEngine::drivenAutomatically(const FanState& fan) const {
    return fanUnderAutoControl(fan, effectiveFanChoice(fan, fanChoices_)) &&
           !leftToFirmware_.contains(fan.name) && fan.heldBackWhy.empty() &&
           !refusalHolds(fan.name) && !calibrating(fan.name);
}

void ControlEngine::probeCoupling(const TelemetrySample& sample, double duty,
                                  std::vector<double>& targets) {
    // Only the quiet modes share the work among the fans by what each cools; they learn it.
    if (mode_ != ControlMode::quiet && mode_ != ControlMode::quietHybrid) return;
    // While the fan stop holds a fan still, and for a while after, the fans are at the edge of
    // stopping: a probe would keep one turning that the machine does not need.
    if (!stopGate_.stoppedFans().empty()) lastFanStop_ = sample.timestamp;
    const bool stopping = lastFanStop_ && sample.timestamp - *lastFanStop_ < kNoProbeAfterStopS;
    // At idle and light load the quiet modes hold the fans at their lowest, quieter than the
    // firmware: a probe there would be the loudest thing in the room. Under real load the fans
    // are working anyway and a probe of a couple of dB on one of them goes unnoticed.
    const bool working = duty >= kProbeFromDuty;
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
        fans.push_back({fan.name, target, speed, fan.maxRPM,
                        turning && working && !stopping && drivenAutomatically(fan)});
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
    if (coupling_.done() && !couplingAnnounced_) {
        couplingAnnounced_ = true;
        announceCoupling();
    }
    if (!coupling_.done()) couplingAnnounced_ = false;
}

void ControlEngine::announceCoupling() {
    std::string text;
    for (const FanCoupling& c : currentCouplings()) {
        const std::string cools = coolsMostly(c);
        if (cools.empty()) continue;
        text += (text.empty() ? "" : "; ") + c.identity + " cools mostly the " + cools;
    }
    if (!text.empty()) record("Fan cooling measured: " + text);
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

}  // namespace kelvo

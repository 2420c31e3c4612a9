#include "foundation/control/FanStopGate.h"

#include <algorithm>

namespace kelvo {

bool FanStopGate::decide(const std::string& fan, bool mayStop, double duty,
                         const std::vector<Die>& dies, Timestamp now, Change* change) {
    if (change) *change = Change::none;
    State& state = fans_[fan];
    auto underBy = [&](double margin) {
        return std::all_of(dies.begin(), dies.end(),
                           [&](const Die& d) { return d.temperatureC <= d.limitC - margin; });
    };
    auto headroom = [&] {
        double least = 1e9;
        for (const Die& d : dies) least = std::min(least, d.limitC - d.temperatureC);
        return least;
    };
    // With no die to judge by, nothing is known to be cool.
    const bool cool = !dies.empty() && underBy(config_.coolMarginC);
    const bool warmed = !underBy(config_.coolMarginC - config_.warmingC);
    const bool urgent = !underBy(config_.urgentMarginC) || duty > config_.urgentDutyAbove;
    const double held = state.since ? now - *state.since : 1e18;
    if (state.stopped) {
        // The policy asking for air restarts the fan at once, at the gentle speed it asks for:
        // held still longer, its duty would go on climbing and the fan would start loud. The
        // minimum stop only holds against a die that has warmed while the policy is content.
        const bool needsAir = duty > config_.restartDutyAbove;
        const bool wantsRun = needsAir || (warmed && held >= config_.minimumStopSeconds);
        if (mayStop && !urgent && !wantsRun) return true;
        state.stopped = false;
        state.since = now;
        state.restarted = now;
        if (needsAir && !dies.empty()) state.askedAtHeadroomC = headroom();
        if (change) *change = Change::restarted;
        return false;
    }
    if (!mayStop || !cool || duty > config_.stopDutyAtMost || held < config_.minimumRunSeconds)
        return false;
    // Run at its lowest, it holds the die where the policy wanted air; stopped, the die would
    // warm back to that and the fan start again, a minute or so later, for as long as the load
    // lasts.
    if (state.askedAtHeadroomC &&
        headroom() < std::min(*state.askedAtHeadroomC + config_.stopBelowRestartC,
                              config_.stopHeadroomAtMostC))
        return false;
    state.stopped = true;
    state.askedAtHeadroomC.reset();
    state.since = now;
    state.restarted.reset();
    if (change) *change = Change::stopped;
    return true;
}

bool FanStopGate::isStopped(const std::string& fan) const {
    auto it = fans_.find(fan);
    return it != fans_.end() && it->second.stopped;
}

std::set<std::string> FanStopGate::stoppedFans() const {
    std::set<std::string> names;
    for (const auto& [name, state] : fans_)
        if (state.stopped) names.insert(name);
    return names;
}

std::optional<Timestamp> FanStopGate::restartedAt(const std::string& fan) const {
    auto it = fans_.find(fan);
    return it == fans_.end() ? std::nullopt : it->second.restarted;
}

}  // namespace kelvo

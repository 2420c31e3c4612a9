// Decides, fan by fan, when auto control lets a fan stand still and when it starts it again.
// A fan stops only while the policy asks for the bottom of its range and every die is well
// under its limit, and stays stopped (or running) long enough that it never flaps.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

struct FanStopConfig {
    double coolMarginC = 10;        // every die at least this far under its limit to stop
    double warmingC = 4;            // a die this much over the stop line starts the fans again
    double stopDutyAtMost = 0.005;  // the policy's duty counts as "the bottom" up to here
    double restartDutyAbove = 0.05;
    // Past these the fan starts at once, however short its stop has been.
    double urgentMarginC = 3;
    double urgentDutyAbove = 0.5;
    // A die that warms restarts a stopped fan only after this; the policy asking for air, at once.
    double minimumStopSeconds = 60;
    double minimumRunSeconds = 60;
    // A fan the policy had to start again stops again only once the hottest die has this much
    // more headroom than it had then: at the same warmth it would only be started again.
    double stopBelowRestartC = 3;
    // ... but never more than this: a fan started for a burst's steep rise, far under every
    // limit, stops again once the dies are this far under theirs.
    double stopHeadroomAtMostC = 25;
};

class FanStopGate {
public:
    struct Die {
        double temperatureC = 0;
        double limitC = 0;
    };
    enum class Change { none, stopped, restarted };

    explicit FanStopGate(FanStopConfig config = {}) : config_(config) {}

    // One tick for one fan: whether it stands still from now on, and what changed. `mayStop`
    // is false for a fan that must turn (its choice, a pump, a fan that cannot stop): a stopped
    // one restarts at once.
    bool decide(const std::string& fan, bool mayStop, double duty, const std::vector<Die>& dies,
                Timestamp now, Change* change = nullptr);
    bool isStopped(const std::string& fan) const;
    std::set<std::string> stoppedFans() const;
    // When the fan was last started again after a stop; none while stopped or never stopped.
    std::optional<Timestamp> restartedAt(const std::string& fan) const;
    // Kelvo gave the fan (or every fan) to the firmware: its stop no longer holds.
    void forget(const std::string& fan) { fans_.erase(fan); }
    void forgetAll() { fans_.clear(); }
    const FanStopConfig& config() const { return config_; }

private:
    struct State {
        bool stopped = false;
        std::optional<Timestamp> since;  // the last stop or restart
        std::optional<Timestamp> restarted;
        // The least headroom under a limit when the policy last asked this fan for air.
        std::optional<double> askedAtHeadroomC;
    };
    FanStopConfig config_;
    std::map<std::string, State> fans_;
};

}  // namespace kelvo

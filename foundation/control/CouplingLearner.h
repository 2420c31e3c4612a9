// Learns which die each fan cools, on the machine it runs on, from small slow probes: while Kelvo
// drives the fans, one fan at a time swells a little faster and back (2 dB on its own, 20 s
// each way, so no one hears a change). Each die's temperature over the probe is
// fitted with everything else that moved it (the load, every fan's speed, a drift) seen through
// the die's heatsink lag, so a probe under a changing load still counts for what it shows. What
// each probe shows is kept as evidence per fan identity; the shares follow from it
// (FanCoupling.h). Probing stops once every fan is known surely, and starts again for a new fan.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/core/FanCoupling.h"
#include "foundation/core/Types.h"

namespace kelvo {

struct CouplingLearnerConfig {
    // How much louder the probed fan runs (the fan law: 50·log10 of its speed), reached over
    // rampSeconds: a tenth of a dB a second. On top of the quiet modes' own ramp (0.45 dB a
    // second) that stays under the 3 dB within 5 s that is heard as a change; faster swells
    // made the two together cross it.
    double probeDb = 2;
    double rampSeconds = 20;
    // The probe rises for this long and falls for as long: with rampSeconds, a swell to the
    // full probeDb and straight back. It is read with the rest of as long before it. The fit
    // reads each die through its heatsink's lag, so a probe need not wait for a tower cooler to
    // answer in full, and the count of probes is what pins a share down more than their size:
    // at 120 s a fan had one probe in the first half hour of mixed use, at 30 s (3 dB) four,
    // too few to tell a tower cooler's fan from the case fans in that time. At 15 s the shares
    // came out skewed towards the fan with the widest range.
    double halfSeconds = 20;
    // Once Kelvo has the fans (a launch, the end of a fallback), no probe for this long: the
    // fans are the policy's to settle, and a first two minutes no louder than the firmware's
    // is what a launch owes the user.
    double firstProbeAfterSeconds = 120;
    // A die that is this little over the coolest it has been this session answers too faintly.
    double minExcessC = 8;
    // A probe whose load has stayed this much lower for loadGoneSeconds is dropped: the load
    // that made it worth its noise is over (a loading screen is not).
    double loadFallPct = 20;
    double loadGoneSeconds = 30;
    // Probing ends once every fan is this sure, or has been probed this often.
    double enoughConfidence = 0.9;
    int maxProbesPerFan = 40;
    // Once every fan is known, one fan in turn is probed again this often: a fan that has been
    // blocked or is failing no longer answers as it did. A recheck is recheckProbes probes of one
    // fan in a row, judged together: one short swell is too faint to call a fan blocked. An
    // answer under weakAnswerShare of what the fan showed before, for a die it cools mostly,
    // counts as weak; weakRechecks of them in a row and what was known of the fan is dropped, to
    // be measured again. A sound fan's rechecks read about as much as before; a weak fan's, a
    // third of it. Swells under a swinging load now and then read a sound fan low, and a fan
    // reported blocked that is not is an alarm the user cannot check: an answer is weak only
    // where it is under the line by two of its standard errors, and it takes three in a row.
    double recheckSeconds = 4 * 3600;
    double confirmSeconds = 1800;  // a weak answer is checked again on the same fan this soon
    int recheckProbes = 4;
    double weakAnswerShare = 0.4;
    int weakRechecks = 3;
};

// A fan as the engine drives it this tick.
struct ProbeFan {
    std::string identity;
    double targetRPM = 0;  // what the engine writes this tick, before any probe
    // What it turns at now, as read (the probe shows in it as the fan follows); the target where
    // the speed cannot be read.
    double speedRPM = 0;
    double maxRPM = 0;
    // Kelvo drives it under auto control and it turns: it may be probed.
    bool probeable = false;
    // Kelvo drives it and it turns, though it may not be probed now (the machine no longer works
    // hard enough): a probe on it that ends early is eased out, not dropped.
    bool driven = false;
};

class CouplingLearner {
public:
    explicit CouplingLearner(CouplingLearnerConfig config = {});

    // What is known, as stored (at a launch, or nothing when the user has it measured again):
    // learning goes on from it, and no recheck of what was known before is left under way.
    void setEvidence(std::map<std::string, FanCouplingEvidence> evidence);
    const std::map<std::string, FanCouplingEvidence>& evidence() const { return evidence_; }

    // One tick while Kelvo drives the fans, with `fans` in the engine's order: raises the probed
    // fan's target in `targets` (same order). Ticks that do not come (Kelvo not driving, a
    // fallback) end the probe in flight. The policy goes on as it would: the fit reads every
    // fan's speed, so the fans it slows while a probe cools the die are accounted for.
    void step(Timestamp now, const TelemetrySample& sample, const std::vector<ProbeFan>& fans,
              std::vector<double>& targets);
    std::optional<std::string> probedFan() const;
    // Probing has ended: every fan it may probe is known.
    bool done() const { return done_; }
    // Fans whose evidence grew since the last call (to be stored).
    std::vector<std::string> takeUpdated();
    // Fans that no longer cool as they did, with the die ("CPU", "GPU"), since the last call:
    // their evidence is gone (to be stored empty) and they are measured again.
    std::vector<std::pair<std::string, std::string>> takeFaded();

private:
    struct Tick {
        Timestamp at = 0;
        std::optional<double> cpuC;
        std::optional<double> gpuC;
        std::vector<double> inputs;  // the loads, the dies' temperatures, each fan's speed
        // Per lag: the inputs seen through the lag.
        std::vector<std::vector<double>> lagged;
        std::vector<double> fast;  // cpu load, gpu load through a short die lag
    };
    struct Turn {
        std::size_t fan = 0;  // index into fans_
        Timestamp start = 0;  // the probe's faster half begins
        double half = 0;      // how long each half lasts
        double factor = 1;    // speed multiplier at the top of the probe
        double cpuLoad = 0;   // each device's load when it began
        double gpuLoad = 0;
        std::optional<Timestamp> lowSince;  // a device's load has been under it since
        bool recheck = false;               // of a fan already known
    };

    void restart(const std::vector<ProbeFan>& fans);
    void record(Timestamp now, const TelemetrySample& sample, const std::vector<ProbeFan>& fans);
    bool warm(const Tick& tick) const;
    bool warmThroughRest(Timestamp now) const;
    std::optional<Turn> nextTurn(Timestamp now, const std::vector<ProbeFan>& fans);
    double factorAt(Timestamp now) const;
    // A recheck under way: one fan, probed recheckProbes times in a row. What its probes show is
    // kept aside until they are judged together.
    struct Recheck {
        std::string fan;
        int probes = 0;
        FanCouplingEvidence shown;  // these probes' answers alone
    };

    void evaluate(const Turn& turn);
    void learnDie(const Turn& turn, bool gpu, double coolest);
    // A recheck's answer for one die against what the fan showed before: weak, or not; none
    // where the fan does not cool that die mostly, nothing was known or the probes said nothing.
    std::optional<bool> weakAnswer(const Recheck& recheck, bool gpu) const;
    void judgeRecheck();
    bool enough(const std::vector<ProbeFan>& fans) const;

    CouplingLearnerConfig config_;
    std::map<std::string, FanCouplingEvidence> evidence_;
    std::vector<std::string> updated_;
    std::vector<std::string> fans_;  // identities, in the order the ticks keep their speeds
    std::deque<Tick> ticks_;
    std::vector<std::vector<double>> lagState_;  // per lag, per input
    std::vector<double> fastState_;
    std::optional<Timestamp> lastStep_;
    std::optional<Timestamp> drivingSince_;  // the first tick since the last restart
    std::optional<Turn> turn_;
    // A probe that ended early, easing out: its fan and the raise it had reached.
    struct Fade {
        std::size_t fan = 0;
        double factor = 1;
        Timestamp from = 0;
    };
    std::optional<Fade> fade_;
    void applyFade(Timestamp now, const std::vector<ProbeFan>& fans, std::vector<double>& targets);
    std::optional<Timestamp> nextStart_;  // turns follow each other from here
    std::size_t nextFan_ = 0;
    std::optional<double> coolestCpu_;
    std::optional<double> coolestGpu_;
    bool done_ = false;
    std::optional<Timestamp> recheckDue_;
    bool rechecking_ = false;
    std::optional<Recheck> recheck_;
    std::size_t silentRechecks_ = 0;  // rechecks in a row that could say nothing
    std::map<std::string, int> weakInARow_;
    std::optional<std::string> confirmFan_;  // the next recheck is of this fan
    std::vector<std::pair<std::string, std::string>> faded_;
};

}  // namespace kelvo

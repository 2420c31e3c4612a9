// One control-loop tick, synchronously: sample → decide → apply → assess → snapshot.
// ControlLoop runs it on its own thread; tests drive it directly with virtual time.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "foundation/control/ControlPolicy.h"
#include "foundation/control/CouplingLearner.h"
#include "foundation/control/FanStopGate.h"
#include "foundation/control/FanWriter.h"
#include "foundation/control/QuietestMix.h"
#include "foundation/control/ThrottleAssessor.h"
#include "foundation/core/FanChoices.h"
#include "foundation/core/FanController.h"
#include "foundation/core/FanCoupling.h"
#include "foundation/core/TelemetryProvider.h"
#include "foundation/core/Types.h"

namespace kelvo {

class EventRing;
class SQLiteStore;
class HardwareCapabilityTracker;

struct ControlLoopConfig {
    double tickSeconds = 1.0;  // clamped to [0.25, 5]
    ControlLimits limits;
    ThrottleAssessorConfig throttle;
    double fallbackRetrySeconds = 30;
    int timeoutsBeforeFallback = 3;
    double boundaryWindowSeconds = 300;
    int boundaryHitsForWarning = 3;
    // The quiet modes measure which die each fan cools and share the work by it. Off, every fan
    // Kelvo drives follows one duty and none is probed: the quiet modes as they were before they
    // measured the fans (the user's choice, and the control table's reference for them).
    bool shareAmongFans = true;
};

// Everything a subscriber learns from one tick.
struct ControlSnapshot {
    TelemetrySample sample;
    std::optional<ControlDecision> decision;         // what was applied (none: firmware control)
    std::optional<ControlDecision> previewDecision;  // what quietHybrid would do, in systemAuto
    bool previewActive = false;
    // The fans as the back-end reported them this tick (what each is known to do at low duty),
    // the ones Kelvo has stopped, and the calibrations asked for through Kelvo, by fan.
    std::vector<FanState> fans;
    std::set<std::string> stoppedFans;
    std::map<std::string, FanCalibrationStatus> calibrations;
    // Which die each fan cools, as far as Kelvo has measured it, in the order of `fans`.
    std::vector<FanCoupling> couplings;
    // The quiet mode shares the work among the fans by what each cools (not one duty for all).
    bool fansShared = false;
    ThrottleAssessment assessment;
    ControlMode mode = ControlMode::systemAuto;
    ControlStatus status = ControlStatus::starting;
    ControlAuthorityState authority = ControlAuthorityState::system;
    bool throttleWarning = false;
    bool cooldownActive = false;
    GPUClockWindowAnalysisConfig gpuConfig;
    double tickDurationSeconds = 0;  // how long the tick took (set by the control loop)
};

class ControlEngine {
public:
    ControlEngine(std::shared_ptr<TelemetryProvider> telemetry, std::shared_ptr<FanController> fans,
                  std::shared_ptr<SQLiteStore> store, std::shared_ptr<EventRing> events,
                  std::shared_ptr<HardwareCapabilityTracker> tracker,
                  ControlLoopConfig config = {});
    ~ControlEngine();

    ControlSnapshot tick(Timestamp now);

    void applyMode(ControlMode mode);
    void setCooldownEnabled(bool enabled);
    // The user's switch for sharing the work among the fans (ControlLoopConfig::shareAmongFans):
    // turned off, a shared plan eases back to one duty over a minute and probing stops; what
    // was measured is kept for when it is turned on again.
    void setShareAmongFans(bool share);
    // Drops what Kelvo has measured of which die each fan cools, in the store too, to measure it
    // from the start (fans moved, a cooler changed): every fan follows one duty until then.
    void measureFansAgain();
    // The machine is about to sleep (true) or has woken (false): while it sleeps every fan is
    // the firmware's and nothing is written.
    void setSleeping(bool sleeping);
    // Which fans Kelvo drives and how; takes effect on the next tick.
    // A choice that could not be read is the firmware's, with one event per distinct problem.
    void setFanChoices(FanChoices choices);
    // Asks the back-end to calibrate one fan (full speed down to its lowest, and to a stop where
    // it stops); an event says what happens, or why it cannot. Progress follows as events.
    bool requestFanCalibration(const std::string& identity);
    const FanChoices& fanChoices() const { return fanChoices_; }
    // The user's quiet limits and performance target (already checked against the dies).
    void setUserLimits(double cpuQuietC, double gpuQuietC, double performanceTargetC);
    void recordEvent(const RuntimeEvent& event);
    // Gives the fans back to the firmware (shutdown, or before the process goes away).
    void releaseFans(const char* why);

    void setLearnedModel(std::optional<LearnedModel> model);
    void setAdaptiveLeadModel(std::optional<AdaptiveLeadModel> model) { leadModel_ = model; }
    // While a run id is set every tick's sample is also stored as a sample of that run.
    void setActiveProfilingRunID(std::optional<std::int64_t> id);

    ControlMode currentMode() const { return mode_; }
    ControlStatus currentStatus() const { return status_; }
    ControlAuthorityState controlAuthorityState() const { return authority_; }
    bool isThrottleWarningActive() const { return warning_; }
    bool isCooldownEnabled() const { return cooldown_; }
    const std::optional<LearnedModel>& currentModel() const { return model_; }
    const std::optional<AdaptiveLeadModel>& adaptiveLeadModel() const { return leadModel_; }
    std::optional<std::int64_t> activeProfilingRunID() const { return activeRunID_; }
    GPUClockWindowAnalysisConfig gpuAnalysisConfig() const;
    const ControlLoopConfig& config() const { return config_; }

private:
    void readFans(TelemetrySample& sample);
    // After failed reads: readings kept from the last answer turn absent once they are old.
    void markOldFanReadings(Timestamp now);
    void noticeReclaimedFans(Timestamp now);
    void noticeStalledFans(Timestamp now);
    // Replaces the targets of fans that may stand still now with kFanStopRPM; `duties` is what
    // the policy asked of each fan.
    void applyFanStops(std::vector<double>& targets, const std::vector<double>& duties,
                       const TelemetrySample& sample);
    void followCalibrations(Timestamp now);
    bool calibrating(const std::string& fan) const;
    void noticeFansComingAndGoing();
    void noticeLostFans();
    // The back-end's floors and forbidden fans, said once each as they appear.
    void noticeFanLimits();
    // Fans whose targets the back-end refused one by one: each left to the firmware, tried again
    // after the fallback retry period; `targets` is what this round asked for.
    void noticeRefusedFans(const std::vector<double>& targets);
    // A refused fan still waiting for its next try.
    bool refusalHolds(const std::string& fan) const;
    std::vector<double> targetsFor(double duty) const;
    std::vector<double> targetsFor(const std::vector<double>& duties) const;  // one per fan
    void resetPolicies(double duty);
    std::optional<ControlDecision> controlStep(const TelemetrySample& sample, double dt);
    bool applyTargets(const std::vector<double>& targets);
    void enterFallback(const std::string& reason);
    // The dies the fans answer to that gave no temperature this tick ("CPU", "GPU",
    // "CPU and GPU"); empty while every one of them can be read.
    std::string blindDies(const TelemetrySample& sample);
    // Hands the fans to the firmware for as long as Kelvo cannot see what they cool.
    void holdBlind(const std::string& dies);
    // The fans' speed as a share of their range, where the speeds can be read.
    double currentFanDuty() const;
    // ControlEngineCoupling.cpp: learning which die each fan cools.
    void loadCoupling();
    // Kelvo drives the fan under auto control (not the firmware's, fixed, a pump, calibrating).
    bool drivenAutomatically(const FanState& fan) const;
    void probeCoupling(const TelemetrySample& sample, double duty, std::vector<double>& targets);
    void announceCoupling();
    // Each fan's duty: `duty` for every fan, or in the quiet modes, once every fan Kelvo drives
    // is known, the quietest mix that gives each die the cooling its own policy asks for.
    std::vector<double> shareAmongFans(const TelemetrySample& sample, double dt, double duty);
    // The fans Kelvo drives, for the dies with a level (not NaN) in `levels`, as the mix sees
    // them, and where each is in lastFans_; none where not every one is known well enough.
    std::optional<QuietestMix> fanMix(const double levels[2],
                                      std::vector<std::size_t>& index) const;
    // Each fan's mix duty a step towards the plan for `levels`, no faster than `towards` lets it.
    void stepTowardsPlan(QuietestMix& mix, const std::vector<std::size_t>& index,
                         const double levels[2], double duty, double dt);
    std::vector<FanCoupling> currentCouplings() const;
    void trackBoundary(const TelemetrySample& sample);
    void updateCooldown(const TelemetrySample& sample);
    void record(std::string message, bool failure = false);
    void recordRunSample(const TelemetrySample& sample);

    std::shared_ptr<TelemetryProvider> telemetry_;
    std::shared_ptr<FanController> fans_;
    std::shared_ptr<SQLiteStore> store_;
    std::shared_ptr<EventRing> events_;
    std::shared_ptr<HardwareCapabilityTracker> tracker_;
    ControlLoopConfig config_;
    FanWriter writer_;
    ControlPolicy policy_;
    ControlPolicy previewPolicy_;
    // One policy per die (CPU, GPU), each seeing only its own die: how much cooling each asks for.
    std::array<ControlPolicy, 2> diePolicies_;
    // How far the fans have moved from one shared duty to the mix (0-1): a change of plan is
    // eased in rather than heard as a step.
    double shareBlend_ = 0;
    std::map<std::string, double> mixDuties_;  // by fan: the mix's last duty for it
    std::optional<double> mixFromDuty_;        // where the shared duty goes on from next tick
    ThrottleAssessor assessor_;
    CouplingLearner coupling_;
    bool couplingSaveFailed_ = false;
    bool couplingAnnounced_ = false;
    std::optional<Timestamp> lastFanStop_;  // a fan stood still by Kelvo's choice
    // How much of the last while the machine has worked hard (0-1, smoothed), and whether that
    // is a spell of work a probe may start in and go on through.
    double probeWork_ = 0;
    bool probeWorking_ = false;
    std::optional<Timestamp> probeWorkAt_;
    void followWork(Timestamp now, bool working);

    ControlMode mode_ = ControlMode::systemAuto;
    ControlStatus status_ = ControlStatus::starting;
    ControlAuthorityState authority_ = ControlAuthorityState::system;
    bool warning_ = false;
    bool cooldown_ = false;
    bool releasePending_ = true;  // firmware control must be (re)asserted on the next tick
    std::optional<LearnedModel> model_;
    std::optional<AdaptiveLeadModel> leadModel_;
    std::optional<std::int64_t> activeRunID_;
    bool runSampleFailureReported_ = false;

    std::vector<FanState> lastFans_;
    FanChoices fanChoices_;
    std::set<std::string> choiceProblemsShown_;       // "fan: problem", as last reported
    std::map<std::string, std::string> limitsShown_;  // fan -> its floor or hold-back, as said
    // Fans Kelvo no longer drives until the user picks a mode again: a stalled rotor, or a mode
    // someone else set. They get target 0 (the firmware's curve).
    std::set<std::string> leftToFirmware_;
    struct Refusal {
        Timestamp at = 0;
        std::string why;
    };
    std::map<std::string, Refusal> refused_;  // by fan: its target was refused (the last time)
    std::map<std::string, int> stalledTicks_;
    FanStopGate stopGate_;
    // Calibrations asked for through Kelvo, with the last quarter of progress reported.
    std::map<std::string, int> calibrationQuarters_;
    std::map<std::string, FanCalibrationStatus> calibrations_;
    std::map<std::string, Timestamp> calibrationEnded_;       // a stall waits for the start kick
    std::map<std::string, std::deque<Timestamp>> takebacks_;  // by fan, inside the window
    std::optional<std::set<std::string>> knownFans_;          // none until the first read
    bool blind_ = false;
    bool sleeping_ = false;
    // Fans were taken back from Kelvo behind its back: hand-over shown for a tick, then retaken.
    bool leaseLost_ = false;
    bool leaseRetakePending_ = false;
    bool gpuTemperatureSeen_ = false;
    bool fanTelemetryDegraded_ = false;
    // When the back-end last answered a fan read; kept readings older than a few ticks are
    // no longer shown as current.
    std::optional<Timestamp> fansReadAt_;
    bool fanReadingsStale_ = false;
    bool fallback_ = false;
    std::string fallbackReason_;
    Timestamp lastFallbackProbe_ = 0;
    int consecutiveTimeouts_ = 0;
    bool writeTimeoutReported_ = false;

    std::deque<Timestamp> boundaryHits_;
    bool cpuArmed_ = true;
    bool gpuArmed_ = true;
    std::optional<Timestamp> lastTick_;
};

}  // namespace kelvo

// Per-mode fan-speed policy: turns temperatures into a fan duty between each fan's min and max.
#pragma once

#include <array>
#include <deque>
#include <optional>

#include "foundation/control/TemperatureTrend.h"
#include "foundation/core/Types.h"

namespace kelvo {

struct ControlLimits {
    double quietCpuLimitC = 88;
    double quietGpuLimitC = 85;
    double performanceTargetC = 70;
    double cooldownMarginC = 10;
    // A decrease only starts this long after the last increase, and only below the setpoint
    // minus the hysteresis, so the fans never hunt audibly.
    double decreaseHoldSeconds = 12;
    double hysteresisC = 3;
    double quietSetpointMarginC = 2;           // quiet aims this far under its limit
    double quietHybridSetpointMarginC = 1.25;  // quietHybrid, with a lead model to look ahead
    // ... but only this far under it for a die whose device already runs flat out and whose
    // course has levelled off: no burst is left to come, and it moves only as its heatsink does
    double quietSettledMarginC = 1;
    // and further under it by the jump a burst would bring to an idle die; before a die's jump
    // has been seen, this much on an idle machine
    double quietBurstReserveC = 6;
    double trendHorizonS = 30;  // a rising temperature is extrapolated this far
};

// Quiet modes move no fan's own level faster than this (the fan law, 50·log10 of its speed). A
// fan's own level moving 3 dB within 5 s is heard as a change; this ramp stays under it with room
// to spare. At 0.5 dB a second it made 2.5 dB in 5 s, and a fan lagging its target or a rise
// hurried by a limit now and then took it over.
inline constexpr double kQuietRampDbPerSecond = 0.45;

// How far between a fan's minimum (0) and maximum (1) it should run.
struct PolicyOutput {
    double duty = 0;
    bool anticipating = false;
    std::string reason;
};

class ControlPolicy {
public:
    explicit ControlPolicy(ControlLimits limits = {});

    // One tick. `mode` must not be systemAuto's release: the loop asks for quietHybrid when it
    // only needs a preview. The policy keeps separate state per mode family via reset().
    PolicyOutput decide(ControlMode mode, const TelemetrySample& sample, double dt,
                        const std::optional<AdaptiveLeadModel>& leadModel);
    void reset(double duty = 0);
    // Goes on from `duty` next tick, everything else as it was: where the duty the fans ran at
    // was not this policy's own, it answers from what the fans did, not from a duty never used.
    void follow(double duty);
    double duty() const { return duty_; }
    // How far over its setpoint the hottest die it sees was heading last tick (°C; negative
    // under it, very negative with no reading): what its duty answered.
    double drive() const { return drive_; }
    const ControlLimits& limits() const { return limits_; }
    void setLimits(const ControlLimits& limits) { limits_ = limits; }

    // The temperature limits that count as "the boundary" for this mode.
    double cpuLimit(ControlMode mode) const;
    double gpuLimit(ControlMode mode) const;

private:
    double setpointExcess(ControlMode mode, const TelemetrySample& sample) const;
    double predictedExcess(const TelemetrySample& sample) const;
    double burstReserve(const std::optional<double>& util, const std::optional<double>& peak,
                        const std::optional<double>& jumpC) const;
    double cpuReserve() const;
    double gpuReserve() const;
    double quietRampLimit(const TelemetrySample& sample, bool down) const;
    static double settleRate(double excess);
    double pastLimitAhead(const TelemetrySample& sample, double seconds) const;
    bool easesAfterLimitRise(ControlMode mode, double drive, double hardExcess) const;
    enum class Die { cpu, gpu };
    std::optional<double> riseAhead(Die die, double seconds) const;
    // How far under a die's limit it is held this tick (its burst reserve and the margin), and
    // how far its course rises over the trend's horizon (nothing while its slope is unknown).
    struct Room {
        double reserve = 0;
        double margin = 0;
        std::optional<double> ahead;
    };
    Room roomFor(Die die) const;
    bool predictsSustainedLoad(const TelemetrySample& sample, const AdaptiveLeadModel& model);
    void anticipate(const TelemetrySample& sample, double dt, const AdaptiveLeadModel& model,
                    PolicyOutput& out);

    ControlLimits limits_;
    TemperatureTrend trend_;
    double margin_ = 0;           // this tick's distance under the limits
    std::array<Room, 2> room_{};  // ... and the CPU's and the GPU's own room, as each is now
    double horizon_ = 0;          // how far ahead a rising temperature is extrapolated
    double duty_ = 0;
    // A rise the hard limit forced: the duty when it began, and whether the fans are easing back.
    struct LimitRise {
        double from = 0;
        bool easing = false;
    };
    std::optional<LimitRise> limitRise_;
    double drive_ = -1e9;
    double sinceIncrease_ = 1e9;
    double anticipationLeft_ = 0;
    std::deque<std::pair<Timestamp, double>> powerTrend_;
    std::optional<Timestamp> highLoadSince_;  // utilisation over the model's threshold since
    std::optional<Timestamp> lastHighLoad_;
    bool powerRoseUnderLoad_ = false;
    bool freshLoad_ = false;  // the load began after a pause longer than the lead
};

}  // namespace kelvo

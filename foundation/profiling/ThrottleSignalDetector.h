// Finds throttle signals in the samples of an open capture run: thermal pressure as it rises, a
// clock droop held under load and heat, and a sudden GPU burst ramp. State and arithmetic only.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/core/ProfilingTypes.h"
#include "foundation/core/Types.h"

namespace kelvo {

// One signal found in a sample: what the run's event log records for it.
struct ThrottleSignal {
    std::string kind;      // "thermal_pressure", "freq_droop" or "burst_ramp"
    std::string severity;  // the pressure level, "moderate" or "high"
    std::vector<std::pair<std::string, double>> figures;  // the signal's own, after the sample's
    bool operator==(const ThrottleSignal&) const = default;
};

// A sample's clock drops under the baseline, how strongly they point at throttling, and the droop
// signal when this sample completes a streak.
struct DroopReading {
    double cpuDrop = 0;  // a fraction of the reference clock (an absolute drop below 1 MHz)
    double gpuDrop = 0;
    double score = 0;
    std::optional<ThrottleSignal> signal;
};

class ThrottleSignalDetector {
public:
    static constexpr int kDroopStreakSamples = 8;
    static constexpr double kDroopScoreThreshold = 0.12;
    static constexpr double kLoadGateUtilizationPct = 70.0;
    static constexpr double kLoadGatePowerW = 45.0;
    static constexpr double kHeatGateMarginC = 18.0;
    static constexpr double kBurstRampMHzPerSecond = 1800.0;
    static constexpr double kBurstUtilizationPct = 80.0;
    static constexpr double kBurstUtilizationRisePct = 18.0;
    static constexpr double kBurstPowerRampWPerSecond = 45.0;
    static constexpr double kBurstSpacingSeconds = 2.0;
    static constexpr double kMinimumSampleSpacingSeconds = 0.05;

    // The steps a sample goes through, in this order, then remember(). They are separate so that
    // a caller that records each signal before taking the next step keeps that order.
    std::optional<ThrottleSignal> thermalPressure(const TelemetrySample& sample);
    DroopReading droop(const TelemetrySample& sample, const LearnedModel& baseline);
    std::optional<ThrottleSignal> burstRamp(const TelemetrySample& sample,
                                            const LearnedModel& baseline,
                                            const DroopReading& droop);
    // The sample the next burst ramp is measured from.
    void remember(const TelemetrySample& sample) { lastSample_ = sample; }

    // Every step at once, for a caller that does not wait between them.
    std::vector<ThrottleSignal> evaluate(const TelemetrySample& sample,
                                         const LearnedModel& baseline);

    // A new run starts with no pressure seen, no streak, no latch and no previous sample.
    void reset();

    // The run event for a signal found in `sample`: the sample's figures, then the signal's own.
    static ProfilingRunEvent runEvent(const ThrottleSignal& signal, const TelemetrySample& sample);

    int droopConsecutiveSamples() const { return droopConsecutiveSamples_; }
    bool droopEventLatched() const { return droopEventLatched_; }

private:
    std::optional<ThermalPressureLevel> lastThermalLevel_;
    int droopConsecutiveSamples_ = 0;
    bool droopEventLatched_ = false;
    std::optional<TelemetrySample> lastSample_;
    std::optional<Timestamp> lastBurstAt_;
};

}  // namespace kelvo

// Decides per sample whether the machine is throttling under load.
#pragma once

#include <optional>

#include "foundation/core/Types.h"

namespace kelvo {

struct ThrottleAssessorConfig {
    double highLoadUtilizationPct = 70;
    double highLoadPowerW = 45;
    double deficitFraction = 0.07;  // clock more than 7 % under the reference
    double sustainSeconds = 3;
};

class ThrottleAssessor {
public:
    explicit ThrottleAssessor(ThrottleAssessorConfig config = {});

    // The machine's own high-load power level, when the telemetry knows it.
    void setMachineHighLoadPowerW(std::optional<double> watts) { machineHighLoadPowerW_ = watts; }
    // A learned model's references win over the ones learned online.
    void setLearnedModel(const std::optional<LearnedModel>& model) { model_ = model; }

    ThrottleAssessment assess(const TelemetrySample& sample);
    bool isHighLoad(const TelemetrySample& sample) const;

    std::optional<double> cpuReferenceMHz() const;
    std::optional<double> gpuReferenceMHz() const;

private:
    struct DeficitTracker {
        std::optional<Timestamp> since;
        bool update(Timestamp now, bool deficit, double sustain);
    };

    ThrottleAssessorConfig config_;
    std::optional<double> machineHighLoadPowerW_;
    std::optional<LearnedModel> model_;
    std::optional<double> onlineCpuReferenceMHz_;
    std::optional<double> onlineGpuReferenceMHz_;
    DeficitTracker cpuDeficit_;
    DeficitTracker gpuDeficit_;
};

}  // namespace kelvo

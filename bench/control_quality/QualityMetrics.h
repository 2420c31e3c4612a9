// The figures one controller earns on one trace, from the simulated machine's true state once a
// second (not from what the controller believed).
#pragma once

#include <string>
#include <vector>

#include "LoadTrace.h"
#include "foundation/sim/ThermalPlant.h"

namespace kelvo::quality {

struct QualityRow {
    std::string machine;
    std::string controller;
    std::string trace;
    double peakC = 0;
    double p95C = 0;
    double overLimitS = 0;
    double overCpuLimitS = 0;  // the two parts of overLimitS (a second may count in both)
    double overGpuLimitS = 0;
    double throttledS = 0;
    double retention = 1;  // mean clock / max clock of the loaded devices, 0..1
    double meanRPM = 0;
    double audibleChangesPerHour = 0;
    double rpmSD = 0;
    double meanDb = 0;  // energy mean of the fans' sound level, dB(A)
    double peakDb = 0;
};

struct MetricLimits {
    double cpuLimitC = 88;  // Kelvo's default quiet limits: the line no controller should cross
    double gpuLimitC = 85;
    double loadedFrom = 0.5;      // offered load that counts as "under load"
    double audibleStepRPM = 150;  // a speed change a listener notices
};

class QualityMetrics {
public:
    QualityMetrics(const sim::PlantConfig& plant, MetricLimits limits = {});

    // One simulated second.
    void add(const sim::PlantState& state, LoadLevel load, double dt);
    QualityRow result() const;

private:
    void countAudible(double rpm);

    sim::PlantConfig plant_;
    MetricLimits limits_;
    std::vector<double> hottest_;
    std::vector<double> rpm_;
    double soundPowerSum_ = 0;
    double peakDb_ = 0;
    double seconds_ = 0;
    double overLimitS_ = 0;
    double overCpuLimitS_ = 0;
    double overGpuLimitS_ = 0;
    double throttledS_ = 0;
    double retentionSum_ = 0;
    int retentionCount_ = 0;
    int audibleChanges_ = 0;
    int runDirection_ = 0;  // direction of the speed change in progress, 0 when steady
};

}  // namespace kelvo::quality

#include "QualityMetrics.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "SoundLevel.h"

namespace kelvo::quality {

QualityMetrics::QualityMetrics(const sim::PlantConfig& plant, MetricLimits limits)
    : plant_(plant), limits_(limits) {}

void QualityMetrics::add(const sim::PlantState& state, LoadLevel load, double dt) {
    seconds_ += dt;
    hottest_.push_back(std::max(state.cpuTemperatureC, state.gpuTemperatureC));
    if (state.cpuTemperatureC > limits_.cpuLimitC || state.gpuTemperatureC > limits_.gpuLimitC)
        overLimitS_ += dt;
    if (state.cpuTemperatureC > limits_.cpuLimitC) overCpuLimitS_ += dt;
    if (state.gpuTemperatureC > limits_.gpuLimitC) overGpuLimitS_ += dt;
    if (state.cpuThrottling || state.gpuThrottling) throttledS_ += dt;
    if (load.cpu >= limits_.loadedFrom) {
        retentionSum_ += state.cpuClockMHz / plant_.cpuMaxClockMHz;
        ++retentionCount_;
    }
    if (load.gpu >= limits_.loadedFrom) {
        retentionSum_ += state.gpuClockMHz / plant_.gpuMaxClockMHz;
        ++retentionCount_;
    }
    double rpm = 0;
    for (double fan : state.fanCurrentRPM) rpm += fan;
    if (!state.fanCurrentRPM.empty()) rpm /= static_cast<double>(state.fanCurrentRPM.size());
    countAudible(rpm);
    rpm_.push_back(rpm);
    const double power = soundPower(plant_, state.fanCurrentRPM);
    soundPowerSum_ += power * dt;
    peakDb_ = std::max(peakDb_, levelOfPower(power));
}

// One audible change is one run of consecutive seconds in which the speed moves by more than the
// step in the same direction: a single jump that takes the fan two seconds to follow counts once.
void QualityMetrics::countAudible(double rpm) {
    if (rpm_.empty()) return;
    const double delta = rpm - rpm_.back();
    int direction = 0;
    if (delta > limits_.audibleStepRPM) direction = 1;
    if (delta < -limits_.audibleStepRPM) direction = -1;
    if (direction != 0 && direction != runDirection_) ++audibleChanges_;
    runDirection_ = direction;
}

QualityRow QualityMetrics::result() const {
    QualityRow row;
    if (hottest_.empty()) return row;
    row.peakC = *std::max_element(hottest_.begin(), hottest_.end());
    std::vector<double> sorted = hottest_;
    std::sort(sorted.begin(), sorted.end());
    const auto rank =
        static_cast<std::size_t>(std::ceil(0.95 * static_cast<double>(sorted.size())));
    row.p95C = sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
    row.overLimitS = overLimitS_;
    row.overCpuLimitS = overCpuLimitS_;
    row.overGpuLimitS = overGpuLimitS_;
    row.throttledS = throttledS_;
    row.retention = retentionCount_ > 0 ? retentionSum_ / retentionCount_ : 1.0;
    const double n = static_cast<double>(rpm_.size());
    row.meanRPM = std::accumulate(rpm_.begin(), rpm_.end(), 0.0) / n;
    double squares = 0;
    for (double rpm : rpm_) squares += (rpm - row.meanRPM) * (rpm - row.meanRPM);
    row.rpmSD = std::sqrt(squares / n);
    row.meanDb = seconds_ > 0 ? levelOfPower(soundPowerSum_ / seconds_) : 0.0;
    row.peakDb = peakDb_;
    row.audibleChangesPerHour = seconds_ > 0 ? audibleChanges_ * 3600.0 / seconds_ : 0.0;
    return row;
}

}  // namespace kelvo::quality

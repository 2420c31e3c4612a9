#include "QualityMetrics.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "SoundLevel.h"

namespace kelvo::quality {

namespace {

// One fan's own level by the fan law, floored at the threshold of hearing: a fan that starts from
// standstill is heard starting, a change under the threshold is not heard at all.
double fanLevelDb(const sim::FanConfig& fan, double rpm) {
    if (!(rpm > 0)) return 0;
    return std::max(0.0, fan.soundRefDb + 50.0 * std::log10(rpm / fan.soundRefRPM));
}

// Each fan the same as the first but for its name; loudness compared at one speed, so that the
// same fan told at another reference speed still counts as the same.
bool fansAlike(const std::vector<sim::FanConfig>& fans) {
    if (fans.size() < 2) return false;
    const double at = fans.front().soundRefRPM;
    auto plain = [&](sim::FanConfig fan) {
        fan.name.clear();
        fan.soundRefDb = 0;
        fan.soundRefRPM = 0;
        return fan;
    };
    return std::all_of(fans.begin() + 1, fans.end(), [&](const sim::FanConfig& fan) {
        return plain(fan) == plain(fans.front()) &&
               std::abs(fanLevelDb(fan, at) - fanLevelDb(fans.front(), at)) < 1e-6;
    });
}

}  // namespace

QualityMetrics::QualityMetrics(const sim::PlantConfig& plant, MetricLimits limits)
    : plant_(plant), limits_(limits), fans_(plant.fans.size()) {}

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
    countAudible(state.fanCurrentRPM);
    for (std::size_t i = 0; i < fans_.size() && i < state.fanCurrentRPM.size(); ++i) {
        fans_[i].rpmSum += std::max(0.0, state.fanCurrentRPM[i]) * dt;
        // A fan at rest adds nothing to its own mean.
        if (state.fanCurrentRPM[i] > 0)
            fans_[i].powerSum +=
                std::pow(10.0, fanLevelDb(plant_.fans[i], state.fanCurrentRPM[i]) / 10) * dt;
    }
    rpm_.push_back(rpm);
    const double power = soundPower(plant_, state.fanCurrentRPM);
    soundPowerSum_ += power * dt;
    peakDb_ = std::max(peakDb_, levelOfPower(power));
    secondDb_.push_back(levelOfPower(power));
    everySecond_.push_back({load, power, dt});
    watchLoad(load, dt);
}

// Per fan, in its own level: three fans that move together are one change to a listener, and one
// fan of three that moves alone is still heard, so neither the mean speed nor the sum of the fans
// says what is heard. The row reports the fan that changed most often.
void QualityMetrics::countAudible(const std::vector<double>& rpm) {
    const std::size_t samples = static_cast<std::size_t>(std::lround(limits_.audibleWindowS)) + 1;
    for (std::size_t i = 0; i < fans_.size() && i < rpm.size(); ++i) {
        const sim::FanConfig& config = plant_.fans[i];
        if (!(config.soundRefRPM > 0)) continue;  // no sound figures: nothing to hear
        FanWatch& fan = fans_[i];
        fan.levels.push_back(fanLevelDb(config, rpm[i]));
        if (fan.levels.size() > samples) fan.levels.pop_front();
        const auto [low, high] = std::minmax_element(fan.levels.begin(), fan.levels.end());
        const double span = *high - *low;
        if (!fan.changing && span >= limits_.audibleStepDb) {
            fan.changing = true;
            ++fan.changes;
        } else if (fan.changing && fan.levels.size() == samples && span < limits_.settledDb) {
            fan.changing = false;
        }
    }
}

void QualityMetrics::watchLoad(LoadLevel load, double dt) {
    if (std::max(load.cpu, load.gpu) >= limits_.loadedFrom) {
        stretchS_ += dt;
        dipS_ = 0;
        if (stretchS_ >= limits_.sustainedS - 1e-9) sustained_ = true;
    } else if (stretchS_ > 0) {
        dipS_ += dt;
        stretchS_ += dt;
        if (dipS_ > limits_.sustainedDipS) stretchS_ = dipS_ = 0;
    }
}

void QualityMetrics::lightLoad(QualityRow& row) const {
    const std::size_t n = everySecond_.size();
    std::vector<double> cpu(n + 1, 0.0), gpu(n + 1, 0.0);
    for (std::size_t i = 0; i < n; ++i) {
        cpu[i + 1] = cpu[i] + everySecond_[i].load.cpu;
        gpu[i + 1] = gpu[i] + everySecond_[i].load.gpu;
    }
    auto seconds = [](double s) { return static_cast<std::size_t>(std::max(0.0, std::round(s))); };
    const std::size_t half = seconds(limits_.lightWindowS / 2);
    const std::size_t before = std::max<std::size_t>(1, seconds(limits_.lightAfterS));
    // Over seconds [from, to): each device's mean under the line.
    auto light = [&](std::size_t from, std::size_t to) {
        const double span = static_cast<double>(to - from);
        return (cpu[to] - cpu[from]) / span < limits_.lightBelow &&
               (gpu[to] - gpu[from]) / span < limits_.lightBelow;
    };
    double power = 0;
    for (std::size_t i = 0; i < n; ++i) {
        if (!light(i > half ? i - half : 0, std::min(n, i + half + 1))) continue;
        if (!light(i + 1 > before ? i + 1 - before : 0, i + 1)) continue;
        row.lightS += everySecond_[i].dt;
        power += everySecond_[i].power * everySecond_[i].dt;
    }
    row.lightMeanDb = row.lightS > 0 ? levelOfPower(power / row.lightS) : 0.0;
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
    int worst = 0;
    for (const FanWatch& fan : fans_) worst = std::max(worst, fan.changes);
    row.audibleChangesPerHour = seconds_ > 0 ? worst * 3600.0 / seconds_ : 0.0;
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        row.fanNames.push_back(plant_.fans[i].name);
        row.fanMeanRPM.push_back(seconds_ > 0 ? fans_[i].rpmSum / seconds_ : 0.0);
        row.fanMeanDb.push_back(seconds_ > 0 ? levelOfPower(fans_[i].powerSum / seconds_) : 0.0);
    }
    row.fansAlike = fansAlike(plant_.fans);
    row.sustainedLoad = sustained_;
    lightLoad(row);
    row.secondDb = secondDb_;
    return row;
}

}  // namespace kelvo::quality

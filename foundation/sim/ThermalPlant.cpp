#include "foundation/sim/ThermalPlant.h"

#include <algorithm>
#include <cmath>

#include "foundation/core/FanController.h"

namespace kelvo::sim {

namespace {
constexpr double kScaleEpsilon = 1e-9;
// NVIDIA-style numbering: P0 is the fastest state, P8 the idle one.
constexpr double kIdlePState = 8;
constexpr double kDroopPStateSpan = 4;
constexpr double kGpuBusyLoad = 0.25;
constexpr double kStoppedBelowRPM = 100;
// A command that holds a fan standing still (see setFanCommand).
constexpr double kStoppedCommand = -1;

double clamp01(double value) {
    if (!std::isfinite(value)) return 0;
    return std::clamp(value, 0.0, 1.0);
}

ThermalPressureLevel raised(ThermalPressureLevel level) {
    switch (level) {
        case ThermalPressureLevel::nominal: return ThermalPressureLevel::fair;
        case ThermalPressureLevel::fair: return ThermalPressureLevel::serious;
        case ThermalPressureLevel::serious:
        case ThermalPressureLevel::critical: return ThermalPressureLevel::critical;
    }
    return ThermalPressureLevel::critical;
}
}  // namespace

ThermalPlant::ThermalPlant(PlantConfig config, std::uint64_t seed)
    : config_(std::move(config)), split_(config_.splitsSinks()), rng_(seed) {
    command_.assign(config_.fans.size(), 0.0);
    stalled_.assign(config_.fans.size(), false);
    firmwareStopped_.assign(config_.fans.size(), false);
    fanRPM_.reserve(config_.fans.size());
    for (const auto& fan : config_.fans) fanRPM_.push_back(fan.minRPM);

    // Start where an idle machine under the firmware curve settles, so the first readings are
    // already plausible instead of a slow climb from ambient.
    const double cpuPower = config_.cpuIdlePowerW;
    const double gpuPower = config_.gpuIdlePowerW;
    settleSinks(cpuPower, gpuPower);
    cpuTemp_ = sinkTemp_ + cpuPower / config_.cpuToSinkWPerK;
    gpuTemp_ = gpuSinkTemp_ + gpuPower / config_.gpuToSinkWPerK;
    updateFirmwareStops();
    for (std::size_t i = 0; i < fanRPM_.size(); ++i)
        if (firmwareStopped_[i]) fanRPM_[i] = 0;
    refreshOutputs();
}

void ThermalPlant::setLoad(double cpu01, double gpu01) {
    cpuLoad_ = clamp01(cpu01);
    gpuLoad_ = clamp01(gpu01);
    refreshOutputs();
}

void ThermalPlant::setFanCommand(std::vector<double> targetRPM) {
    firmware_ = false;
    for (std::size_t i = 0; i < command_.size(); ++i) {
        double target = i < targetRPM.size() ? targetRPM[i] : 0.0;
        if (!std::isnan(target) && target < 0) {
            command_[i] = kStoppedCommand;
            continue;
        }
        if (!std::isfinite(target) || target <= 0) {
            command_[i] = 0;
            continue;
        }
        command_[i] = std::clamp(target, config_.fans[i].minRPM, config_.fans[i].maxRPM);
    }
    refreshOutputs();
}

void ThermalPlant::setFirmwareControl(bool released) {
    firmware_ = released;
    if (released) std::fill(command_.begin(), command_.end(), 0.0);
    refreshOutputs();
}

bool ThermalPlant::holdsControl() const {
    return !firmware_ &&
           std::any_of(command_.begin(), command_.end(), [](double c) { return c != 0; });
}

bool PlantConfig::splitsSinks() const {
    return !fans.empty() && std::all_of(fans.begin(), fans.end(),
                                        [](const FanConfig& f) { return f.givesCooling(); });
}

namespace {
double airflowInto(const PlantConfig& config, bool split, Die die,
                   const std::vector<double>& fanRPM) {
    if (fanRPM.empty() || config.airflowReferenceRPM <= 0) return 0;
    double sum = 0;
    if (!split) {
        for (double rpm : fanRPM) sum += std::max(0.0, rpm);
        return sum / static_cast<double>(fanRPM.size()) / config.airflowReferenceRPM;
    }
    for (std::size_t i = 0; i < fanRPM.size() && i < config.fans.size(); ++i) {
        const FanConfig& fan = config.fans[i];
        sum += (die == Die::cpu ? fan.cpuCooling : fan.gpuCooling) * std::max(0.0, fanRPM[i]);
    }
    return sum / config.airflowReferenceRPM;
}
}  // namespace

double sensedTemperature(const PlantConfig& config, double celsius) {
    const double step = config.temperatureStepC;
    return step > 0 ? std::round(celsius / step) * step : celsius;
}

double coolingAirflow(const PlantConfig& config, Die die, const std::vector<double>& fanRPM) {
    return airflowInto(config, config.splitsSinks(), die, fanRPM);
}

double fanCooling(const PlantConfig& config, Die die, std::size_t fan) {
    if (fan >= config.fans.size()) return 0;
    std::vector<double> unit(config.fans.size(), 0.0);
    unit[fan] = 1;
    return coolingAirflow(config, die, unit);
}

double fanSoundPower(const PlantConfig& config, const std::vector<double>& fanRPM) {
    double power = 0;
    const std::size_t fans = std::min(config.fans.size(), fanRPM.size());
    for (std::size_t i = 0; i < fans; ++i) {
        const FanConfig& fan = config.fans[i];
        if (!(fanRPM[i] > 0) || !(fan.soundRefRPM > 0)) continue;
        // 10^(L/10) with L from the fan law: the rpm ratio to the 5th power.
        power += std::pow(10.0, fan.soundRefDb / 10.0) * std::pow(fanRPM[i] / fan.soundRefRPM, 5.0);
    }
    return power;
}

// Sink to ambient. On a shared sink both dies' calls give the one conductance.
double ThermalPlant::sinkConductance(Die die) const {
    const double airflow = std::pow(airflowInto(config_, split_, split_ ? die : Die::cpu, fanRPM_),
                                    config_.airflowExponent);
    if (die == Die::gpu && split_)
        return config_.gpuSinkPassiveWPerK + config_.gpuSinkAirflowWPerK * airflow;
    return config_.sinkPassiveWPerK + config_.sinkAirflowWPerK * airflow;
}

// The sinks' steady temperatures with these dies' powers at the fans' present speeds: one sink,
// or two trading heat (a 2x2 linear system).
void ThermalPlant::settleSinks(double cpuPowerW, double gpuPowerW) {
    const double ambient = config_.ambientC;
    if (!split_) {
        sinkTemp_ = ambient + (cpuPowerW + gpuPowerW) / sinkConductance(Die::cpu);
        gpuSinkTemp_ = sinkTemp_;
        return;
    }
    const double gc = sinkConductance(Die::cpu);
    const double gg = sinkConductance(Die::gpu);
    const double k = std::max(0.0, config_.sinkToSinkWPerK);
    // (gc + k) dc - k dg = Pc ; -k dc + (gg + k) dg = Pg, with d the rise over ambient.
    const double det = (gc + k) * (gg + k) - k * k;
    sinkTemp_ = ambient + (cpuPowerW * (gg + k) + k * gpuPowerW) / det;
    gpuSinkTemp_ = ambient + (gpuPowerW * (gc + k) + k * cpuPowerW) / det;
}

// Dynamic power goes with frequency times voltage squared; along a boost curve that is close to
// the square of the clock scale, so droop cuts heat much faster than it cuts the clock.
double ThermalPlant::dieDrivePowerW(double idle, double full, double load, double scale) const {
    return idle + (full - idle) * load * scale * scale;
}

double ThermalPlant::firmwareRPM(std::size_t fan) const {
    const auto& f = config_.fans[fan];
    if (firmwareStopped_[fan]) return 0;
    const double hottest = std::max(cpuTemp_, gpuTemp_);
    const double span = config_.firmwareMaxAtC - config_.firmwareMinUntilC;
    const double fraction = span > 0
                                ? std::clamp((hottest - config_.firmwareMinUntilC) / span, 0.0, 1.0)
                                : (hottest >= config_.firmwareMaxAtC ? 1.0 : 0.0);
    return f.minRPM + fraction * (f.maxRPM - f.minRPM);
}

void ThermalPlant::setFanStalled(std::size_t fan, bool stalled) {
    if (fan < stalled_.size()) stalled_[fan] = stalled;
    refreshOutputs();
}

double ThermalPlant::driveRPM(std::size_t fan) const {
    if (stalled_[fan]) return 0;
    if (command_[fan] < 0 && !firmware_) return 0;
    if (firmware_ || command_[fan] <= 0) return firmwareRPM(fan);
    return command_[fan];
}

// The firmware stops fans that can stop below its temperature and starts them again above it
// plus the hysteresis, so a die hovering at the threshold does not toggle them.
void ThermalPlant::updateFirmwareStops() {
    const double hottest = std::max(cpuTemp_, gpuTemp_);
    for (std::size_t i = 0; i < firmwareStopped_.size(); ++i) {
        if (config_.firmwareStopBelowC <= 0 || !config_.fans[i].canStop()) {
            firmwareStopped_[i] = false;
        } else if (hottest < config_.firmwareStopBelowC) {
            firmwareStopped_[i] = true;
        } else if (hottest >= config_.firmwareStopBelowC + config_.firmwareStopHysteresisC) {
            firmwareStopped_[i] = false;
        }
    }
}

void ThermalPlant::step(double dt) {
    if (!std::isfinite(dt) || dt <= 0) return;
    const double maxSub = config_.maxSubstepS > 0 ? config_.maxSubstepS : 0.05;
    const auto count = static_cast<int>(std::ceil(dt / maxSub));
    const double h = dt / count;
    for (int i = 0; i < count; ++i) substep(h);
    updateFirmwareStops();
    elapsed_ += dt;
    cpuNoisePct_ = noise_(rng_) * config_.utilisationNoisePct;
    gpuNoisePct_ = noise_(rng_) * config_.utilisationNoisePct;
    refreshOutputs();
}

void ThermalPlant::substep(double h) {
    // Fans: first-order spin-up/down towards their drive speed, bounded by the motor's slew rate.
    const double follow =
        config_.fanTimeConstantS > 0 ? 1.0 - std::exp(-h / config_.fanTimeConstantS) : 1.0;
    const double maxChange = config_.fanSlewRPMPerS > 0 ? config_.fanSlewRPMPerS * h : 1e12;
    for (std::size_t i = 0; i < fanRPM_.size(); ++i) {
        const double change = (driveRPM(i) - fanRPM_[i]) * follow;
        fanRPM_[i] += std::clamp(change, -maxChange, maxChange);
        // A stopping rotor's tachometer gives no pulses well before it is still.
        if ((stalled_[i] || driveRPM(i) <= 0) && fanRPM_[i] < kStoppedBelowRPM) fanRPM_[i] = 0;
    }

    const double cpuPower =
        dieDrivePowerW(config_.cpuIdlePowerW, config_.cpuFullLoadPowerW, cpuLoad_, cpuScale_);
    const double gpuPower =
        dieDrivePowerW(config_.gpuIdlePowerW, config_.gpuFullLoadPowerW, gpuLoad_, gpuScale_);
    const double cpuToSink = config_.cpuToSinkWPerK * (cpuTemp_ - sinkTemp_);
    const double gpuToSink = config_.gpuToSinkWPerK * (gpuTemp_ - gpuSinkTemp_);
    cpuTemp_ += h * (cpuPower - cpuToSink) / config_.cpuHeatCapacityJPerK;
    gpuTemp_ += h * (gpuPower - gpuToSink) / config_.gpuHeatCapacityJPerK;
    if (split_) {
        const double cpuSinkToAir = sinkConductance(Die::cpu) * (sinkTemp_ - config_.ambientC);
        const double gpuSinkToAir = sinkConductance(Die::gpu) * (gpuSinkTemp_ - config_.ambientC);
        const double across = std::max(0.0, config_.sinkToSinkWPerK) * (sinkTemp_ - gpuSinkTemp_);
        sinkTemp_ += h * (cpuToSink - cpuSinkToAir - across) / config_.sinkHeatCapacityJPerK;
        gpuSinkTemp_ += h * (gpuToSink - gpuSinkToAir + across) / config_.gpuSinkHeatCapacityJPerK;
    } else {
        const double sinkToAir = sinkConductance(Die::cpu) * (sinkTemp_ - config_.ambientC);
        sinkTemp_ += h * (cpuToSink + gpuToSink - sinkToAir) / config_.sinkHeatCapacityJPerK;
        gpuSinkTemp_ = sinkTemp_;
    }

    auto droop = [&](double temp, double limit, double& scale) {
        if (temp > limit) {
            scale -= config_.droopGainPerKelvinSecond * (temp - limit) * h;
        } else if (temp < limit - config_.droopRecoveryMarginC) {
            scale += config_.droopRecoveryPerS * h;
        }
        scale = std::clamp(scale, config_.minClockScale, 1.0);
    };
    droop(cpuTemp_, config_.cpuLimitC, cpuScale_);
    droop(gpuTemp_, config_.gpuLimitC, gpuScale_);
}

void ThermalPlant::refreshOutputs() {
    PlantState& s = state_;
    s.cpuTemperatureC = cpuTemp_;
    s.gpuTemperatureC = gpuTemp_;
    s.sinkTemperatureC = sinkTemp_;
    s.gpuSinkTemperatureC = gpuSinkTemp_;
    s.cpuClockScale = cpuScale_;
    s.gpuClockScale = gpuScale_;

    // Clocks run from base (deepest droop) to max (no droop).
    auto clock = [&](double base, double max, double scale) {
        const double span = 1.0 - config_.minClockScale;
        const double fraction =
            span > 0 ? std::clamp((scale - config_.minClockScale) / span, 0.0, 1.0) : 1.0;
        return base + (max - base) * fraction;
    };
    s.cpuClockMHz = clock(config_.cpuBaseClockMHz, config_.cpuMaxClockMHz, cpuScale_);
    s.gpuClockMHz = clock(config_.gpuBaseClockMHz, config_.gpuMaxClockMHz, gpuScale_);
    s.gpuReferenceMaxClockMHz = config_.gpuReferenceMaxClockMHz;

    s.cpuUtilizationPct = std::clamp(cpuLoad_ * 100.0 + cpuNoisePct_, 0.0, 100.0);
    s.gpuUtilizationPct = std::clamp(gpuLoad_ * 100.0 + gpuNoisePct_, 0.0, 100.0);

    s.cpuPowerW =
        dieDrivePowerW(config_.cpuIdlePowerW, config_.cpuFullLoadPowerW, cpuLoad_, cpuScale_);
    s.gpuPowerW =
        dieDrivePowerW(config_.gpuIdlePowerW, config_.gpuFullLoadPowerW, gpuLoad_, gpuScale_);
    double fanPower = 0;
    for (std::size_t i = 0; i < fanRPM_.size(); ++i) {
        const double max = config_.fans[i].maxRPM;
        if (max > 0) fanPower += config_.fanPowerAtMaxW * std::pow(fanRPM_[i] / max, 3.0);
    }
    s.totalPowerW = s.cpuPowerW + s.gpuPowerW + config_.platformPowerW + fanPower;

    s.cpuThrottling = cpuScale_ < 1.0 - kScaleEpsilon || cpuTemp_ >= config_.cpuLimitC;
    s.gpuThrottling = gpuScale_ < 1.0 - kScaleEpsilon || gpuTemp_ >= config_.gpuLimitC;

    const std::size_t fans = config_.fans.size();
    s.fanNames.resize(fans);
    s.fanCurrentRPM.resize(fans);
    s.fanTargetRPM.resize(fans);
    s.fanDriveRPM.resize(fans);
    s.fanMinRPM.resize(fans);
    s.fanMaxRPM.resize(fans);
    s.fanFirmwareStopped.resize(fans);
    for (std::size_t i = 0; i < fans; ++i) {
        s.fanNames[i] = config_.fans[i].name;
        s.fanCurrentRPM[i] = fanRPM_[i];
        s.fanTargetRPM[i] = firmware_ ? 0.0 : command_[i] < 0 ? kFanStopRPM : command_[i];
        s.fanDriveRPM[i] = driveRPM(i);
        s.fanMinRPM[i] = config_.fans[i].minRPM;
        s.fanMaxRPM[i] = config_.fans[i].maxRPM;
        s.fanFirmwareStopped[i] = firmwareStopped_[i];
    }
    s.firmwareControl = firmware_;

    const double hottest = std::max(cpuTemp_, gpuTemp_);
    ThermalPressureLevel level = ThermalPressureLevel::nominal;
    if (hottest >= config_.pressureCriticalFromC) {
        level = ThermalPressureLevel::critical;
    } else if (hottest >= config_.pressureSeriousFromC) {
        level = ThermalPressureLevel::serious;
    } else if (hottest >= config_.pressureFairFromC) {
        level = ThermalPressureLevel::fair;
    }
    if (s.cpuThrottling || s.gpuThrottling) level = raised(level);
    s.thermalPressure = level;

    // The driver asks for the fastest state under load and is granted slower ones as the thermal
    // droop deepens.
    s.gpuRequestedPState = gpuLoad_ >= kGpuBusyLoad ? 0.0 : kIdlePState;
    const double span = 1.0 - config_.minClockScale;
    const double depth = span > 0 ? std::clamp((1.0 - gpuScale_) / span, 0.0, 1.0) : 0.0;
    s.gpuGrantedPState =
        std::min(kIdlePState, s.gpuRequestedPState + std::ceil(depth * kDroopPStateSpan));
    s.gpuThrottleReasons = s.gpuThrottling ? gpuThrottleThermal : gpuThrottleNone;

    s.elapsedS = elapsed_;
}

}  // namespace kelvo::sim

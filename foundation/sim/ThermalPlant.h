// A lumped thermal model of a desktop/laptop: a CPU and a GPU die on one shared heatsink, cooled
// by fans whose airflow raises the sink's conductance to ambient. Dies that reach their limit
// droop their clocks, which lowers their power and so their heat. Deterministic: the only
// randomness is the utilisation jitter, drawn from a seeded engine.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo::sim {

struct FanConfig {
    std::string name;
    double minRPM = 1200;
    double maxRPM = 5400;
    // How loud the fan is, for the sound level a listener hears: soundRefDb dB(A) at
    // soundRefRPM, and 50·log10(rpm / soundRefRPM) more at other speeds (the fan law). The
    // defaults are a 120 mm case fan heard from a metre away.
    double soundRefDb = 30;
    double soundRefRPM = 2000;
    // Fan stop, as hwmon duty cycles (0..255; 0 = the fan never stops): a turning fan stops
    // below stopBelowDuty, and one at rest needs at least startDuty to spin up again (0 = the
    // same as stopBelowDuty). Kelvo's plant model works in speeds; these two matter to what
    // drives the fan by duty (kelvo-simhw) and to the firmware, which stops such fans when cool.
    int stopBelowDuty = 0;
    int startDuty = 0;
    // What this fan's air does for each die's heatsink, as a weight on its speed (a row of the
    // machine's coupling matrix): a CPU cooler's fan cools the CPU's sink, a graphics card's fans
    // its own, a case fan a little of both. Negative: not given. A machine whose fans all give
    // both has a sink per die; one whose fans give none has one shared sink cooled by the mean
    // fan speed, as every fan weighing 1/n on it.
    double cpuCooling = -1;
    double gpuCooling = -1;

    bool canStop() const { return stopBelowDuty > 0; }
    bool givesCooling() const { return cpuCooling >= 0 && gpuCooling >= 0; }
    int effectiveStartDuty() const { return startDuty > stopBelowDuty ? startDuty : stopBelowDuty; }

    bool operator==(const FanConfig&) const = default;
};

struct PlantConfig {
    double ambientC = 24;
    // Logical CPUs the machine reports (cpufreq entries, /proc/stat lines); they share one load.
    int logicalCpus = 4;

    double cpuIdlePowerW = 6;
    double cpuFullLoadPowerW = 65;
    double cpuMaxClockMHz = 4200;
    // The clock at the deepest droop: throttling sheds the boost range first.
    double cpuBaseClockMHz = 2000;
    double cpuLimitC = 95;
    double cpuHeatCapacityJPerK = 4;
    double cpuToSinkWPerK = 3;

    double gpuIdlePowerW = 5;
    double gpuFullLoadPowerW = 80;
    double gpuMaxClockMHz = 1800;
    double gpuBaseClockMHz = 800;
    double gpuReferenceMaxClockMHz = 1800;
    double gpuLimitC = 90;
    double gpuHeatCapacityJPerK = 6;
    double gpuToSinkWPerK = 4;

    // Sink to ambient: G = passive + airflow * (mean fan speed / reference speed)^exponent. The
    // reference is an absolute speed, not each fan's own maximum, so slower-rated fans really
    // move less air. The exponent is above 1 because a dense fin stack passes little air until
    // the fans build pressure.
    double sinkHeatCapacityJPerK = 250;
    double sinkPassiveWPerK = 0.25;
    double sinkAirflowWPerK = 3.7;
    double airflowReferenceRPM = 5400;
    double airflowExponent = 1.4;
    // With a coupling matrix (every fan's cpuCooling and gpuCooling), the sink above is the CPU's
    // and the GPU has one of its own; each sink's airflow term takes the weighted sum of the fans'
    // speeds in place of their mean. The sinks trade heat through sinkToSinkWPerK (shared heat
    // pipes in a laptop, the case air in a desktop).
    double gpuSinkHeatCapacityJPerK = 150;
    double gpuSinkPassiveWPerK = 0.2;
    double gpuSinkAirflowWPerK = 3.0;
    double sinkToSinkWPerK = 0;

    // Board, memory and drives: reported in the total, dissipated outside the modelled sink.
    double platformPowerW = 4;
    double fanPowerAtMaxW = 2.5;  // per fan, scaling with the cube of its speed

    std::vector<FanConfig> fans = {{"Simulated fan 1", 1200, 5400},
                                   {"Simulated fan 2", 1200, 5400}};
    double fanTimeConstantS = 1.5;
    double fanSlewRPMPerS = 3000;
    // Firmware curve on the hotter die: minimum speed up to the first point, linear to maximum.
    double firmwareMinUntilC = 55;
    double firmwareMaxAtC = 90;
    // Fan stop in the firmware: fans that can stop stand still while the hotter die is below
    // this temperature and spin up again once it reaches it plus the hysteresis (0: the
    // firmware never stops a fan).
    double firmwareStopBelowC = 0;
    double firmwareStopHysteresisC = 6;

    // Droop: each second over the limit costs gain * excess of clock scale; the scale comes back
    // slowly once the die is clear of the limit by the margin.
    double droopGainPerKelvinSecond = 0.04;
    double droopRecoveryPerS = 0.02;
    double droopRecoveryMarginC = 2;
    double minClockScale = 0.35;

    double utilisationNoisePct = 0.8;  // standard deviation
    // The step the temperature sensors report in: whole degrees from coretemp, the graphics
    // drivers and most boards, an eighth of one from k10temp; 0 reports the model's own values.
    double temperatureStepC = 0;
    double maxSubstepS = 0.05;

    // Thermal pressure bands on the hotter die.
    double pressureFairFromC = 80;
    double pressureSeriousFromC = 90;
    double pressureCriticalFromC = 97;

    // Whether the machine has a sink per die (every fan gives its coupling).
    bool splitsSinks() const;

    bool operator==(const PlantConfig&) const = default;
};

enum class Die { cpu, gpu };

// The airflow a die's sink sees from fans at these speeds, as a fraction of the reference speed:
// the coupling-weighted sum, or the mean speed on a shared sink. Stopped fans add nothing.
double coolingAirflow(const PlantConfig& config, Die die, const std::vector<double>& fanRPM);
// A temperature as a sensor reporting in `config`'s temperatureStepC reads it: to the nearest step.
double sensedTemperature(const PlantConfig& config, double celsius);
// The same for fan `fan` alone turning at 1 rpm: how much it cools that die per rpm, whatever the
// machine's coupling.
double fanCooling(const PlantConfig& config, Die die, std::size_t fan);

// The fans' sound power relative to 0 dB (10^(L/10)), each fan at its soundRefDb at soundRefRPM
// and the fan law elsewhere; a fan standing still adds nothing.
double fanSoundPower(const PlantConfig& config, const std::vector<double>& fanRPM);

struct PlantState {
    double cpuTemperatureC = 0;
    double gpuTemperatureC = 0;
    double sinkTemperatureC = 0;     // the CPU's sink where each die has its own
    double gpuSinkTemperatureC = 0;  // the same as sinkTemperatureC on a shared sink
    double cpuClockMHz = 0;
    double gpuClockMHz = 0;
    double gpuReferenceMaxClockMHz = 0;
    double cpuClockScale = 1;
    double gpuClockScale = 1;
    double cpuUtilizationPct = 0;
    double gpuUtilizationPct = 0;
    double cpuPowerW = 0;
    double gpuPowerW = 0;
    double totalPowerW = 0;
    bool cpuThrottling = false;
    bool gpuThrottling = false;

    std::vector<std::string> fanNames;
    std::vector<double> fanCurrentRPM;
    // As commanded; 0 while the firmware drives that fan, kFanStopRPM while told to stand still.
    std::vector<double> fanTargetRPM;
    std::vector<double> fanDriveRPM;  // where each fan is heading (command or firmware curve)
    std::vector<double> fanMinRPM;
    std::vector<double> fanMaxRPM;
    // The firmware's curve has this fan standing still (it is cool enough and the fan can stop).
    std::vector<bool> fanFirmwareStopped;
    bool firmwareControl = true;

    ThermalPressureLevel thermalPressure = ThermalPressureLevel::nominal;
    double gpuRequestedPState = 0;
    double gpuGrantedPState = 0;
    std::uint32_t gpuThrottleReasons = gpuThrottleNone;

    double elapsedS = 0;  // simulated time integrated so far

    bool operator==(const PlantState&) const = default;
};

class ThermalPlant {
public:
    explicit ThermalPlant(PlantConfig config = {}, std::uint64_t seed = 1);

    // Offered load of each device, 0..1.
    void setLoad(double cpu01, double gpu01);
    // One target per fan in RPM; 0 (or a missing entry) leaves that fan to the firmware curve,
    // kFanStopRPM (any negative target) holds it standing still. Takes the fans out of
    // firmware control.
    void setFanCommand(std::vector<double> targetRPM);
    // Released: the firmware curve drives every fan and earlier commands are dropped.
    void setFirmwareControl(bool released);
    // Whether any fan runs on a command rather than the firmware curve.
    bool holdsControl() const;
    // A stalled fan (a jammed rotor, a dead motor) spins down to 0 whatever it is told.
    void setFanStalled(std::size_t fan, bool stalled);

    void step(double dt);

    PlantState state() const { return state_; }
    const PlantConfig& config() const { return config_; }

private:
    double sinkConductance(Die die) const;
    double dieDrivePowerW(double idle, double full, double load, double scale) const;
    double firmwareRPM(std::size_t fan) const;
    double driveRPM(std::size_t fan) const;
    void updateFirmwareStops();
    void substep(double h);
    void refreshOutputs();
    void settleSinks(double cpuPowerW, double gpuPowerW);

    PlantConfig config_;
    bool split_;  // a sink per die: config_.splitsSinks(), asked once
    std::mt19937_64 rng_;
    std::normal_distribution<double> noise_{0.0, 1.0};

    double cpuLoad_ = 0;
    double gpuLoad_ = 0;
    double cpuNoisePct_ = 0;
    double gpuNoisePct_ = 0;
    double cpuTemp_ = 0;
    double gpuTemp_ = 0;
    double sinkTemp_ = 0;
    double gpuSinkTemp_ = 0;
    double cpuScale_ = 1;
    double gpuScale_ = 1;
    double elapsed_ = 0;
    bool firmware_ = true;
    std::vector<double> command_;
    std::vector<bool> stalled_;
    std::vector<bool> firmwareStopped_;
    std::vector<double> fanRPM_;
    PlantState state_;
};

}  // namespace kelvo::sim

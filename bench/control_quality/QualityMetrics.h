// The figures one controller earns on one trace, from the simulated machine's true state once a
// second (not from what the controller believed).
#pragma once

#include <deque>
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
    // The fan that changed audibly most often (see MetricLimits), per hour.
    double audibleChangesPerHour = 0;
    double rpmSD = 0;
    double meanDb = 0;  // energy mean of the fans' sound level, dB(A)
    double peakDb = 0;
    // Each fan on its own, in the machine's order: its mean speed and the energy mean of its own
    // level (the fan law, floored at the threshold of hearing), which show how a controller
    // shares the work among the fans.
    std::vector<std::string> fanNames;
    std::vector<double> fanMeanRPM;
    std::vector<double> fanMeanDb;
    // More than one fan, each the same as the others but for its name (range, loudness for its
    // speed, what it cools): no share of the work is quieter than one duty for all.
    bool fansAlike = false;
    // Seconds Kelvo shared the work among the fans by what each cools (0 for every other
    // controller): a row with any is no one-duty controller.
    double sharedS = 0;

    // From the trace, the same for every controller on it (see MetricLimits).
    bool sustainedLoad = false;
    double lightS = 0;             // seconds at light load
    double lightMeanDb = 0;        // energy mean of the sound level over those seconds
    std::vector<double> secondDb;  // the sound level of every second, in order
};

struct MetricLimits {
    double cpuLimitC = 88;  // Kelvo's default quiet limits: the line no controller should cross
    double gpuLimitC = 85;
    double loadedFrom = 0.5;  // offered load that counts as "under load"
    // An audible change: one fan's own level (fan law, its soundRefDb at soundRefRPM, never under
    // the threshold of hearing) spans this much within audibleWindowS. It counts once; the next
    // counts only after that fan has settled: its level held within settledDb for a whole window.
    double audibleStepDb = 3;
    double audibleWindowS = 5;
    double settledDb = 1;
    // Sustained load: either device offered loadedFrom or more for sustainedS, dips under it of
    // at most sustainedDipS (a link step, a loading screen) not breaking the stretch.
    double sustainedS = 120;
    double sustainedDipS = 10;
    // Light load: each device's offered load, averaged over the lightWindowS centred on a second
    // and over the lightAfterS up to it, under lightBelow. Light work with its short bursts
    // counts; the edges of a heavy stretch do not, nor the minutes after it while its heat is
    // still in the heatsink (that is cooling down, not light load).
    double lightBelow = 0.4;
    double lightWindowS = 180;
    double lightAfterS = 300;
};

class QualityMetrics {
public:
    QualityMetrics(const sim::PlantConfig& plant, MetricLimits limits = {});

    // One simulated second.
    void add(const sim::PlantState& state, LoadLevel load, double dt);
    QualityRow result() const;

private:
    struct FanWatch {
        std::deque<double> levels;  // the fan's level over the last window, newest last
        bool changing = false;
        int changes = 0;
        double rpmSum = 0;    // speed times seconds
        double powerSum = 0;  // its own sound power times seconds
    };
    void countAudible(const std::vector<double>& rpm);
    void watchLoad(LoadLevel load, double dt);
    void lightLoad(QualityRow& row) const;

    sim::PlantConfig plant_;
    MetricLimits limits_;
    std::vector<double> hottest_;
    std::vector<double> rpm_;
    std::vector<double> secondDb_;
    std::vector<FanWatch> fans_;
    double soundPowerSum_ = 0;
    double peakDb_ = 0;
    double seconds_ = 0;
    double overLimitS_ = 0;
    double overCpuLimitS_ = 0;
    double overGpuLimitS_ = 0;
    double throttledS_ = 0;
    double retentionSum_ = 0;
    int retentionCount_ = 0;
    // The load side: a running stretch of load, and every second's load and sound for the light
    // seconds, which are known only once the seconds after them are.
    struct Second {
        LoadLevel load;
        double power = 0;
        double dt = 0;
    };
    std::vector<Second> everySecond_;
    double stretchS_ = 0;  // the stretch of load in progress, dips included
    double dipS_ = 0;      // the dip in progress inside it
    bool sustained_ = false;
};

}  // namespace kelvo::quality

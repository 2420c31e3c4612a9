// Where a die's temperature is heading: the slope of its last few seconds. Under a steady load a
// die rides on its heatsink, which warms with a time constant of a minute or more, so today's
// slope times that horizon estimates how far above today's reading it will settle. A step in
// load lifts the die by its own power within a second or two; that jump says nothing about the
// heatsink, so the slope is not trusted until the readings after the step have settled.
#pragma once

#include <deque>
#include <optional>

#include "foundation/core/Types.h"

namespace kelvo {

class TemperatureTrend {
public:
    struct Settings {
        double windowSeconds = 6;  // readings the slope is fitted over
        double settleSeconds = 5;  // after a step in load, before the slope counts again
        double answerSeconds = 3;  // a die has answered most of a step after this long
        double loadStepPct = 20;   // a change in either device's utilisation this large
        std::size_t minReadings = 4;
        double peakSeconds = 60;  // how long a load's heat stays in the heatsink, roughly
        double heldSeconds = 8;   // a level held this long is load, not a burst
        // Past peakSeconds a held level fades out over this long rather than dropping out at
        // once: a heatsink gives its heat up gradually, and a cliff in the base load moved the
        // fans' setpoint by several degrees in one second.
        double fadeSeconds = 120;
    };

    TemperatureTrend() = default;
    explicit TemperatureTrend(Settings settings) : settings_(settings) {}

    void add(const TelemetrySample& sample);
    void clear();

    // Degrees per second; nothing while there are too few settled readings.
    std::optional<double> cpuSlope() const { return slope(&Point::cpu); }
    std::optional<double> gpuSlope() const { return slope(&Point::gpu); }

    // How far each die rises over the next `seconds` along its trend: the slope carried on, or,
    // where the rise is already levelling off, what is left of an exponential approach
    // (slope squared over how fast the slope falls). Negative for a falling die; nothing while
    // the slope is unknown.
    std::optional<double> cpuRiseAhead(double seconds) const {
        return riseAhead(&Point::cpu, seconds);
    }
    std::optional<double> gpuRiseAhead(double seconds) const {
        return riseAhead(&Point::gpu, seconds);
    }

    // How far each die jumps, in degrees, when its device goes from idle to full load: learned
    // from the steps seen so far, nothing before the first.
    std::optional<double> cpuJumpC() const { return cpu_.jumpC; }
    std::optional<double> gpuJumpC() const { return gpu_.jumpC; }

    // The highest utilisation each device ran at over the last minute: a load coming back to a
    // level it just left lands on a heatsink that has already taken its heat.
    std::optional<double> cpuRecentPeakPct() const { return recentPeak(cpu_); }
    std::optional<double> gpuRecentPeakPct() const { return recentPeak(gpu_); }

    // The load each device's heatsink is carrying: the highest utilisation it held for at least
    // heldSeconds over the last minute, or its utilisation now where that is higher. A link step
    // keeps the build's level; a video call's five-second bursts do not lift its base load, so the
    // next burst still finds its reserve. A level older than a minute counts for less and less,
    // down to the utilisation now, over fadeSeconds.
    std::optional<double> cpuBaseLoadPct() const { return cpu_.baseLoad; }
    std::optional<double> gpuBaseLoadPct() const { return gpu_.baseLoad; }

private:
    // One device's load steps: where the die stood when its utilisation stepped, and by how much.
    struct StepWatch {
        std::optional<double> lastUtilization;
        std::optional<Timestamp> stepAt;
        double stepPct = 0;
        double temperatureBefore = 0;
        std::optional<double> lastTemperature;
        std::optional<double> jumpC;
        std::deque<std::pair<Timestamp, double>> utilizations;  // peakSeconds + fadeSeconds
        std::optional<double> baseLoad;  // worked out once a reading, asked for many times a tick
    };
    std::optional<double> recentPeak(const StepWatch& device) const;
    std::optional<double> baseLoad(const StepWatch& device) const;
    double heldWeight(double age) const;
    void watch(StepWatch& device, const std::optional<double>& util,
               const std::optional<double>& temp, Timestamp now);

    struct Point {
        Timestamp t = 0;
        std::optional<double> cpu;
        std::optional<double> gpu;
    };
    std::optional<double> slope(std::optional<double> Point::*die) const;
    std::optional<double> riseAhead(std::optional<double> Point::*die, double seconds) const;

    Settings settings_;
    std::deque<Point> points_;
    StepWatch cpu_;
    StepWatch gpu_;
    std::optional<Timestamp> lastStep_;
};

}  // namespace kelvo

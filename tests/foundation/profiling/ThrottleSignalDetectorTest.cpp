// The throttle-signal detection on its own: samples in, signals out, with no run, loop or
// database behind it.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "foundation/profiling/ThrottleSignalDetector.h"
#include "tests/foundation/profiling/ThrottleTestSamples.h"

namespace kelvo {
namespace {

const LearnedModel kBaseline{1, "kelvo", 0, 4000, 1500, 95};

using throttle_test::droopSample;
using throttle_test::loadedSample;

std::vector<std::string> kinds(const std::vector<ThrottleSignal>& signals) {
    std::vector<std::string> out;
    for (const auto& signal : signals) out.push_back(signal.kind);
    return out;
}

double figure(const std::vector<std::pair<std::string, double>>& figures, const std::string& name) {
    for (const auto& [key, value] : figures)
        if (key == name) return value;
    return std::numeric_limits<double>::quiet_NaN();
}

class ThrottleSignalDetectorTest : public ::testing::Test {
protected:
    // Every signal found in the samples, in order.
    std::vector<ThrottleSignal> feed(const std::vector<TelemetrySample>& samples) {
        std::vector<ThrottleSignal> all;
        for (const auto& sample : samples)
            for (auto& signal : detector.evaluate(sample, kBaseline)) all.push_back(signal);
        return all;
    }
    std::vector<TelemetrySample> droopRun(Timestamp& t, int count) {
        std::vector<TelemetrySample> samples;
        for (int i = 0; i < count; ++i) samples.push_back(droopSample(t += 1));
        return samples;
    }
    // One second from a slow, quiet GPU to a fast, busy one: 1900 MHz/s and 50 W/s.
    std::vector<TelemetrySample> burstRampEndingAt(Timestamp t) {
        auto before = loadedSample(t - 1);
        before.gpuClockMHz = 300;
        before.totalPowerW = 40;
        auto after = loadedSample(t);
        after.gpuClockMHz = 2200;
        after.gpuUtilizationPct = 85;
        after.totalPowerW = 90;
        return {before, after};
    }

    ThrottleSignalDetector detector;
};

TEST_F(ThrottleSignalDetectorTest, ThermalPressureIsSignalledOncePerLevel) {
    std::vector<TelemetrySample> samples;
    Timestamp t = 100;
    for (auto level : {ThermalPressureLevel::serious, ThermalPressureLevel::serious,
                       ThermalPressureLevel::critical, ThermalPressureLevel::serious}) {
        samples.push_back(loadedSample(t += 1));
        samples.back().thermalPressure = level;
    }
    const auto signals = feed(samples);
    ASSERT_EQ(signals.size(), 3u);
    EXPECT_EQ(signals[0], (ThrottleSignal{"thermal_pressure", "serious", {}}));
    EXPECT_EQ(signals[1].severity, "critical");
    EXPECT_EQ(signals[2].severity, "serious");
}

TEST_F(ThrottleSignalDetectorTest, AMilderLevelInBetweenSignalsTheSeriousOneAgain) {
    std::vector<TelemetrySample> samples;
    Timestamp t = 100;
    for (auto level : {ThermalPressureLevel::serious, ThermalPressureLevel::fair,
                       ThermalPressureLevel::serious}) {
        samples.push_back(loadedSample(t += 1));
        samples.back().thermalPressure = level;
    }
    EXPECT_EQ(feed(samples).size(), 2u);
}

TEST_F(ThrottleSignalDetectorTest, AMissingPressureReadsAsNominal) {
    auto serious = loadedSample(100);
    serious.thermalPressure = ThermalPressureLevel::serious;
    auto unknown = loadedSample(101);
    unknown.thermalPressure.reset();
    auto seriousAgain = loadedSample(102);
    seriousAgain.thermalPressure = ThermalPressureLevel::serious;
    EXPECT_EQ(feed({serious, unknown, seriousAgain}).size(), 2u);
}

TEST_F(ThrottleSignalDetectorTest, OneDroopSignalForAnUninterruptedStreakOfEight) {
    Timestamp t = 100;
    EXPECT_TRUE(feed(droopRun(t, 7)).empty());
    EXPECT_EQ(detector.droopConsecutiveSamples(), 7);
    feed({loadedSample(t += 1)});  // breaks the streak
    EXPECT_EQ(detector.droopConsecutiveSamples(), 0);

    EXPECT_TRUE(feed(droopRun(t, 7)).empty());
    const auto eighth = detector.droop(droopSample(t += 1), kBaseline);
    ASSERT_TRUE(eighth.signal.has_value());
    EXPECT_EQ(eighth.signal->kind, "freq_droop");
    EXPECT_EQ(eighth.signal->severity, "moderate");
    EXPECT_DOUBLE_EQ(figure(eighth.signal->figures, "cpuDrop"), 0.25);
    EXPECT_DOUBLE_EQ(figure(eighth.signal->figures, "gpuDrop"), 0.0);
    EXPECT_DOUBLE_EQ(figure(eighth.signal->figures, "score"), 0.25 * 0.95);
    EXPECT_TRUE(detector.droopEventLatched());

    EXPECT_TRUE(feed(droopRun(t, 3)).empty()) << "the same streak stays latched";
    feed({loadedSample(t += 1)});
    EXPECT_FALSE(detector.droopEventLatched());
    EXPECT_EQ(kinds(feed(droopRun(t, 8))), std::vector<std::string>{"freq_droop"})
        << "a new streak signals again";
}

TEST_F(ThrottleSignalDetectorTest, DroopNeedsTheLoadGate) {
    Timestamp t = 100;
    auto underPowered = droopRun(t, 10);
    for (auto& s : underPowered) s.totalPowerW = 44.9;
    EXPECT_TRUE(feed(underPowered).empty());
    EXPECT_EQ(detector.droopConsecutiveSamples(), 0);

    auto idle = droopRun(t, 10);
    for (auto& s : idle) {
        s.cpuUtilizationPct = 69.9;
        s.gpuUtilizationPct = 20;
        s.cpuClockMHz = 1000;  // a deep drop, so the score alone would pass
    }
    EXPECT_TRUE(feed(idle).empty());
}

TEST_F(ThrottleSignalDetectorTest, DroopNeedsTheHeatGate) {
    Timestamp t = 100;
    auto cool = droopRun(t, 10);
    for (auto& s : cool) {
        s.cpuTemperatureC = 76.9;  // 95 - 18 = 77 is the gate
        s.gpuTemperatureC = 70;
    }
    EXPECT_TRUE(feed(cool).empty());

    auto atTheGate = droopRun(t, 8);
    for (auto& s : atTheGate) {
        s.cpuTemperatureC = 60;
        s.gpuTemperatureC = 77;  // the hotter domain decides
    }
    EXPECT_EQ(feed(atTheGate).size(), 1u);
}

TEST_F(ThrottleSignalDetectorTest, AReferenceBelowOneMegahertzUsesTheAbsoluteDifference) {
    const LearnedModel tiny{1, "kelvo", 0, 0.5, 0.5, 20};
    auto s = droopSample(100);
    s.cpuClockMHz = 0.4;
    EXPECT_NEAR(detector.droop(s, tiny).cpuDrop, 0.1, 1e-12);  // not 0.2
    s.cpuClockMHz = 0.2;
    EXPECT_NEAR(detector.droop(s, tiny).cpuDrop, 0.3, 1e-12);
}

TEST_F(ThrottleSignalDetectorTest, AMissingClockIsNoDropAndAFasterOneIsNone) {
    auto s = loadedSample(100);
    s.cpuClockMHz.reset();
    s.gpuClockMHz = 1800;
    const auto reading = detector.droop(s, kBaseline);
    EXPECT_EQ(reading.cpuDrop, 0.0);
    EXPECT_EQ(reading.gpuDrop, 0.0);
    EXPECT_EQ(reading.score, 0.0);
}

TEST_F(ThrottleSignalDetectorTest, RampsCloserThanTwoSecondsSignalOnce) {
    auto first = burstRampEndingAt(100);
    auto second = burstRampEndingAt(101.5);
    first.insert(first.end(), second.begin(), second.end());
    const auto signals = feed(first);
    ASSERT_EQ(signals.size(), 1u);
    EXPECT_EQ(signals[0].kind, "burst_ramp");
    EXPECT_EQ(signals[0].severity, "high");
    EXPECT_DOUBLE_EQ(figure(signals[0].figures, "gpuRampMHzPerS"), 1900);
    EXPECT_DOUBLE_EQ(figure(signals[0].figures, "powerRampWPerS"), 50);
}

TEST_F(ThrottleSignalDetectorTest, RampsTwoSecondsApartSignalTwice) {
    auto first = burstRampEndingAt(100);
    auto second = burstRampEndingAt(102);
    first.insert(first.end(), second.begin(), second.end());
    EXPECT_EQ(feed(first).size(), 2u);
}

TEST_F(ThrottleSignalDetectorTest, ARampNeedsTheGpuBusyAndThePowerRising) {
    auto quiet = burstRampEndingAt(100);
    quiet[1].gpuUtilizationPct = 57;  // under 80 %, and only 17 points over the 40 before
    EXPECT_TRUE(feed(quiet).empty());
    auto rising = burstRampEndingAt(110);
    rising[1].gpuUtilizationPct = 58;  // a rise of 18 points is enough
    EXPECT_EQ(feed(rising).size(), 1u);
    auto flat = burstRampEndingAt(120);
    flat[1].totalPowerW = 84;  // 44 W/s
    EXPECT_TRUE(feed(flat).empty());
}

TEST_F(ThrottleSignalDetectorTest, SamplesTenMillisecondsApartUseAFloorOfFiftyMilliseconds) {
    // 100 MHz in 10 ms would be 10 000 MHz/s; over the 0.05 s floor it is 2000 MHz/s, still a
    // ramp, while 80 MHz (1600 MHz/s at the floor) is not.
    auto first = loadedSample(100);
    first.totalPowerW = 40;
    auto small = loadedSample(100.01);
    small.gpuClockMHz = first.gpuClockMHz.value() + 80;
    small.totalPowerW = 43;  // 60 W/s at the floor
    small.gpuUtilizationPct = 85;
    EXPECT_TRUE(feed({first, small}).empty());
    auto big = loadedSample(100.02);
    big.gpuClockMHz = small.gpuClockMHz.value() + 100;
    big.totalPowerW = 46;
    big.gpuUtilizationPct = 85;
    const auto signals = feed({big});
    ASSERT_EQ(signals.size(), 1u);
    EXPECT_DOUBLE_EQ(figure(signals[0].figures, "gpuRampMHzPerS"), 2000);
}

TEST_F(ThrottleSignalDetectorTest, TheFirstSampleNeverRamps) {
    auto s = loadedSample(100);
    s.gpuClockMHz = 5000;
    s.totalPowerW = 500;
    EXPECT_FALSE(detector.burstRamp(s, kBaseline, detector.droop(s, kBaseline)).has_value());
    EXPECT_TRUE(feed({s}).empty());
}

TEST_F(ThrottleSignalDetectorTest, TheStepsMeasureTheRampFromTheRememberedSample) {
    auto before = loadedSample(99);
    before.gpuClockMHz = 300;
    before.totalPowerW = 40;
    auto after = loadedSample(100);
    after.gpuClockMHz = 10000;
    after.gpuUtilizationPct = 85;
    after.totalPowerW = 400;
    detector.remember(before);
    const auto reading = detector.droop(after, kBaseline);
    EXPECT_TRUE(detector.burstRamp(after, kBaseline, reading).has_value());
    // Not remembered yet: still measured from the slow sample, 3233 MHz/s over three seconds.
    auto later = after;
    later.timestamp = 102;
    EXPECT_TRUE(detector.burstRamp(later, kBaseline, reading).has_value());
    detector.remember(later);
    auto same = later;
    same.timestamp = 104;
    EXPECT_FALSE(detector.burstRamp(same, kBaseline, reading).has_value())
        << "no ramp from the remembered sample at the same clock";
}

TEST_F(ThrottleSignalDetectorTest, ResetStartsANewRunWithNothingCarriedOver) {
    Timestamp t = 100;
    auto hot = droopRun(t, 8);
    // Still drooping under load, and the slow start of a ramp.
    auto before = burstRampEndingAt(t + 1)[0];
    before.cpuClockMHz = 3000;
    before.totalPowerW = 45;
    hot.push_back(before);
    for (auto& s : hot) s.thermalPressure = ThermalPressureLevel::critical;
    EXPECT_EQ(kinds(feed(hot)), (std::vector<std::string>{"thermal_pressure", "freq_droop"}));
    ASSERT_TRUE(detector.droopEventLatched());

    detector.reset();
    EXPECT_EQ(detector.droopConsecutiveSamples(), 0);
    EXPECT_FALSE(detector.droopEventLatched());
    // Without the reset this would be no new pressure level and a ramp from `before`.
    auto after = burstRampEndingAt(t + 1)[1];
    after.thermalPressure = ThermalPressureLevel::critical;
    EXPECT_EQ(kinds(feed({after})), std::vector<std::string>{"thermal_pressure"})
        << "the pressure is new to this run, and its first sample does not ramp";
}

TEST_F(ThrottleSignalDetectorTest, OneSampleCanCarryAllThreeSignalsInStepOrder) {
    Timestamp t = 100;
    feed(droopRun(t, 7));
    auto last = droopSample(t += 1);
    last.thermalPressure = ThermalPressureLevel::critical;
    last.gpuClockMHz = 3500;  // 2000 MHz/s from the last droop sample
    last.gpuUtilizationPct = 85;
    last.totalPowerW = 150;
    EXPECT_EQ(kinds(feed({last})),
              (std::vector<std::string>{"thermal_pressure", "freq_droop", "burst_ramp"}));
}

TEST(ThrottleSignalRunEventTest, TheEventCarriesTheSampleFiguresThenTheSignals) {
    auto s = loadedSample(123.5);
    s.gpuTemperatureC.reset();
    s.gpuClockMHz = std::nan("");
    const ThrottleSignal signal{"burst_ramp", "high", {{"gpuRampMHzPerS", 1900}}};
    const ProfilingRunEvent event = ThrottleSignalDetector::runEvent(signal, s);
    EXPECT_FALSE(event.id.isNull());
    EXPECT_EQ(event.timestamp, 123.5);
    EXPECT_EQ(event.kind, "burst_ramp");
    EXPECT_EQ(event.severity, "high");
    const std::vector<std::pair<std::string, double>> expected{
        {"cpuTemperatureC", 90},   {"cpuClockMHz", 4000}, {"cpuUtilizationPct", 95},
        {"gpuUtilizationPct", 40}, {"totalPowerW", 90},   {"gpuRampMHzPerS", 1900}};
    EXPECT_EQ(event.values, expected) << "missing and non-finite figures are left out";
    EXPECT_NE(ThrottleSignalDetector::runEvent(signal, s).id, event.id);
}

}  // namespace
}  // namespace kelvo

#include <gtest/gtest.h>

#include "CaptureTestRig.h"
#include "foundation/profiling/DroopSignal.h"
#include "tests/foundation/profiling/ThrottleTestSamples.h"

namespace kelvo::testing {
namespace {

using throttle_test::droopSample;
using throttle_test::loadedSample;

class ThrottleSignalsTest : public ::testing::Test {
protected:
    void SetUp() override {
        rig.setBaselineModel(LearnedModel{1, "kelvo", 0, 4000, 1500, 95});
        runID = rig.startBeta();
        ASSERT_GT(runID, 0);
    }
    // One second from a slow, quiet GPU to a fast, busy one: 1900 MHz/s and 50 W/s.
    void burstRampEndingAt(Timestamp t) {
        auto before = loadedSample(t - 1);
        before.gpuClockMHz = 300;
        before.totalPowerW = 40;
        rig.evaluate(before);
        auto after = loadedSample(t);
        after.gpuClockMHz = 2200;
        after.gpuUtilizationPct = 85;
        after.totalPowerW = 90;
        rig.evaluate(after);
    }

    CaptureRig rig;
    std::int64_t runID = 0;
};

TEST_F(ThrottleSignalsTest, SeriousCriticalSeriousRecordsThreeEvents) {
    Timestamp t = 100;
    for (auto level : {ThermalPressureLevel::serious, ThermalPressureLevel::serious,
                       ThermalPressureLevel::critical, ThermalPressureLevel::serious}) {
        auto s = loadedSample(t += 1);
        s.thermalPressure = level;
        rig.evaluate(s);
    }
    auto events = rig.events(runID, "thermal_pressure");
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].severity, "serious");
    EXPECT_EQ(events[1].severity, "critical");
    EXPECT_EQ(events[2].severity, "serious");
}

TEST_F(ThrottleSignalsTest, SeriousFairSeriousRecordsTwoEvents) {
    Timestamp t = 100;
    for (auto level : {ThermalPressureLevel::serious, ThermalPressureLevel::fair,
                       ThermalPressureLevel::serious}) {
        auto s = loadedSample(t += 1);
        s.thermalPressure = level;
        rig.evaluate(s);
    }
    EXPECT_EQ(rig.events(runID, "thermal_pressure").size(), 2u);
}

TEST_F(ThrottleSignalsTest, OneDroopEventForAnUninterruptedStreakOfEight) {
    Timestamp t = 100;
    for (int i = 0; i < 7; ++i) rig.evaluate(droopSample(t += 1));
    rig.evaluate(loadedSample(t += 1));  // breaks the streak
    EXPECT_EQ(rig.coordinator->droopConsecutiveSamples(), 0);
    Timestamp eighth = 0;
    for (int i = 0; i < 8; ++i) {
        rig.evaluate(droopSample(t += 1));
        if (i == 7) eighth = t;
    }
    for (int i = 0; i < 3; ++i) rig.evaluate(droopSample(t += 1));  // same streak: latched
    auto events = rig.events(runID, "freq_droop");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].severity, "moderate");
    EXPECT_DOUBLE_EQ(events[0].timestamp, eighth);
}

TEST_F(ThrottleSignalsTest, DroopNeedsTheLoadGate) {
    Timestamp t = 100;
    for (int i = 0; i < 10; ++i) {
        auto s = droopSample(t += 1);
        s.totalPowerW = 44.9;
        rig.evaluate(s);
    }
    EXPECT_TRUE(rig.events(runID, "freq_droop").empty());
}

TEST_F(ThrottleSignalsTest, DroopNeedsTheHeatGate) {
    Timestamp t = 100;
    for (int i = 0; i < 10; ++i) {
        auto s = droopSample(t += 1);
        s.cpuTemperatureC = 76.9;  // 95 - 18 = 77 is the gate
        s.gpuTemperatureC = 70;
        rig.evaluate(s);
    }
    EXPECT_TRUE(rig.events(runID, "freq_droop").empty());
}

TEST_F(ThrottleSignalsTest, TwoRampsOneAndAHalfSecondsApartRecordOne) {
    burstRampEndingAt(100);
    burstRampEndingAt(101.5);
    auto events = rig.events(runID, "burst_ramp");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].severity, "high");
}

TEST_F(ThrottleSignalsTest, TwoRampsTwoSecondsApartRecordTwo) {
    burstRampEndingAt(100);
    burstRampEndingAt(102);
    EXPECT_EQ(rig.events(runID, "burst_ramp").size(), 2u);
}

TEST_F(ThrottleSignalsTest, SamplesTenMillisecondsApartUseAFloorOfFiftyMilliseconds) {
    // 100 MHz in 10 ms would be 10 000 MHz/s; over the 0.05 s floor it is 2000 MHz/s, still a
    // ramp, while 80 MHz (1600 MHz/s at the floor) is not.
    auto first = loadedSample(100);
    first.totalPowerW = 40;
    rig.evaluate(first);
    auto small = loadedSample(100.01);
    small.gpuClockMHz = first.gpuClockMHz.value() + 80;
    small.totalPowerW = 43;  // 60 W/s at the floor
    small.gpuUtilizationPct = 85;
    rig.evaluate(small);
    EXPECT_TRUE(rig.events(runID, "burst_ramp").empty());
    auto big = loadedSample(100.02);
    big.gpuClockMHz = small.gpuClockMHz.value() + 100;
    big.totalPowerW = 46;
    big.gpuUtilizationPct = 85;
    rig.evaluate(big);
    EXPECT_EQ(rig.events(runID, "burst_ramp").size(), 1u);
}

TEST_F(ThrottleSignalsTest, TheFirstSampleOfARunNeverRamps) {
    auto s = loadedSample(100);
    s.gpuClockMHz = 5000;
    s.totalPowerW = 500;
    rig.evaluate(s);
    EXPECT_TRUE(rig.events(runID, "burst_ramp").empty());
}

TEST_F(ThrottleSignalsTest, EventsCarryTheSampleFigures) {
    auto s = loadedSample(100);
    s.thermalPressure = ThermalPressureLevel::critical;
    rig.evaluate(s);
    auto events = rig.events(runID, "thermal_pressure");
    ASSERT_EQ(events.size(), 1u);
    bool sawPower = false;
    for (const auto& [name, value] : events[0].values)
        if (name == "totalPowerW") sawPower = value == 90;
    EXPECT_TRUE(sawPower);
}

TEST(ThrottleSignalsBaselineTest, AReferenceBelowOneMegahertzUsesTheAbsoluteDifference) {
    CaptureRig rig;
    rig.setBaselineModel(LearnedModel{1, "kelvo", 0, 0.5, 0.5, 20});
    const auto runID = rig.startBeta();
    Timestamp t = 100;
    // 0.4 MHz against 0.5: an absolute drop of 0.1 (under 0.12), where a fraction would be 0.2.
    for (int i = 0; i < 10; ++i) {
        auto s = droopSample(t += 1);
        s.cpuClockMHz = 0.4;
        s.cpuUtilizationPct = 100;
        rig.evaluate(s);
    }
    EXPECT_TRUE(rig.events(runID, "freq_droop").empty());
    // 0.2 MHz: an absolute drop of 0.3 qualifies.
    for (int i = 0; i < 8; ++i) {
        auto s = droopSample(t += 1);
        s.cpuClockMHz = 0.2;
        s.cpuUtilizationPct = 100;
        rig.evaluate(s);
    }
    EXPECT_EQ(rig.events(runID, "freq_droop").size(), 1u);
}

TEST(DroopSignalTest, TheBusierDomainDecides) {
    EXPECT_DOUBLE_EQ(DroopSignal::peakAligned(0.2, 0.5, 100, 20, 1.0), 0.2);
    EXPECT_DOUBLE_EQ(DroopSignal::peakAligned(0.2, 0.5, 10, 80, 1.0), 0.4);
    EXPECT_DOUBLE_EQ(DroopSignal::peakAligned(0.2, 0.5, 150, -5, 1.0), 0.2);
    EXPECT_DOUBLE_EQ(DroopSignal::peakAligned(std::nan(""), 0.5, 100, 100, 1.0), 0.5);
    EXPECT_DOUBLE_EQ(DroopSignal::peakAligned(0.2, 0.5, 100, 100, 0.5), 0.25);
}

}  // namespace
}  // namespace kelvo::testing

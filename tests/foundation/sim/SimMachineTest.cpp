#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <thread>

#include "foundation/sim/HostLoadReader.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedMachine.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo {
namespace {

using sim::HostLoadReader;
using sim::PlantConfig;
using sim::SimulatedMachine;
using test_support::FakeSysfs;

std::string procStat(std::uint64_t user, std::uint64_t system, std::uint64_t idle,
                     std::uint64_t iowait) {
    return "cpu  " + std::to_string(user) + " 0 " + std::to_string(system) + " " +
           std::to_string(idle) + " " + std::to_string(iowait) +
           " 0 0 0 0 0\n"
           "cpu0 1 2 3 4 5 6 7 8 0 0\n"
           "intr 12345\n";
}

PlantConfig quietConfig() {
    PlantConfig config;
    config.utilisationNoisePct = 0;
    return config;
}

// ----- HostLoadReader ------------------------------------------------------------------------

TEST(SimHostLoadReader, TwoReadingsGiveTheBusyShareBetweenThem) {
    FakeSysfs sys;
    sys.write("proc/stat", procStat(1000, 500, 8000, 500));
    HostLoadReader reader(sys.path("proc").string());
    EXPECT_FALSE(reader.read().has_value());

    // +150 busy (user 100, system 50), +450 idle (idle 400, iowait 50).
    sys.write("proc/stat", procStat(1100, 550, 8400, 550));
    auto busy = reader.read();
    ASSERT_TRUE(busy.has_value());
    EXPECT_DOUBLE_EQ(*busy, 0.25);

    sys.write("proc/stat", procStat(1400, 550, 8400, 550));
    busy = reader.read();
    ASSERT_TRUE(busy.has_value());
    EXPECT_DOUBLE_EQ(*busy, 1.0);
}

TEST(SimHostLoadReader, UnreadableOrStalledCountersGiveNothing) {
    FakeSysfs sys;
    HostLoadReader missing(sys.path("proc").string());
    EXPECT_FALSE(missing.read().has_value());
    EXPECT_FALSE(missing.read().has_value());

    sys.write("proc/stat", procStat(1000, 500, 8000, 500));
    HostLoadReader reader(sys.path("proc").string());
    reader.read();
    EXPECT_FALSE(reader.read().has_value());  // no time passed between the two

    sys.write("proc/stat", "intr 1 2 3\n");
    EXPECT_FALSE(reader.read().has_value());
}

// ----- SimulatedMachine ----------------------------------------------------------------------

TEST(SimulatedMachine, FirstAdvanceOnlySetsTheClock) {
    SimulatedMachine machine;
    EXPECT_FALSE(machine.lastAdvance().has_value());
    machine.advanceTo(1000);
    EXPECT_EQ(machine.lastAdvance(), 1000);
    EXPECT_DOUBLE_EQ(machine.state().elapsedS, 0);
    machine.advanceTo(1002.5);
    EXPECT_DOUBLE_EQ(machine.state().elapsedS, 2.5);
}

TEST(SimulatedMachine, LongGapsAreClampedAndABackwardClockRestartsTheTimeline) {
    SimulatedMachine machine;
    machine.advanceTo(0);
    machine.advanceTo(3600);
    EXPECT_DOUBLE_EQ(machine.state().elapsedS, SimulatedMachine::kMaxAdvanceSeconds);

    machine.advanceTo(100);  // backwards: taken as the new origin, nothing integrated
    EXPECT_DOUBLE_EQ(machine.state().elapsedS, SimulatedMachine::kMaxAdvanceSeconds);
    machine.advanceTo(101);
    EXPECT_DOUBLE_EQ(machine.state().elapsedS, SimulatedMachine::kMaxAdvanceSeconds + 1);
}

TEST(SimulatedMachine, LoadHeatsItUp) {
    SimulatedMachine machine;
    machine.advanceTo(0);
    const double idle = machine.state().cpuTemperatureC;
    machine.setLoad(0.8, 0.4);
    for (int t = 1; t <= 60; ++t) machine.advanceTo(t);
    EXPECT_GT(machine.state().cpuTemperatureC, idle + 15);
    EXPECT_NEAR(machine.state().cpuUtilizationPct, 80, 5);
}

TEST(SimulatedMachine, FollowingHostLoadTakesTheHostUtilisation) {
    FakeSysfs sys;
    sys.write("proc/stat", procStat(1000, 500, 8000, 500));
    SimulatedMachine machine(quietConfig(), 1, HostLoadReader(sys.path("proc").string()));
    machine.advanceTo(0);
    machine.setFollowHostLoad(true);
    EXPECT_TRUE(machine.followsHostLoad());

    sys.write("proc/stat", procStat(1100, 550, 8400, 550));  // 25 % busy since the last read
    machine.advanceTo(1);
    EXPECT_DOUBLE_EQ(machine.state().cpuUtilizationPct, 25);
    EXPECT_DOUBLE_EQ(machine.state().gpuUtilizationPct, 12.5);

    // An unreadable host keeps the last load.
    sys.write("proc/stat", "garbage\n");
    machine.advanceTo(2);
    EXPECT_DOUBLE_EQ(machine.state().cpuUtilizationPct, 25);

    machine.setFollowHostLoad(false);
    machine.setLoad(0.5, 0.5);
    sys.write("proc/stat", procStat(2000, 550, 8400, 550));
    machine.advanceTo(3);
    EXPECT_DOUBLE_EQ(machine.state().cpuUtilizationPct, 50);
}

// ----- SimulatedFanController ----------------------------------------------------------------

TEST(SimulatedFanController, ReadsNamedFansWithTheirRanges) {
    SimulatedFanController controller;
    EXPECT_EQ(controller.typeName(), "SimulatedFanController");
    ASSERT_NE(controller.machine(), nullptr);
    EXPECT_TRUE(controller.machine()->lastAdvance().has_value());  // clock set from the wall

    const FanReadResult read = controller.readFans();
    ASSERT_TRUE(read.ok);
    ASSERT_EQ(read.fans.size(), 2u);
    EXPECT_EQ(read.fans[0].name, "Simulated fan 1");
    EXPECT_EQ(read.fans[1].name, "Simulated fan 2");
    for (const FanState& fan : read.fans) {
        EXPECT_DOUBLE_EQ(fan.minRPM, 1200);
        EXPECT_DOUBLE_EQ(fan.maxRPM, 5400);
        EXPECT_DOUBLE_EQ(fan.targetRPM, 0);
        EXPECT_GE(fan.currentRPM, fan.minRPM);
    }
    EXPECT_FALSE(controller.holdsControl());
}

TEST(SimulatedFanController, TargetsAreClampedUntilReleased) {
    auto machine = std::make_shared<SimulatedMachine>();
    SimulatedFanController controller(machine);
    EXPECT_EQ(controller.machine(), machine);

    ASSERT_TRUE(controller.setTargets({100, 9000}).ok);
    EXPECT_TRUE(controller.holdsControl());
    FanReadResult read = controller.readFans();
    EXPECT_DOUBLE_EQ(read.fans[0].targetRPM, 1200);
    EXPECT_DOUBLE_EQ(read.fans[1].targetRPM, 5400);

    ASSERT_TRUE(controller.setTargets({3000, 0}).ok);
    read = controller.readFans();
    EXPECT_DOUBLE_EQ(read.fans[0].targetRPM, 3000);
    EXPECT_DOUBLE_EQ(read.fans[1].targetRPM, 0);
    EXPECT_TRUE(controller.holdsControl());

    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    EXPECT_FALSE(controller.holdsControl());
    EXPECT_TRUE(machine->state().firmwareControl);
    EXPECT_DOUBLE_EQ(controller.readFans().fans[0].targetRPM, 0);
}

TEST(SimulatedFanController, MalformedTargetsAreRefused) {
    SimulatedFanController controller(std::make_shared<SimulatedMachine>());
    const FanResult wrongCount = controller.setTargets({3000});
    EXPECT_FALSE(wrongCount.ok);
    EXPECT_EQ(wrongCount.error, "expected 2 fan targets, got 1");
    EXPECT_FALSE(controller.setTargets({std::nan(""), 3000}).ok);
    EXPECT_FALSE(controller.holdsControl());
}

TEST(SimulatedFanController, AStopTargetStopsAFanThatCanStopAndSlowsOneThatCannot) {
    sim::PlantConfig config;
    config.fans[0].stopBelowDuty = 51;
    config.fans[0].startDuty = 77;
    auto machine = std::make_shared<SimulatedMachine>(config);
    SimulatedFanController controller(machine);
    FanReadResult read = controller.readFans();
    EXPECT_TRUE(read.fans[0].canStop);
    EXPECT_FALSE(read.fans[0].firmwareStops);  // this firmware never stops a fan
    EXPECT_FALSE(read.fans[1].canStop);

    ASSERT_TRUE(controller.setTargets({kFanStopRPM, kFanStopRPM}).ok);
    EXPECT_TRUE(controller.holdsControl());
    for (int second = 0; second <= 20; ++second) machine->advanceTo(second);
    read = controller.readFans();
    EXPECT_EQ(read.fans[0].currentRPM, 0);
    EXPECT_EQ(read.fans[0].targetRPM, kFanStopRPM);
    EXPECT_TRUE(read.fans[0].stopCommanded);
    // The other one cannot stop: it runs at its lowest speed instead.
    EXPECT_NEAR(read.fans[1].currentRPM, 1200, 5);
    EXPECT_FALSE(read.fans[1].stopCommanded);

    ASSERT_TRUE(controller.setTargets({3000, 3000}).ok);
    for (int second = 21; second <= 40; ++second) machine->advanceTo(second);
    read = controller.readFans();
    EXPECT_NEAR(read.fans[0].currentRPM, 3000, 5);
    EXPECT_FALSE(read.fans[0].stopCommanded);
}

TEST(SimulatedFanController, InjectedFailuresAreReportedAndClear) {
    auto machine = std::make_shared<SimulatedMachine>();
    SimulatedFanController controller(machine);

    machine->setFanReadFailure("fan sensor bus stalled");
    FanReadResult read = controller.readFans();
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(read.error, "fan sensor bus stalled");
    EXPECT_TRUE(read.fans.empty());
    machine->setFanReadFailure(std::nullopt);
    read = controller.readFans();
    EXPECT_TRUE(read.ok);
    EXPECT_EQ(read.fans.size(), 2u);

    machine->setFanWriteFailure("helper unavailable");
    FanResult write = controller.setTargets({4000, 4000});
    EXPECT_FALSE(write.ok);
    EXPECT_EQ(write.error, "helper unavailable");
    EXPECT_FALSE(controller.holdsControl());
    EXPECT_DOUBLE_EQ(machine->state().fanTargetRPM[0], 0);  // nothing landed

    machine->setFanWriteFailure(std::nullopt);
    write = controller.setTargets({4000, 4000});
    EXPECT_TRUE(write.ok);
    EXPECT_DOUBLE_EQ(machine->state().fanTargetRPM[0], 4000);
}

TEST(SimulatedFanController, ASlowWriteLandsLateWithoutBlockingReads) {
    auto machine = std::make_shared<SimulatedMachine>();
    SimulatedFanController controller(machine);
    // Long enough that the reads below, made as soon as the write has begun, come before it
    // lands even on a loaded machine.
    machine->setFanWriteDelay(1.5);
    EXPECT_DOUBLE_EQ(machine->fanWriteDelay(), 1.5);

    FanResult result;
    double blockedSeconds = 0;
    std::atomic<bool> writing{false};
    std::thread writer([&] {
        const auto start = std::chrono::steady_clock::now();
        writing = true;
        result = controller.setTargets({5000, 5000});
        blockedSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    });
    while (!writing) std::this_thread::yield();
    // Readable mid-write, and the write has not landed yet.
    EXPECT_DOUBLE_EQ(machine->state().fanTargetRPM[0], 0);
    EXPECT_TRUE(controller.readFans().ok);
    writer.join();

    EXPECT_TRUE(result.ok);
    // A lower bound only: load can lengthen the wait, never shorten it.
    EXPECT_GE(blockedSeconds, 1.5);
    EXPECT_DOUBLE_EQ(machine->state().fanTargetRPM[0], 5000);
}

TEST(SimulatedFanController, FasterFansCoolTheMachine) {
    auto machine = std::make_shared<SimulatedMachine>();
    SimulatedFanController fans(machine);
    SimulatedTelemetryProvider telemetry(machine);
    machine->setLoad(1, 1);

    ASSERT_TRUE(fans.setTargets({1200, 1200}).ok);
    Timestamp now = 5000;
    for (int i = 0; i < 600; ++i) telemetry.sample(now += 1);
    const TelemetrySample slow = telemetry.sample(now += 1);

    ASSERT_TRUE(fans.setTargets({5400, 5400}).ok);
    for (int i = 0; i < 600; ++i) telemetry.sample(now += 1);
    const TelemetrySample fast = telemetry.sample(now += 1);

    EXPECT_LT(*fast.cpuTemperatureC, *slow.cpuTemperatureC - 8);
    EXPECT_LT(*fast.gpuTemperatureC, *slow.gpuTemperatureC - 5);
    // The cooler dies get their clocks back.
    EXPECT_GT(*fast.cpuClockMHz, *slow.cpuClockMHz);
    EXPECT_DOUBLE_EQ(*fast.cpuClockMHz, 4200);
    EXPECT_NEAR(fast.fanCurrentRPM[0], 5400, 1);
}

// ----- SimulatedTelemetryProvider ------------------------------------------------------------

TEST(SimulatedTelemetryProvider, FillsEveryFieldFromThePlant) {
    auto machine = std::make_shared<SimulatedMachine>(quietConfig());
    SimulatedTelemetryProvider provider(machine);
    machine->setLoad(0.8, 0.6);
    provider.sample(100);
    const TelemetrySample s = provider.sample(101);
    const sim::PlantState state = machine->state();

    EXPECT_DOUBLE_EQ(s.timestamp, 101);
    EXPECT_DOUBLE_EQ(state.elapsedS, 1);
    ASSERT_TRUE(s.cpuTemperatureC && s.gpuTemperatureC && s.cpuClockMHz && s.gpuClockMHz &&
                s.gpuReferenceMaxClockMHz && s.cpuUtilizationPct && s.gpuUtilizationPct &&
                s.totalPowerW && s.thermalPressure && s.gpuRequestedPState && s.gpuGrantedPState);
    EXPECT_DOUBLE_EQ(*s.cpuTemperatureC, state.cpuTemperatureC);
    EXPECT_DOUBLE_EQ(*s.gpuTemperatureC, state.gpuTemperatureC);
    EXPECT_DOUBLE_EQ(*s.cpuClockMHz, 4200);
    EXPECT_DOUBLE_EQ(*s.gpuClockMHz, 1800);
    EXPECT_DOUBLE_EQ(*s.gpuReferenceMaxClockMHz, 1800);
    EXPECT_DOUBLE_EQ(*s.cpuUtilizationPct, 80);
    EXPECT_DOUBLE_EQ(*s.gpuUtilizationPct, 60);
    EXPECT_DOUBLE_EQ(*s.totalPowerW, state.totalPowerW);
    EXPECT_GT(*s.totalPowerW, 6 + 0.8 * 59 + 5 + 0.6 * 75);
    EXPECT_EQ(*s.thermalPressure, ThermalPressureLevel::nominal);
    EXPECT_DOUBLE_EQ(*s.gpuRequestedPState, 0);
    EXPECT_DOUBLE_EQ(*s.gpuGrantedPState, 0);
    EXPECT_EQ(s.gpuThrottleReasons, gpuThrottleNone);
    EXPECT_EQ(s.fanNames, (std::vector<std::string>{"Simulated fan 1", "Simulated fan 2"}));
    EXPECT_EQ(s.fanCurrentRPM, state.fanCurrentRPM);
    EXPECT_EQ(s.fanTargetRPM, (std::vector<double>{0, 0}));
    EXPECT_EQ(s.fanMinRPM, (std::vector<double>{1200, 1200}));
    EXPECT_EQ(s.fanMaxRPM, (std::vector<double>{5400, 5400}));
}

TEST(SimulatedTelemetryProvider, ReadsTheDiesInTheStepsTheirSensorsReportIn) {
    PlantConfig config = quietConfig();
    config.temperatureStepC = 1;
    auto machine = std::make_shared<SimulatedMachine>(config);
    SimulatedTelemetryProvider provider(machine);
    machine->setLoad(1, 1);
    provider.sample(100);
    bool between = false;  // the model passed through fractions of a degree on the way
    for (int second = 101; second <= 160; ++second) {
        const TelemetrySample s = provider.sample(second);
        const sim::PlantState state = machine->state();
        ASSERT_TRUE(s.cpuTemperatureC && s.gpuTemperatureC);
        EXPECT_DOUBLE_EQ(*s.cpuTemperatureC, std::round(state.cpuTemperatureC)) << second;
        EXPECT_DOUBLE_EQ(*s.gpuTemperatureC, std::round(state.gpuTemperatureC)) << second;
        between = between || state.cpuTemperatureC != std::round(state.cpuTemperatureC);
    }
    EXPECT_TRUE(between);
}

TEST(SimulatedTelemetryProvider, FanListsAreAbsentWhileFanReadsFail) {
    auto machine = std::make_shared<SimulatedMachine>();
    SimulatedTelemetryProvider provider(machine);
    machine->setFanReadFailure("fan sensor bus stalled");
    TelemetrySample s = provider.sample(10);
    EXPECT_TRUE(s.fanCurrentRPM.empty());
    EXPECT_TRUE(s.fanNames.empty());
    EXPECT_TRUE(s.cpuTemperatureC.has_value());
    machine->setFanReadFailure(std::nullopt);
    s = provider.sample(11);
    EXPECT_EQ(s.fanCurrentRPM.size(), 2u);
}

TEST(SimulatedTelemetryProvider, AThrottledMachineStillCountsAsUnderHighLoad) {
    auto machine = std::make_shared<SimulatedMachine>();
    SimulatedTelemetryProvider provider(machine);
    ASSERT_TRUE(provider.highLoadPowerW().has_value());
    EXPECT_DOUBLE_EQ(*provider.highLoadPowerW(), 0.3 * (65 + 80));
    EXPECT_LT(*provider.sample(0).totalPowerW, *provider.highLoadPowerW());  // idle

    machine->setFanCommand({1200, 1200});
    machine->setLoad(1, 1);
    TelemetrySample s;
    for (int t = 1; t <= 900; ++t) s = provider.sample(t);
    ASSERT_EQ(*s.thermalPressure, ThermalPressureLevel::critical);
    EXPECT_LT(*s.cpuClockMHz, 0.93 * 4200);
    EXPECT_GE(*s.totalPowerW, *provider.highLoadPowerW());
    EXPECT_EQ(s.gpuThrottleReasons & gpuThrottleThermal, gpuThrottleThermal);
}

}  // namespace
}  // namespace kelvo

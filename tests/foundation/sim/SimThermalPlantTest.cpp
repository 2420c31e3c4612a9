#include "foundation/sim/ThermalPlant.h"

#include "foundation/core/FanController.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

namespace kelvo::sim {
namespace {

constexpr double kTick = 0.25;

// Steps the plant through `seconds` of virtual time, calling `observe` after each tick.
void runFor(ThermalPlant& plant, double seconds,
            const std::function<void(const PlantState&)>& observe = {}) {
    const int ticks = static_cast<int>(seconds / kTick);
    for (int i = 0; i < ticks; ++i) {
        plant.step(kTick);
        if (observe) observe(plant.state());
    }
}

std::vector<double> everyFanAt(const ThermalPlant& plant, double rpm) {
    return std::vector<double>(plant.config().fans.size(), rpm);
}

TEST(SimThermalPlant, IdleSettlesAtPlausibleTemperaturesWithFullClocks) {
    ThermalPlant plant;
    const PlantConfig& config = plant.config();
    // Heat it up and let the clocks droop first, so settling back is something it has to do.
    plant.setFanCommand(everyFanAt(plant, 1200));
    plant.setLoad(1, 1);
    runFor(plant, 300);
    ASSERT_GT(plant.state().cpuTemperatureC, 85);
    ASSERT_LT(plant.state().cpuClockScale, 1);

    plant.setLoad(0, 0);
    plant.setFirmwareControl(true);
    runFor(plant, 1800);
    const PlantState s = plant.state();
    EXPECT_GE(s.cpuTemperatureC, 40);
    EXPECT_LE(s.cpuTemperatureC, 60);
    EXPECT_GE(s.gpuTemperatureC, 40);
    EXPECT_LE(s.gpuTemperatureC, 60);
    EXPECT_GT(s.cpuTemperatureC, s.sinkTemperatureC);
    EXPECT_GT(s.sinkTemperatureC, config.ambientC);
    EXPECT_DOUBLE_EQ(s.cpuClockMHz, config.cpuMaxClockMHz);
    EXPECT_DOUBLE_EQ(s.gpuClockMHz, config.gpuMaxClockMHz);
    EXPECT_FALSE(s.cpuThrottling);
    EXPECT_FALSE(s.gpuThrottling);
    EXPECT_EQ(s.thermalPressure, ThermalPressureLevel::nominal);
    EXPECT_EQ(s.gpuThrottleReasons, gpuThrottleNone);
    // Under the firmware curve's first point the fans sit at their minimum.
    for (std::size_t i = 0; i < s.fanCurrentRPM.size(); ++i)
        EXPECT_NEAR(s.fanCurrentRPM[i], s.fanMinRPM[i], 1);
}

TEST(SimThermalPlant, FullLoadWithFansAtMinimumReachesTheLimitAndDroops) {
    ThermalPlant plant;
    const PlantConfig& config = plant.config();
    plant.setFanCommand(everyFanAt(plant, config.fans[0].minRPM));
    plant.setLoad(1, 1);
    plant.step(kTick);
    const double unthrottledPower = plant.state().totalPowerW;

    double hottestCpu = 0;
    runFor(plant, 900,
           [&](const PlantState& s) { hottestCpu = std::max(hottestCpu, s.cpuTemperatureC); });
    const PlantState s = plant.state();
    EXPECT_GE(hottestCpu, config.cpuLimitC - 0.5);
    // The droop holds the die near its limit instead of letting it run away.
    EXPECT_LT(hottestCpu, config.cpuLimitC + 3);
    EXPECT_LT(s.cpuClockMHz, 0.93 * config.cpuMaxClockMHz);
    EXPECT_LT(s.gpuClockMHz, 0.93 * config.gpuMaxClockMHz);
    EXPECT_GE(s.cpuClockMHz, config.cpuBaseClockMHz);
    EXPECT_TRUE(s.cpuThrottling);
    EXPECT_TRUE(s.gpuThrottling);
    // In the serious band, raised one level because the dies are throttling.
    EXPECT_EQ(s.thermalPressure, ThermalPressureLevel::critical);
    EXPECT_LT(s.totalPowerW, 0.6 * unthrottledPower);
    EXPECT_EQ(s.gpuThrottleReasons & gpuThrottleThermal, gpuThrottleThermal);
    EXPECT_EQ(s.gpuRequestedPState, 0);
    EXPECT_GT(s.gpuGrantedPState, s.gpuRequestedPState);
    EXPECT_GE(s.cpuUtilizationPct, 95);  // the load is still there; only the clocks gave way
}

TEST(SimThermalPlant, FullLoadWithFansAtMaximumStaysUnderTheLimits) {
    ThermalPlant plant;
    const PlantConfig& config = plant.config();
    plant.setFanCommand(everyFanAt(plant, config.fans[0].maxRPM));
    plant.setLoad(1, 1);
    double hottestCpu = 0;
    double hottestGpu = 0;
    double lowestScale = 1;
    runFor(plant, 1200, [&](const PlantState& s) {
        hottestCpu = std::max(hottestCpu, s.cpuTemperatureC);
        hottestGpu = std::max(hottestGpu, s.gpuTemperatureC);
        lowestScale = std::min({lowestScale, s.cpuClockScale, s.gpuClockScale});
    });
    const PlantState s = plant.state();
    EXPECT_LT(hottestCpu, config.cpuLimitC - 5);
    EXPECT_LT(hottestGpu, config.gpuLimitC - 5);
    // Hot and busy nonetheless: the fans are carrying real heat.
    EXPECT_GT(s.cpuTemperatureC, 70);
    EXPECT_DOUBLE_EQ(lowestScale, 1.0);
    EXPECT_DOUBLE_EQ(s.cpuClockMHz, config.cpuMaxClockMHz);
    EXPECT_DOUBLE_EQ(s.gpuClockMHz, config.gpuMaxClockMHz);
    EXPECT_EQ(s.gpuGrantedPState, s.gpuRequestedPState);
    EXPECT_EQ(s.gpuThrottleReasons, gpuThrottleNone);
    EXPECT_NE(s.thermalPressure, ThermalPressureLevel::serious);
    EXPECT_NE(s.thermalPressure, ThermalPressureLevel::critical);
}

TEST(SimThermalPlant, MoreAirflowSettlesCooler) {
    std::vector<double> cpu;
    std::vector<double> gpu;
    for (double rpm : {2600.0, 3800.0, 5400.0}) {
        ThermalPlant plant;
        plant.setLoad(0.5, 0.5);
        plant.setFanCommand(everyFanAt(plant, rpm));
        runFor(plant, 2400);
        ASSERT_DOUBLE_EQ(plant.state().cpuClockScale, 1.0) << "at " << rpm << " RPM";
        cpu.push_back(plant.state().cpuTemperatureC);
        gpu.push_back(plant.state().gpuTemperatureC);
    }
    EXPECT_GT(cpu[0], cpu[1] + 2);
    EXPECT_GT(cpu[1], cpu[2] + 2);
    EXPECT_GT(gpu[0], gpu[1] + 2);
    EXPECT_GT(gpu[1], gpu[2] + 2);
}

TEST(SimThermalPlant, SlowerRatedFansMoveLessAirEvenAtTheirMaximum) {
    PlantConfig small;
    for (auto& fan : small.fans) fan.maxRPM = 1600;
    ThermalPlant weak(small);
    ThermalPlant strong;
    for (ThermalPlant* p : {&weak, &strong}) {
        p->setLoad(1, 1);
        p->setFanCommand(everyFanAt(*p, p->config().fans[0].maxRPM));
    }
    runFor(weak, 900);
    runFor(strong, 900);
    EXPECT_DOUBLE_EQ(weak.state().fanTargetRPM[0], 1600);
    EXPECT_TRUE(weak.state().cpuThrottling);
    EXPECT_FALSE(strong.state().cpuThrottling);
    EXPECT_GT(weak.state().sinkTemperatureC, strong.state().sinkTemperatureC + 15);
}

TEST(SimThermalPlant, FansMoveTowardsANewTargetOverSeconds) {
    ThermalPlant plant;
    const double min = plant.config().fans[0].minRPM;
    const double max = plant.config().fans[0].maxRPM;
    plant.setFanCommand(everyFanAt(plant, min));
    runFor(plant, 10);
    ASSERT_NEAR(plant.state().fanCurrentRPM[0], min, 1);

    plant.setFanCommand(everyFanAt(plant, max));
    EXPECT_DOUBLE_EQ(plant.state().fanTargetRPM[0], max);
    EXPECT_NEAR(plant.state().fanCurrentRPM[0], min, 1);  // a command alone moves nothing

    plant.step(0.25);
    const double quarter = plant.state().fanCurrentRPM[0];
    plant.step(0.75);
    const double second = plant.state().fanCurrentRPM[0];
    EXPECT_GT(quarter, min + 100);
    EXPECT_LT(quarter, min + 0.5 * (max - min));
    EXPECT_GT(second, quarter);
    EXPECT_LT(second, max - 500);
    runFor(plant, 10);
    EXPECT_NEAR(plant.state().fanCurrentRPM[0], max, 30);

    // Spinning down takes time as well.
    plant.setFanCommand(everyFanAt(plant, min));
    plant.step(0.5);
    EXPECT_GT(plant.state().fanCurrentRPM[0], min + 0.5 * (max - min));
}

TEST(SimThermalPlant, AStopCommandHoldsAFanStillUnlikeZero) {
    ThermalPlant plant;
    plant.setFanCommand({kFanStopRPM, 0});
    EXPECT_TRUE(plant.holdsControl());
    EXPECT_DOUBLE_EQ(plant.state().fanTargetRPM[0], kFanStopRPM);
    EXPECT_DOUBLE_EQ(plant.state().fanTargetRPM[1], 0);
    runFor(plant, 20);
    EXPECT_DOUBLE_EQ(plant.state().fanCurrentRPM[0], 0);
    EXPECT_NEAR(plant.state().fanCurrentRPM[1], plant.state().fanMinRPM[1], 5);
    plant.setFanCommand({2000, 0});
    runFor(plant, 20);
    EXPECT_NEAR(plant.state().fanCurrentRPM[0], 2000, 5);
}

TEST(SimThermalPlant, TheFirmwareStopsFansThatCanStopWhileCoolWithHysteresis) {
    PlantConfig config;
    config.fans[0].stopBelowDuty = 51;
    config.firmwareStopBelowC = 60;
    config.firmwareStopHysteresisC = 6;
    ThermalPlant plant(config);
    // Idle, the dies sit under 60 °C: the fan that can stop stands still from the start.
    ASSERT_LT(std::max(plant.state().cpuTemperatureC, plant.state().gpuTemperatureC), 60);
    EXPECT_DOUBLE_EQ(plant.state().fanCurrentRPM[0], 0);
    EXPECT_TRUE(plant.state().fanFirmwareStopped[0]);
    EXPECT_FALSE(plant.state().fanFirmwareStopped[1]);
    EXPECT_NEAR(plant.state().fanCurrentRPM[1], 1200, 1);

    // Under load it starts once the hotter die reaches 66 °C, not at 60.
    plant.setLoad(1, 1);
    double startedAtC = 0;
    runFor(plant, 300, [&](const PlantState& s) {
        if (startedAtC == 0 && s.fanCurrentRPM[0] > 0)
            startedAtC = std::max(s.cpuTemperatureC, s.gpuTemperatureC);
    });
    EXPECT_GE(startedAtC, 66);
    EXPECT_LT(startedAtC, 70);
    EXPECT_GT(plant.state().fanCurrentRPM[0], 1200);

    // Idle again: it stops once the dies are under 60 °C, and stays stopped.
    plant.setLoad(0, 0);
    runFor(plant, 1800);
    EXPECT_TRUE(plant.state().fanFirmwareStopped[0]);
    EXPECT_DOUBLE_EQ(plant.state().fanCurrentRPM[0], 0);
    EXPECT_LT(std::max(plant.state().cpuTemperatureC, plant.state().gpuTemperatureC), 60);
}

TEST(SimThermalPlant, CommandsAreClampedAndZeroLeavesAFanToTheFirmware) {
    ThermalPlant plant;
    plant.setFanCommand({100, 0});
    PlantState s = plant.state();
    EXPECT_DOUBLE_EQ(s.fanTargetRPM[0], s.fanMinRPM[0]);
    EXPECT_DOUBLE_EQ(s.fanTargetRPM[1], 0);
    EXPECT_TRUE(plant.holdsControl());
    EXPECT_FALSE(s.firmwareControl);

    plant.setFanCommand({9000, 9000});
    EXPECT_DOUBLE_EQ(plant.state().fanTargetRPM[0], plant.state().fanMaxRPM[0]);

    // A fan left to the firmware follows the curve while its neighbour holds its command.
    plant.setFanCommand({2000, 0});
    plant.setLoad(1, 1);
    runFor(plant, 120);
    s = plant.state();
    EXPECT_NEAR(s.fanCurrentRPM[0], 2000, 5);
    EXPECT_GT(s.fanCurrentRPM[1], 3000);

    plant.setFanCommand({0, 0});
    EXPECT_FALSE(plant.holdsControl());
}

TEST(SimThermalPlant, ReleasedFirmwareCurveRaisesFansWithTemperature) {
    ThermalPlant plant;
    plant.setFanCommand(everyFanAt(plant, 3000));
    plant.setFirmwareControl(true);
    EXPECT_FALSE(plant.holdsControl());
    EXPECT_TRUE(plant.state().firmwareControl);
    EXPECT_DOUBLE_EQ(plant.state().fanTargetRPM[0], 0);  // commands are dropped on release

    runFor(plant, 60);
    const double idleRPM = plant.state().fanCurrentRPM[0];
    EXPECT_NEAR(idleRPM, plant.state().fanMinRPM[0], 1);

    plant.setLoad(1, 1);
    double previousDrive = 0;
    bool driveFollowsHeat = true;
    double previousHottest = 0;
    runFor(plant, 300, [&](const PlantState& s) {
        const double hottest = std::max(s.cpuTemperatureC, s.gpuTemperatureC);
        if (hottest > previousHottest + 1e-9 && s.fanDriveRPM[0] < previousDrive - 1e-9)
            driveFollowsHeat = false;
        previousHottest = hottest;
        previousDrive = s.fanDriveRPM[0];
    });
    const PlantState s = plant.state();
    EXPECT_TRUE(driveFollowsHeat);
    EXPECT_GT(s.fanCurrentRPM[0], idleRPM + 2000);
    EXPECT_LT(s.fanCurrentRPM[0], s.fanMaxRPM[0]);
    // Curve: minimum up to 55 °C, maximum at 90 °C of the hotter die.
    const double hottest = std::max(s.cpuTemperatureC, s.gpuTemperatureC);
    const double expected =
        s.fanMinRPM[0] + (hottest - 55) / 35 * (s.fanMaxRPM[0] - s.fanMinRPM[0]);
    EXPECT_NEAR(s.fanDriveRPM[0], expected, 1);
    EXPECT_DOUBLE_EQ(s.fanTargetRPM[0], 0);
}

TEST(SimThermalPlant, SameSeedAndInputsGiveIdenticalStates) {
    ThermalPlant a(PlantConfig{}, 7);
    ThermalPlant b(PlantConfig{}, 7);
    ThermalPlant other(PlantConfig{}, 8);
    bool utilisationDiffered = false;
    for (int i = 0; i < 600; ++i) {
        const double load = (i / 60) % 2 == 0 ? 0.9 : 0.3;
        for (ThermalPlant* p : {&a, &b, &other}) {
            p->setLoad(load, load * 0.8);
            if (i % 100 == 0) p->setFanCommand({1500.0 + i * 5, 2500.0 + i * 3});
            if (i == 450) p->setFirmwareControl(true);
            p->step(0.5);
        }
        ASSERT_EQ(a.state(), b.state()) << "diverged at step " << i;
        // The seed only feeds the utilisation jitter; the thermal path is the same.
        EXPECT_DOUBLE_EQ(a.state().cpuTemperatureC, other.state().cpuTemperatureC);
        if (a.state().cpuUtilizationPct != other.state().cpuUtilizationPct ||
            a.state().gpuUtilizationPct != other.state().gpuUtilizationPct)
            utilisationDiffered = true;
        EXPECT_NEAR(a.state().cpuUtilizationPct, load * 100, 6);
    }
    EXPECT_TRUE(utilisationDiffered);
    EXPECT_DOUBLE_EQ(a.state().elapsedS, 300);
}

TEST(SimThermalPlant, StepSizeDoesNotChangeTheOutcome) {
    // Sub-stepping keeps the integration stable: one big step lands where many small ones do.
    ThermalPlant coarse;
    ThermalPlant fine;
    for (ThermalPlant* p : {&coarse, &fine}) {
        p->setLoad(1, 0.5);
        p->setFanCommand({3000, 3000});
    }
    for (int i = 0; i < 60; ++i) coarse.step(5);
    for (int i = 0; i < 6000; ++i) fine.step(0.05);
    EXPECT_NEAR(coarse.state().cpuTemperatureC, fine.state().cpuTemperatureC, 0.05);
    EXPECT_NEAR(coarse.state().sinkTemperatureC, fine.state().sinkTemperatureC, 0.05);
    EXPECT_NEAR(coarse.state().fanCurrentRPM[0], fine.state().fanCurrentRPM[0], 0.5);
}

TEST(SimThermalPlant, PressureBandsFollowTheHotterDie) {
    // The plant starts at its idle steady state, about 17.7 K over ambient for the CPU.
    auto idlePressureAt = [](double ambientC, double limitC) {
        PlantConfig config;
        config.ambientC = ambientC;
        config.cpuLimitC = limitC;
        config.gpuLimitC = limitC;
        ThermalPlant plant(config);
        return plant.state().thermalPressure;
    };
    EXPECT_EQ(idlePressureAt(24, 105), ThermalPressureLevel::nominal);
    EXPECT_EQ(idlePressureAt(65, 105), ThermalPressureLevel::fair);
    EXPECT_EQ(idlePressureAt(74, 105), ThermalPressureLevel::serious);
    EXPECT_EQ(idlePressureAt(80, 105), ThermalPressureLevel::critical);
    // A die at its limit is throttling, which raises the level by one.
    EXPECT_EQ(idlePressureAt(65, 82), ThermalPressureLevel::serious);
    EXPECT_EQ(idlePressureAt(74, 91), ThermalPressureLevel::critical);
}

}  // namespace
// A desktop whose CPU cooler's fan cools only the CPU's sink and whose card's fan only the GPU's.
PlantConfig twoSinks(double sinkToSink) {
    PlantConfig config;
    FanConfig cooler{"cooler", 500, 2000};
    cooler.cpuCooling = 1;
    cooler.gpuCooling = 0;
    FanConfig card{"card", 500, 2000};
    card.cpuCooling = 0;
    card.gpuCooling = 1;
    config.fans = {cooler, card};
    config.airflowReferenceRPM = 2000;
    config.sinkToSinkWPerK = sinkToSink;
    return config;
}

TEST(SimThermalPlant, EachFanCoolsTheSinkItIsCoupledTo) {
    ThermalPlant coolerFast(twoSinks(0));
    ThermalPlant cardFast(twoSinks(0));
    ASSERT_TRUE(coolerFast.config().splitsSinks());
    for (ThermalPlant* plant : {&coolerFast, &cardFast}) plant->setLoad(1, 1);
    coolerFast.setFanCommand({2000, 500});
    cardFast.setFanCommand({500, 2000});
    runFor(coolerFast, 600);
    runFor(cardFast, 600);
    const PlantState a = coolerFast.state();
    const PlantState b = cardFast.state();
    // The fast fan's die runs far cooler; the other die sees no difference without a path
    // between the sinks.
    EXPECT_LT(a.cpuTemperatureC, b.cpuTemperatureC - 10);
    EXPECT_LT(b.gpuTemperatureC, a.gpuTemperatureC - 10);
    ThermalPlant slow(twoSinks(0));
    slow.setLoad(1, 1);
    slow.setFanCommand({500, 500});
    runFor(slow, 600);
    EXPECT_NEAR(a.gpuTemperatureC, slow.state().gpuTemperatureC, 1e-9);
    EXPECT_LT(a.cpuTemperatureC, slow.state().cpuTemperatureC - 10);
    EXPECT_LT(a.sinkTemperatureC, a.gpuSinkTemperatureC);
    EXPECT_GT(b.sinkTemperatureC, b.gpuSinkTemperatureC);
}

TEST(SimThermalPlant, SinksTradeHeatThroughTheirPath) {
    // Only the CPU works and only the card's fan turns fast: with a path between the sinks the
    // CPU's heat reaches the GPU's sink, and that fan cools the CPU through it.
    auto settle = [](double sinkToSink) {
        ThermalPlant plant(twoSinks(sinkToSink));
        plant.setLoad(1, 0);
        plant.setFanCommand({500, 2000});
        runFor(plant, 900);
        return plant.state();
    };
    const PlantState apart = settle(0);
    const PlantState joined = settle(2);
    EXPECT_GT(joined.gpuSinkTemperatureC, apart.gpuSinkTemperatureC + 1);
    EXPECT_LT(joined.sinkTemperatureC, apart.sinkTemperatureC - 1);
}

TEST(SimThermalPlant, WithoutACouplingMatrixEveryFanCoolsOneSharedSink) {
    PlantConfig config;
    ASSERT_FALSE(config.splitsSinks());
    const std::vector<double> rpm{1000, 3000};
    EXPECT_DOUBLE_EQ(coolingAirflow(config, Die::cpu, rpm), 2000 / config.airflowReferenceRPM);
    EXPECT_DOUBLE_EQ(coolingAirflow(config, Die::gpu, rpm), 2000 / config.airflowReferenceRPM);
    ThermalPlant plant(config);
    plant.setLoad(1, 1);
    runFor(plant, 60);
    EXPECT_EQ(plant.state().sinkTemperatureC, plant.state().gpuSinkTemperatureC);

    // With one, each die's airflow is its own weighted sum; a stopped fan adds nothing.
    const PlantConfig split = twoSinks(0);
    EXPECT_DOUBLE_EQ(coolingAirflow(split, Die::cpu, {1000, 2000}), 0.5);
    EXPECT_DOUBLE_EQ(coolingAirflow(split, Die::gpu, {1000, 2000}), 1.0);
    EXPECT_DOUBLE_EQ(coolingAirflow(split, Die::gpu, {1000, kFanStopRPM}), 0.0);
}

TEST(SimThermalPlant, TwoSinksStartSettledAtIdle) {
    ThermalPlant plant(twoSinks(0.5));
    const PlantState start = plant.state();
    plant.setFirmwareControl(true);
    runFor(plant, 120);
    EXPECT_NEAR(plant.state().sinkTemperatureC, start.sinkTemperatureC, 0.5);
    EXPECT_NEAR(plant.state().gpuSinkTemperatureC, start.gpuSinkTemperatureC, 0.5);
    EXPECT_GT(start.gpuSinkTemperatureC, plant.config().ambientC);
}

}  // namespace kelvo::sim

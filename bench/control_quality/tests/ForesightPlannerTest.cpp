#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "ForesightPlanner.h"
#include "MachineProfile.h"
#include "QualityRun.h"
#include "TraceLibrary.h"

using namespace kelvo;
using namespace kelvo::quality;

namespace {

constexpr LoadLevel kIdle{0.03, 0.02};

ControllerSpec playing(DutyPlan plan) {
    ControllerSpec controller;
    controller.name = "plan";
    controller.plan = [plan](const MachineProfile&, const LoadTrace&, const RunSettings&) {
        return plan;
    };
    return controller;
}

ControllerSpec constantDuty(double duty, int seconds) {
    return playing(DutyPlan(static_cast<std::size_t>(seconds), {duty}));
}

ControllerSpec foresight() {
    for (auto& controller : standardControllers())
        if (controller.name == "foresight") return controller;
    return {};
}

// Five minutes of a game: loading screens and play, fans well off their minimum.
LoadTrace shortGame() {
    return TraceLibrary(1).gameWithLoadingScreens(300);
}

LoadTrace idleThenStep(int idleS, int loadS, LoadLevel load) {
    LoadTrace trace("step");
    trace.hold(idleS, kIdle);
    trace.hold(loadS, load);
    trace.hold(60, kIdle);
    return trace;
}

double meanRpm(const sim::PlantState& state) {
    double sum = 0;
    for (double rpm : state.fanCurrentRPM) sum += rpm;
    return sum / static_cast<double>(state.fanCurrentRPM.size());
}

// The quietest run with one constant duty for every fan that keeps the limits: the lowest such
// duty, found by bisection (keeping the limits needs more than the fans' minimum).
RunResult quietestConstantDuty(const MachineProfile& machine, const LoadTrace& trace) {
    auto keeps = [&](double duty) {
        return runController(machine, trace, constantDuty(duty, trace.seconds()), RunSettings{})
                   .row.overLimitS == 0;
    };
    EXPECT_FALSE(keeps(0.0));
    EXPECT_TRUE(keeps(1.0));
    double low = 0;
    double high = 1;
    for (int i = 0; i < 13; ++i) {
        const double mid = (low + high) / 2;
        (keeps(mid) ? high : low) = mid;
    }
    return runController(machine, trace, constantDuty(high, trace.seconds()), RunSettings{});
}

double highest(const std::vector<double>& duties) {
    return *std::max_element(duties.begin(), duties.end());
}

bool over(const sim::PlantState& state, const MetricLimits& limits = {}) {
    return state.cpuTemperatureC > limits.cpuLimitC || state.gpuTemperatureC > limits.gpuLimitC;
}

}  // namespace

TEST(ForesightPlanner, PredictsTheRunSecondForSecond) {
    const MachineProfile machine = simulatedDefault();
    const LoadTrace trace = shortGame();
    const ForesightOutcome outcome = planForesight(machine, trace, RunSettings{});
    double loudest = 0;
    for (const auto& duties : outcome.plan) loudest = std::max(loudest, highest(duties));
    ASSERT_GT(loudest, 0.1);

    const RunResult run = runController(machine, trace, playing(outcome.plan), RunSettings{});
    ASSERT_EQ(run.series.size(), outcome.predicted.size());
    // The plan is played as pwm bytes, each duty rounded up to the next of 256 steps: the fans
    // run at most one step faster than planned, and the dies are never warmer than predicted.
    double step = 0;
    for (const auto& fan : machine.plant.fans)
        step = std::max(step, (fan.maxRPM - fan.minRPM) / 255);
    for (std::size_t k = 0; k < run.series.size(); ++k) {
        EXPECT_LE(run.series[k].cpuC, outcome.predicted[k].cpuTemperatureC + 1e-9) << k;
        EXPECT_NEAR(run.series[k].cpuC, outcome.predicted[k].cpuTemperatureC, 0.25) << k;
        EXPECT_LE(run.series[k].gpuC, outcome.predicted[k].gpuTemperatureC + 1e-9) << k;
        EXPECT_NEAR(run.series[k].gpuC, outcome.predicted[k].gpuTemperatureC, 0.25) << k;
        EXPECT_GE(run.series[k].rpm, meanRpm(outcome.predicted[k]) - 1e-6) << k;
        EXPECT_LE(run.series[k].rpm, meanRpm(outcome.predicted[k]) + step) << k;
    }
}

TEST(ForesightPlanner, KeepsBothDiesUnderTheLimitsEverySecond) {
    const LoadTrace trace = shortGame();
    for (const MachineProfile& machine : {simulatedDefault(), thinLaptop()}) {
        // Fans left at their minimum would go over: holding the limits takes a plan.
        const RunResult slow =
            runController(machine, trace, constantDuty(0, trace.seconds()), RunSettings{});
        ASSERT_GT(slow.row.overLimitS, 0) << machine.name;

        const RunResult run = runController(machine, trace, foresight(), RunSettings{});
        EXPECT_EQ(run.row.overLimitS, 0) << machine.name;
        EXPECT_LE(run.row.peakC, 88.0) << machine.name;
    }
}

// Idle, the quietest plan is the lowest level there is: every fan at its minimum, or standing
// still where the fans can stop.
TEST(ForesightPlanner, LeavesTheFansAtTheirMinimumOrStoppedWhileIdle) {
    LoadTrace trace("idle");
    trace.hold(400, kIdle);
    for (const MachineProfile& machine : standardMachines()) {
        const bool stops = std::any_of(machine.plant.fans.begin(), machine.plant.fans.end(),
                                       [](const sim::FanConfig& fan) { return fan.canStop(); });
        const double lowest = stops ? -1.0 : 0.0;
        const DutyPlan plan = foresightPlan(machine, trace, RunSettings{});
        ASSERT_EQ(plan.size(), 400u);
        EXPECT_TRUE(std::all_of(plan.begin(), plan.end(), [&](const std::vector<double>& duties) {
            return duties == std::vector<double>(machine.plant.fans.size(), lowest);
        })) << machine.name;
    }
}

TEST(ForesightPlanner, RaisesTheFansBeforeAKnownStepLoad) {
    constexpr int kStepAt = 200;
    // Full load needs more than full fans can give once the sink is hot; 60 % could be held late,
    // but a gentle early raise is quieter than a late hard one.
    for (LoadLevel load : {LoadLevel{1.0, 1.0}, LoadLevel{0.6, 0.6}}) {
        const LoadTrace trace = idleThenStep(kStepAt, 300, load);
        const ForesightOutcome outcome = planForesight(simulatedDefault(), trace, RunSettings{});
        ASSERT_EQ(outcome.unavoidableOverS, 0);
        // plan[k] drives second k + 1: plan[kStepAt - 2] is the last idle second's duty. The dies
        // are cool then; only the load to come calls for the fans.
        EXPECT_GT(highest(outcome.plan[kStepAt - 2]), 0.05) << load.cpu;
        EXPECT_LT(std::max(outcome.predicted[kStepAt - 1].cpuTemperatureC,
                           outcome.predicted[kStepAt - 1].gpuTemperatureC),
                  60.0)
            << load.cpu;
    }
}

TEST(ForesightPlanner, IsQuieterThanTheLowestConstantDutyThatKeepsTheLimits) {
    const MachineProfile machine = simulatedDefault();
    const LoadTrace trace = shortGame();
    const RunResult constant = quietestConstantDuty(machine, trace);
    const RunResult planned = runController(machine, trace, foresight(), RunSettings{});
    ASSERT_EQ(planned.row.overLimitS, 0);
    EXPECT_LT(planned.row.meanDb, constant.row.meanDb);
}

TEST(ForesightPlanner, IsNoLouderThanAnyStandardControllerThatKeepsTheLimits) {
    const MachineProfile machine = simulatedDefault();
    const LoadTrace trace = shortGame();
    const RunResult planned = runController(machine, trace, foresight(), RunSettings{});
    ASSERT_EQ(planned.row.overLimitS, 0);
    int compared = 0;
    for (const auto& controller : standardControllers()) {
        if (controller.name == "foresight") continue;
        const RunResult run = runController(machine, trace, controller, RunSettings{});
        if (run.row.overLimitS > 0) continue;
        ++compared;
        EXPECT_LE(planned.row.meanDb, run.row.meanDb) << controller.name;
    }
    EXPECT_GE(compared, 3);
}

TEST(ForesightPlanner, RunsFullFansWhereEvenFullFansCannotHoldTheLimit) {
    const MachineProfile machine = hotThinLaptop();
    const LoadTrace trace = idleThenStep(30, 200, {1.0, 0.75});
    const ForesightOutcome outcome = planForesight(machine, trace, RunSettings{});
    ASSERT_GT(outcome.unavoidableOverS, 0);
    int overS = 0;
    for (std::size_t k = 1; k < outcome.predicted.size(); ++k) {
        if (!over(outcome.predicted[k])) continue;
        ++overS;
        EXPECT_EQ(outcome.plan[k - 1], std::vector<double>(machine.plant.fans.size(), 1.0)) << k;
    }
    EXPECT_EQ(overS, outcome.unavoidableOverS);
    // No plan has fewer seconds over than full fans throughout.
    const RunResult full =
        runController(machine, trace, constantDuty(1.0, trace.seconds()), RunSettings{});
    const RunResult planned = runController(machine, trace, foresight(), RunSettings{});
    EXPECT_EQ(planned.row.overLimitS, full.row.overLimitS);
    EXPECT_LT(planned.row.meanDb, full.row.meanDb);
}

// Where fans cool different dies and differ in loudness, planning each fan on its own is well
// quieter than the quietest single duty for every fan that keeps the limits, and no standard
// controller that keeps them is quieter.
TEST(ForesightPlanner, PlansEachFanOnItsOwnWhereFansCoolDifferentDies) {
    const MachineProfile machine = desktopCoolerGpuCase();
    const LoadTrace trace = shortGame();
    const RunResult constant = quietestConstantDuty(machine, trace);
    const ForesightOutcome outcome = planForesight(machine, trace, RunSettings{});
    const RunResult planned = runController(machine, trace, playing(outcome.plan), RunSettings{});
    ASSERT_EQ(planned.row.overLimitS, 0);
    EXPECT_LT(planned.row.meanDb, constant.row.meanDb - 2.0);
    // The fans do not move together: some second has two of them a tenth of their range apart.
    double widest = 0;
    for (const auto& duties : outcome.plan)
        widest =
            std::max(widest, highest(duties) - *std::min_element(duties.begin(), duties.end()));
    EXPECT_GT(widest, 0.1);
    for (const auto& controller : standardControllers()) {
        if (controller.name == "foresight") continue;
        const RunResult run = runController(machine, trace, controller, RunSettings{});
        if (run.row.overLimitS > 0) continue;
        EXPECT_LE(planned.row.meanDb, run.row.meanDb) << controller.name;
    }
}

// A plan that stops some fans and later restarts them keeps the limits when played through the
// pwm files: a fan still spinning down from a stop gets its start duty, as one at rest does.
TEST(ForesightPlanner, FansItStopsAndRestartsKeepTheLimitsThroughThePwmFiles) {
    const MachineProfile machine = desktopFanStop();
    const LoadTrace trace = TraceLibrary(1).compileJob();
    const ForesightOutcome outcome = planForesight(machine, trace, RunSettings{});
    ASSERT_EQ(outcome.unavoidableOverS, 0);
    std::size_t restarts = 0;
    for (std::size_t k = 1; k < outcome.plan.size(); ++k)
        for (std::size_t fan = 0; fan < outcome.plan[k].size(); ++fan)
            if (outcome.plan[k - 1][fan] < 0 && outcome.plan[k][fan] >= 0) ++restarts;
    ASSERT_GT(restarts, 0u);
    const RunResult run = runController(machine, trace, playing(outcome.plan), RunSettings{});
    EXPECT_EQ(run.row.overLimitS, 0);
}

// Each fan's own level, second by second, under a held plan (duty 0..1 over its range).
double fanLevel(const sim::FanConfig& fan, double duty) {
    return 50 * std::log10(fan.minRPM + duty * (fan.maxRPM - fan.minRPM));
}

// A step to full speed and back, held to the quiet ramp: the rise starts early and arrives in
// time, the fall follows at the ramp, and no second asks any fan for less than the plan did.
TEST(ForesightPlanner, HeldUnheardBeginsARiseEarlyAndEndsAFallLateAtTheRamp) {
    const MachineProfile machine = simulatedDefault();
    // Minimum to full speed is 33 dB on this machine: 73 s at the ramp.
    DutyPlan plan(100, {0.0});
    plan.insert(plan.end(), 60, {1.0});
    plan.insert(plan.end(), 100, {0.0});
    const DutyPlan held = heldUnheard(machine, plan, 0.45);
    ASSERT_EQ(held.size(), plan.size());
    for (std::size_t t = 0; t < held.size(); ++t) {
        ASSERT_EQ(held[t].size(), machine.plant.fans.size());
        for (std::size_t i = 0; i < held[t].size(); ++i) {
            EXPECT_GE(held[t][i], plan[t][0] - 1e-12) << t;
            if (t == 0) continue;
            const sim::FanConfig& fan = machine.plant.fans[i];
            EXPECT_LE(std::abs(fanLevel(fan, held[t][i]) - fanLevel(fan, held[t - 1][i])),
                      0.45 + 1e-9)
                << t;
        }
    }
    EXPECT_DOUBLE_EQ(held[100][0], 1.0);
    EXPECT_DOUBLE_EQ(held[159][0], 1.0);
    EXPECT_GT(held[40][0], 0.0);   // on its way up a minute before the step
    EXPECT_GT(held[220][0], 0.0);  // still on its way down a minute after it
    EXPECT_DOUBLE_EQ(held[0][0], 0.0);
    EXPECT_DOUBLE_EQ(held.back()[0], 0.0);
}

// A fan the plan stops stays stopped wherever the held level would be under its lowest speed; it
// turns, at its lowest speed or more, on either side of where the plan runs it.
TEST(ForesightPlanner, HeldUnheardKeepsAStoppedFanStillWhereItsLowestSpeedIsNotNeeded) {
    const MachineProfile machine = desktopFanStop();
    DutyPlan plan(90, std::vector<double>(machine.plant.fans.size(), -1.0));
    plan.insert(plan.end(), 60, std::vector<double>(machine.plant.fans.size(), 0.6));
    plan.insert(plan.end(), 90, std::vector<double>(machine.plant.fans.size(), -1.0));
    const DutyPlan held = heldUnheard(machine, plan, 0.45);
    for (std::size_t i = 0; i < machine.plant.fans.size(); ++i) {
        EXPECT_LT(held[0][i], 0) << i;
        EXPECT_GE(held[85][i], 0) << i;  // turning before the plan asks for it
        EXPECT_LT(held[85][i], 0.6) << i;
        EXPECT_GE(held[155][i], 0) << i;  // and after
        EXPECT_LT(held.back()[i], 0) << i;
    }
}

// Played on the machine: held to the quiet ramp, the quietest plan keeps the limits it kept, is
// no quieter, and makes no more audible changes.
TEST(ForesightPlanner, HeldUnheardKeepsTheLimitsAndIsHeardNoMoreOften) {
    const MachineProfile machine = desktopCoolerGpuCase();
    const LoadTrace trace = shortGame();
    const DutyPlan plan = foresightPlan(machine, trace, RunSettings{});
    const RunResult floor = runController(machine, trace, playing(plan), RunSettings{});
    const RunResult held =
        runController(machine, trace, playing(heldUnheard(machine, plan, 0.45)), RunSettings{});
    ASSERT_EQ(floor.row.overLimitS, 0);
    EXPECT_EQ(held.row.overLimitS, 0);
    EXPECT_GE(held.row.meanDb, floor.row.meanDb - 1e-9);
    EXPECT_GT(floor.row.audibleChangesPerHour, 0);
    EXPECT_LT(held.row.audibleChangesPerHour, floor.row.audibleChangesPerHour);
}

// The control loop against the simulated machine, in virtual time: what each mode achieves.
#include <gtest/gtest.h>

#include <algorithm>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/sim/SimulatedFanController.h"
#include "foundation/sim/SimulatedMachine.h"
#include "foundation/sim/SimulatedTelemetryProvider.h"

using namespace kelvo;

namespace {

constexpr Timestamp kStart = 1'700'000'000;

struct SimRig {
    std::shared_ptr<sim::SimulatedMachine> machine;
    std::shared_ptr<SimulatedFanController> fans;
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(1000, 1e9);
    std::unique_ptr<ControlEngine> engine;
    Timestamp now = kStart;

    explicit SimRig(sim::PlantConfig plant = {}) {
        machine = std::make_shared<sim::SimulatedMachine>(plant, 7);
        fans = std::make_shared<SimulatedFanController>(machine);
        auto telemetry = std::make_shared<SimulatedTelemetryProvider>(machine);
        engine = std::make_unique<ControlEngine>(telemetry, fans, nullptr, ring, nullptr);
    }
    ControlSnapshot tick() { return engine->tick(now += 1.0); }
    int count(const std::string& text) const {
        int n = 0;
        for (const auto& e : ring->recent(1000))
            if (e.message.find(text) != std::string::npos) ++n;
        return n;
    }
};

struct RunStats {
    double maxCpu = 0;
    double maxGpu = 0;
    double meanCpu = 0;
    double meanFanRPM = 0;
    int warnings = 0;
};

// Full load for `seconds`; statistics over the whole run, from a cold start.
RunStats runUnderLoad(ControlMode mode, double load, int seconds) {
    SimRig rig;
    rig.engine->applyMode(mode);
    rig.machine->setLoad(load, load);
    RunStats stats;
    for (int i = 0; i < seconds; ++i) {
        auto snap = rig.tick();
        stats.maxCpu = std::max(stats.maxCpu, snap.sample.cpuTemperatureC.value_or(0));
        stats.maxGpu = std::max(stats.maxGpu, snap.sample.gpuTemperatureC.value_or(0));
        stats.meanCpu += snap.sample.cpuTemperatureC.value_or(0) / seconds;
        stats.meanFanRPM += snap.sample.meanFanCurrentRPM().value_or(0) / seconds;
        stats.warnings += snap.assessment.isWarning ? 1 : 0;
    }
    return stats;
}

}  // namespace

TEST(ControlLoopSim, QuietStaysUnderItsLimitsQuieterThanPerformance) {
    auto quiet = runUnderLoad(ControlMode::quiet, 0.8, 900);
    auto performance = runUnderLoad(ControlMode::performance, 0.8, 900);
    EXPECT_LT(quiet.maxCpu, 88.0);
    EXPECT_LT(quiet.maxGpu, 85.0);
    EXPECT_LT(quiet.meanFanRPM, performance.meanFanRPM);
    EXPECT_LT(performance.meanCpu, quiet.meanCpu);
    std::printf(
        "quiet: max %.1f/%.1f °C, fans %.0f rpm; performance: mean cpu %.1f °C, fans %.0f rpm\n",
        quiet.maxCpu, quiet.maxGpu, quiet.meanFanRPM, performance.meanCpu, performance.meanFanRPM);
}

TEST(ControlLoopSim, QuietHybridWithoutALeadModelBehavesAsQuiet) {
    auto quiet = runUnderLoad(ControlMode::quiet, 0.8, 300);
    auto hybrid = runUnderLoad(ControlMode::quietHybrid, 0.8, 300);
    EXPECT_DOUBLE_EQ(quiet.meanFanRPM, hybrid.meanFanRPM);
    EXPECT_DOUBLE_EQ(quiet.maxCpu, hybrid.maxCpu);
}

TEST(ControlLoopSim, QuietHybridWithALeadModelRaisesFansBeforeTheTemperature) {
    SimRig plain;
    SimRig anticipating;
    AdaptiveLeadModel model;
    model.utilizationThresholdPct = 70;
    model.averageLeadMs = 60000;  // longer than the plain look ahead: anticipation sees further
    anticipating.engine->setAdaptiveLeadModel(model);
    for (auto* rig : {&plain, &anticipating}) {
        rig->engine->applyMode(ControlMode::quietHybrid);
        for (int i = 0; i < 60; ++i) rig->tick();  // idle, settled
        rig->machine->setLoad(1.0, 1.0);
    }
    bool anticipated = false;
    double plainFans = 0, earlyFans = 0;
    for (int i = 0; i < 12; ++i) {  // eight seconds to confirm the load, then the ramp
        auto a = anticipating.tick();
        auto p = plain.tick();
        anticipated = anticipated || (a.decision && a.decision->anticipating);
        earlyFans = a.decision->targetRPM.at(0);
        plainFans = p.decision->targetRPM.at(0);
    }
    EXPECT_TRUE(anticipated);
    EXPECT_GT(earlyFans, plainFans);
}

TEST(ControlLoopSim, SystemAutoPublishesAPreviewAndLeavesFansToTheFirmware) {
    SimRig rig;
    rig.machine->setLoad(0.9, 0.9);
    for (int i = 0; i < 120; ++i) {
        auto snap = rig.tick();
        ASSERT_FALSE(snap.decision);
        ASSERT_TRUE(snap.previewActive);
        ASSERT_TRUE(snap.previewDecision);
        ASSERT_EQ(snap.previewDecision->targetRPM.size(), 2u);
        for (double target : snap.sample.fanTargetRPM) ASSERT_EQ(target, 0.0);
    }
    EXPECT_FALSE(rig.machine->holdsControl());
    EXPECT_EQ(rig.engine->currentStatus(), ControlStatus::monitoring);
}

TEST(ControlLoopSim, CooldownRunsFansFlatOutAndEndsByItself) {
    SimRig rig;
    rig.machine->setLoad(1.0, 1.0);
    for (int i = 0; i < 400; ++i) rig.tick();  // the firmware lets it get hot
    ASSERT_GT(rig.machine->state().cpuTemperatureC, 80.0);
    rig.machine->setLoad(0.05, 0.05);
    rig.engine->setCooldownEnabled(true);
    auto first = rig.tick();
    ASSERT_TRUE(first.decision);
    EXPECT_TRUE(first.decision->cooldownActive);
    EXPECT_EQ(first.decision->targetRPM, first.sample.fanMaxRPM);
    int seconds = 0;
    while (rig.engine->isCooldownEnabled() && seconds < 900) {
        rig.tick();
        ++seconds;
    }
    EXPECT_FALSE(rig.engine->isCooldownEnabled());
    EXPECT_EQ(rig.count("Cooldown finished"), 1);
    EXPECT_LE(rig.machine->state().cpuTemperatureC, 78.5);
    rig.tick();
    EXPECT_FALSE(rig.machine->holdsControl());  // back to System: the firmware drives again
}

TEST(ControlLoopSim, WriteFailureEntersFallbackAndReleasesFans) {
    SimRig rig;
    rig.engine->applyMode(ControlMode::quiet);
    for (int i = 0; i < 5; ++i) rig.tick();
    ASSERT_TRUE(rig.machine->holdsControl());
    rig.machine->setFanWriteFailure(std::string("helper unavailable"));
    auto snap = rig.tick();
    EXPECT_EQ(snap.status, ControlStatus::fallback);
    EXPECT_FALSE(rig.machine->holdsControl());
    EXPECT_EQ(rig.count("Entered monitor+alert fallback (helper unavailable)"), 1);
}

TEST(ControlLoopSim, ReadFailureDegradesFanTelemetryButControlGoesOn) {
    SimRig rig;
    rig.engine->applyMode(ControlMode::quiet);
    for (int i = 0; i < 5; ++i) rig.tick();
    rig.machine->setFanReadFailure(std::string("fan sensor vanished"));
    for (int i = 0; i < 5; ++i) {
        auto snap = rig.tick();
        EXPECT_EQ(snap.sample.fanCurrentRPM.size(), 2u);  // last known readings
        EXPECT_EQ(snap.status, ControlStatus::controlling);
    }
    EXPECT_EQ(rig.count("Fan telemetry degraded (fan sensor vanished)"), 1);
}

TEST(ControlLoopSim, BurstyLoadOnWeakCoolingRaisesRepeatedBoundaryPressure) {
    sim::PlantConfig weak;
    weak.sinkAirflowWPerK = 1.5;  // a clogged heatsink: even full fans cannot hold the limit
    SimRig rig(weak);
    rig.engine->applyMode(ControlMode::quiet);
    for (int cycle = 0; cycle < 4 && rig.count("Repeated boundary pressure") == 0; ++cycle) {
        rig.machine->setLoad(1.0, 1.0);
        for (int i = 0; i < 50; ++i) rig.tick();
        rig.machine->setLoad(0.0, 0.0);
        for (int i = 0; i < 50; ++i) rig.tick();
    }
    EXPECT_EQ(rig.count("Repeated boundary pressure while in Quiet"), 1);
}

TEST(ControlLoopSim, ThrottlingUnderLoadIsAssessedAsAWarning) {
    sim::PlantConfig weak;
    weak.sinkAirflowWPerK = 1.5;
    SimRig rig(weak);
    rig.engine->applyMode(ControlMode::performance);
    rig.machine->setLoad(1.0, 1.0);
    bool warned = false;
    for (int i = 0; i < 900 && !warned; ++i) warned = rig.tick().assessment.isWarning;
    EXPECT_TRUE(warned);
    EXPECT_TRUE(rig.engine->isThrottleWarningActive());
}

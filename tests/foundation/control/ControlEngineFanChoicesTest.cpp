#include <gtest/gtest.h>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "tests/foundation/ControlTestFakes.h"

using namespace kelvo;
using kelvo::fakes::RecordingFans;
using kelvo::fakes::ScriptedTelemetry;

namespace {
struct ChoiceRig {
    std::shared_ptr<ScriptedTelemetry> telemetry = std::make_shared<ScriptedTelemetry>();
    std::shared_ptr<RecordingFans> fans = std::make_shared<RecordingFans>();
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(160, 1e9);
    std::unique_ptr<ControlEngine> engine;
    ChoiceRig() {
        telemetry->next.cpuTemperatureC = 50;
        telemetry->next.gpuTemperatureC = 45;
        engine = std::make_unique<ControlEngine>(telemetry, fans, nullptr, ring, nullptr);
    }
    void setCpu(double c) {
        std::lock_guard lock(telemetry->mutex);
        telemetry->next.cpuTemperatureC = c;
    }
};
}  // namespace

// RecordingFans reports "fan0" and "fan1", each 1000-5000 rpm.
TEST(ControlEngineFanChoices, AFirmwareFanGetsTargetZeroEveryTickWhileTheOtherIsDriven) {
    ChoiceRig rig;
    rig.engine->setFanChoices({{"fan0", *parseFanChoice("firmware")}});
    rig.engine->applyMode(ControlMode::performance);
    double temp = 60;
    bool otherMoved = false;
    for (int t = 0; t < 30; ++t) {
        rig.setCpu(temp);
        temp += 1.5;
        auto snap = rig.engine->tick(100 + t);
        ASSERT_TRUE(snap.decision) << t;
        ASSERT_EQ(snap.decision->targetRPM.size(), 2u);
        EXPECT_EQ(snap.decision->targetRPM[0], 0) << t;
        EXPECT_GE(snap.decision->targetRPM[1], 1000) << t;
        if (snap.decision->targetRPM[1] > 1000) otherMoved = true;
    }
    EXPECT_TRUE(otherMoved);
    EXPECT_EQ(rig.fans->lastTargets.at(0), 0);
}

TEST(ControlEngineFanChoices, AFixedFanStaysFixedUnderChangingTemperature) {
    ChoiceRig rig;
    rig.engine->setFanChoices({{"fan1", *parseFanChoice("fixed 60")}});
    rig.engine->applyMode(ControlMode::performance);
    const double expected = 1000 + 0.6 * 4000;
    double previousOther = -1;
    bool otherChanged = false;
    for (int t = 0; t < 30; ++t) {
        rig.setCpu(t < 15 ? 55 + 3 * t : 100 - 3 * (t - 15));
        auto snap = rig.engine->tick(100 + t);
        ASSERT_TRUE(snap.decision) << t;
        EXPECT_DOUBLE_EQ(snap.decision->targetRPM.at(1), expected) << t;
        if (previousOther >= 0 && snap.decision->targetRPM.at(0) != previousOther)
            otherChanged = true;
        previousOther = snap.decision->targetRPM.at(0);
    }
    EXPECT_TRUE(otherChanged);
}

TEST(ControlEngineFanChoices, AMinimumHoldsAutoControlAboveIt) {
    ChoiceRig rig;
    rig.engine->setFanChoices({{"fan0", *parseFanChoice("auto min 40")}});
    rig.engine->applyMode(ControlMode::quiet);
    auto snap = rig.engine->tick(100);  // a cool machine: the quiet duty is low
    ASSERT_TRUE(snap.decision);
    EXPECT_GE(snap.decision->targetRPM.at(0), 1000 + 0.4 * 4000);
    EXPECT_LT(snap.decision->targetRPM.at(1), 1000 + 0.4 * 4000);
}

TEST(ControlEngineFanChoices, UserLimitsReachThePolicy) {
    ChoiceRig lowered;
    ChoiceRig defaults;
    lowered.engine->setUserLimits(70, 75, 65);
    EXPECT_EQ(lowered.engine->config().limits.quietCpuLimitC, 70);
    EXPECT_EQ(lowered.engine->config().limits.quietGpuLimitC, 75);
    EXPECT_EQ(lowered.engine->config().limits.performanceTargetC, 65);
    double lowTarget = 0;
    double defaultTarget = 0;
    for (ChoiceRig* rig : {&lowered, &defaults}) {
        rig->engine->applyMode(ControlMode::quiet);
        rig->setCpu(75);
        ControlSnapshot snap;
        for (int t = 0; t < 10; ++t) snap = rig->engine->tick(100 + t);
        ASSERT_TRUE(snap.decision);
        (rig == &lowered ? lowTarget : defaultTarget) = snap.decision->targetRPM.at(0);
    }
    // 75 °C is over the lowered limit and well under the default one.
    EXPECT_GT(lowTarget, defaultTarget);
}

// What a back-end sets for one fan (a floor, a fan it will not drive, a refused target) stays
// with that fan: the engine keeps driving the others and never falls back over it.
#include <gtest/gtest.h>

#include <mutex>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "tests/foundation/ControlTestFakes.h"

using namespace kelvo;

namespace {

// Three fans: "held" is one the back-end will not drive, "floored" has a 60 % floor and stops
// at low duty, "plain" is refused once when `refuseNext` is set.
class LimitedFans : public FanController {
public:
    std::string typeName() const override { return "LimitedFans"; }
    FanReadResult readFans() override {
        std::lock_guard lock(mutex);
        FanReadResult result;
        for (const char* name : {"plain", "held", "floored"}) {
            FanState fan;
            fan.name = name;
            fan.currentRPM = 1500;
            fan.minRPM = 1000;
            fan.maxRPM = 5000;
            result.fans.push_back(fan);
        }
        result.fans[1].heldBackWhy = "the helper's configuration forbids it to Kelvo";
        result.fans[2].floorPercent = 60;
        result.fans[2].canStop = true;
        result.fans[2].firmwareStops = true;
        return result;
    }
    FanResult setTargets(const std::vector<double>& targets) override {
        std::lock_guard lock(mutex);
        last = targets;
        if (refuseNext && targets.at(0) > 0) {
            refuseNext = false;
            refusals.push_back({"plain", "plain is held by another client"});
        }
        return FanResult::success();
    }
    FanResult releaseToAutomatic() override { return FanResult::success(); }
    bool holdsControl() const override { return true; }
    std::vector<FanRefusal> takeFanRefusals() override {
        std::lock_guard lock(mutex);
        return std::exchange(refusals, {});
    }
    std::mutex mutex;
    std::vector<double> last;
    bool refuseNext = false;
    std::vector<FanRefusal> refusals;
};

struct Rig {
    std::shared_ptr<fakes::ScriptedTelemetry> telemetry =
        std::make_shared<fakes::ScriptedTelemetry>();
    std::shared_ptr<LimitedFans> fans = std::make_shared<LimitedFans>();
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(1000, 1e9);
    std::unique_ptr<ControlEngine> engine;
    Rig() {
        telemetry->next.cpuTemperatureC = 40;  // cool: a fan that may stop would
        engine = std::make_unique<ControlEngine>(telemetry, fans, nullptr, ring, nullptr);
        engine->setFanChoices({{"floored", *parseFanChoice("stop on")}});
        engine->applyMode(ControlMode::quiet);
    }
    int eventsNaming(const std::string& what) const {
        int count = 0;
        for (const auto& event : ring->recent(1000))
            if (event.message.find(what) != std::string::npos) ++count;
        return count;
    }
};

}  // namespace

TEST(ControlEnginePerFanLimits, AHeldBackFanIsTheFirmwaresAndSaidOnce) {
    Rig rig;
    for (int t = 0; t < 20; ++t) {
        const ControlSnapshot snap = rig.engine->tick(100 + t);
        ASSERT_EQ(snap.status, ControlStatus::controlling) << t;
        ASSERT_TRUE(snap.decision);
        EXPECT_EQ(snap.decision->targetRPM.at(1), 0) << t;
        EXPECT_GT(snap.decision->targetRPM.at(0), 0) << t;
    }
    EXPECT_EQ(rig.eventsNaming("(held)"), 1);
    EXPECT_EQ(rig.eventsNaming("forbids it"), 1);
}

TEST(ControlEnginePerFanLimits, AFlooredFanIsShownOnceAndNeverStopped) {
    Rig rig;
    for (int t = 0; t < 120; ++t) {
        const ControlSnapshot snap = rig.engine->tick(100 + t);
        ASSERT_TRUE(snap.decision) << t;
        EXPECT_FALSE(isFanStopTarget(snap.decision->targetRPM.at(2))) << t;
        EXPECT_FALSE(snap.stoppedFans.contains("floored")) << t;
        EXPECT_EQ(snap.fans.at(2).floorPercent, 60);
    }
    EXPECT_EQ(rig.eventsNaming("floored runs at no less than 60 %"), 1);
}

TEST(ControlEnginePerFanLimits, ARefusedTargetReturnsThatFanAloneToTheFirmware) {
    Rig rig;
    rig.engine->tick(100);
    {
        std::lock_guard lock(rig.fans->mutex);
        rig.fans->refuseNext = true;
    }
    for (int t = 1; t < 20; ++t) {
        const ControlSnapshot snap = rig.engine->tick(100 + t);
        ASSERT_EQ(snap.status, ControlStatus::controlling) << t;
        ASSERT_TRUE(snap.decision);
        EXPECT_GT(snap.decision->targetRPM.at(2), 0) << t;
        if (t >= 2) {
            EXPECT_EQ(snap.decision->targetRPM.at(0), 0) << t;
        }
    }
    EXPECT_EQ(rig.eventsNaming("Fan handed back to the firmware (plain)"), 1);
    EXPECT_EQ(rig.eventsNaming("held by another client"), 1);
    EXPECT_EQ(rig.eventsNaming("fallback"), 0);
    // Tried again after the retry period; refused again for the same reason, it is not news.
    {
        std::lock_guard lock(rig.fans->mutex);
        rig.fans->refuseNext = true;
    }
    int tried = 0;
    for (int t = 20; t < 60; ++t) {
        const ControlSnapshot snap = rig.engine->tick(100 + t);
        ASSERT_TRUE(snap.decision);
        if (snap.decision->targetRPM.at(0) > 0) ++tried;
    }
    EXPECT_EQ(tried, 1);
    EXPECT_EQ(rig.eventsNaming("held by another client"), 1);
    // Accepted at the next try: Kelvo's again, said once.
    int driven = 0;
    for (int t = 60; t < 100; ++t) {
        const ControlSnapshot snap = rig.engine->tick(100 + t);
        ASSERT_TRUE(snap.decision);
        if (snap.decision->targetRPM.at(0) > 0) ++driven;
    }
    EXPECT_GE(driven, 20);
    EXPECT_EQ(rig.eventsNaming("plain accepts Kelvo's targets again"), 1);
}

TEST(ControlEnginePerFanLimits, AModePickedAgainTriesARefusedFanAtOnce) {
    Rig rig;
    {
        std::lock_guard lock(rig.fans->mutex);
        rig.fans->refuseNext = true;
    }
    rig.engine->tick(100);
    ASSERT_EQ(rig.engine->tick(101).decision->targetRPM.at(0), 0);
    rig.engine->applyMode(ControlMode::performance);
    const ControlSnapshot snap = rig.engine->tick(102);
    ASSERT_TRUE(snap.decision);
    EXPECT_GT(snap.decision->targetRPM.at(0), 0);
}

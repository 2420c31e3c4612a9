// What the control loop shows and says when the fan back-end cannot answer: readings it kept
// from before turn absent once they are a few ticks old, and fans are only said to be back with
// the firmware when the back-end confirms it.
#include <gtest/gtest.h>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "tests/foundation/ControlTestFakes.h"

namespace kelvo {
namespace {

using fakes::RecordingFans;
using fakes::ScriptedTelemetry;

// A back-end whose hand-back fails: the helper could not restore a fan's mode.
class UnreleasableFans : public RecordingFans {
public:
    FanResult releaseToAutomatic() override {
        RecordingFans::releaseToAutomatic();
        return FanResult::failure(
            "fan1 could not be given back (cannot write pwm1_enable); the helper will retry");
    }
};

struct Rig {
    std::shared_ptr<ScriptedTelemetry> telemetry = std::make_shared<ScriptedTelemetry>();
    std::shared_ptr<RecordingFans> fans;
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(160, 1e9);
    std::unique_ptr<ControlEngine> engine;
    explicit Rig(std::shared_ptr<RecordingFans> backEnd = std::make_shared<RecordingFans>())
        : fans(std::move(backEnd)) {
        telemetry->next.cpuTemperatureC = 50;
        telemetry->next.gpuTemperatureC = 45;
        engine = std::make_unique<ControlEngine>(telemetry, fans, nullptr, ring, nullptr);
    }
    int countEvents(const std::string& text) const {
        int n = 0;
        for (const auto& e : ring->recent(160))
            if (e.message.find(text) != std::string::npos) ++n;
        return n;
    }
};

TEST(ControlEngineFanReadings, KeptReadingsTurnAbsentOnceTheyAreAFewTicksOld) {
    Rig rig;
    rig.fans->current = 1800;
    const auto first = rig.engine->tick(100);
    ASSERT_EQ(first.sample.fanCurrentRPM, (std::vector<double>{1800, 1800}));
    rig.fans->failReads = true;
    // A missed read or two keeps what was last seen.
    EXPECT_EQ(rig.engine->tick(101).sample.fanCurrentRPM, first.sample.fanCurrentRPM);
    int staleAt = 0;
    for (int t = 102; t <= 110 && staleAt == 0; ++t) {
        const auto snap = rig.engine->tick(t);
        ASSERT_EQ(snap.sample.fanCurrentRPM.size(), 2u) << "the fans are still listed";
        if (!isReadableRPM(snap.sample.fanCurrentRPM[0])) {
            staleAt = t;
            for (double rpm : snap.sample.fanCurrentRPM) EXPECT_FALSE(isReadableRPM(rpm)) << rpm;
            EXPECT_EQ(snap.sample.fanNames, (std::vector<std::string>{"fan0", "fan1"}));
        }
    }
    ASSERT_NE(staleAt, 0) << "old readings were still shown as current at tick 110";
    std::printf("[ measured ] kept fan readings absent after %d s (ticks of 1 s)\n", staleAt - 100);
    EXPECT_LE(staleAt, 105);
    EXPECT_EQ(rig.countEvents("Fan readings too old"), 1);
    // Still absent, and said once.
    EXPECT_FALSE(isReadableRPM(rig.engine->tick(111).sample.fanCurrentRPM[0]));
    EXPECT_EQ(rig.countEvents("Fan readings too old"), 1);

    rig.fans->failReads = false;
    EXPECT_EQ(rig.engine->tick(112).sample.fanCurrentRPM, (std::vector<double>{1800, 1800}));
}

TEST(ControlEngineFanReadings, FansAreOnlySaidToBeReleasedWhenTheBackEndConfirmsIt) {
    Rig rig(std::make_shared<UnreleasableFans>());
    rig.engine->applyMode(ControlMode::quiet);
    ASSERT_EQ(rig.engine->tick(100).status, ControlStatus::controlling);
    rig.engine->releaseFans("control loop stopped");
    EXPECT_EQ(rig.countEvents("Fans released to automatic control"), 0);
    ASSERT_EQ(rig.countEvents("could not be given back"), 1);
    const auto latest = rig.ring->latest();
    ASSERT_TRUE(latest);
    EXPECT_TRUE(latest->isFailure);
    EXPECT_NE(latest->message.find("the helper will retry"), std::string::npos) << latest->message;
}

TEST(ControlEngineFanReadings, AConfirmedReleaseIsSaid) {
    Rig rig;
    rig.engine->applyMode(ControlMode::quiet);
    ASSERT_EQ(rig.engine->tick(100).status, ControlStatus::controlling);
    rig.engine->releaseFans("control loop stopped");
    EXPECT_EQ(rig.countEvents("Fans released to automatic control (control loop stopped)"), 1);
    EXPECT_EQ(rig.countEvents("could not be given back"), 0);
}

}  // namespace
}  // namespace kelvo

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "foundation/control/ControlEngine.h"
#include "foundation/control/ControlLoop.h"
#include "foundation/core/EventRing.h"
#include "tests/foundation/ControlTestFakes.h"

using namespace kelvo;
using kelvo::fakes::RecordingFans;
using kelvo::fakes::ScriptedTelemetry;

namespace {
struct Rig {
    std::shared_ptr<ScriptedTelemetry> telemetry = std::make_shared<ScriptedTelemetry>();
    std::shared_ptr<RecordingFans> fans = std::make_shared<RecordingFans>();
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(160, 1e9);
    std::unique_ptr<ControlEngine> engine;
    explicit Rig(ControlLoopConfig config = {}) {
        telemetry->next.cpuTemperatureC = 50;
        telemetry->next.gpuTemperatureC = 45;
        engine = std::make_unique<ControlEngine>(telemetry, fans, nullptr, ring, nullptr, config);
    }
    bool hasEvent(const std::string& text) const {
        for (const auto& e : ring->recent(160))
            if (e.message.find(text) != std::string::npos) return true;
        return false;
    }
    int countEvents(const std::string& text) const {
        int n = 0;
        for (const auto& e : ring->recent(160))
            if (e.message.find(text) != std::string::npos) ++n;
        return n;
    }
};
}  // namespace

TEST(ControlEngine, SystemAutoPublishesAPreviewAndWritesNoFanTarget) {
    Rig rig;
    auto snap = rig.engine->tick(100);
    EXPECT_FALSE(snap.decision);
    ASSERT_TRUE(snap.previewDecision);
    EXPECT_TRUE(snap.previewActive);
    EXPECT_EQ(snap.previewDecision->targetRPM.size(), 2u);
    EXPECT_EQ(rig.fans->writes, 0);
    EXPECT_EQ(snap.status, ControlStatus::monitoring);
    EXPECT_EQ(snap.authority, ControlAuthorityState::system);
}

TEST(ControlEngine, QuietWritesTargetsAndTakesAuthority) {
    Rig rig;
    rig.engine->applyMode(ControlMode::quiet);
    auto snap = rig.engine->tick(100);
    ASSERT_TRUE(snap.decision);
    EXPECT_FALSE(snap.previewActive);
    EXPECT_EQ(rig.fans->writes, 1);
    EXPECT_EQ(rig.fans->lastTargets, snap.decision->targetRPM);
    EXPECT_EQ(snap.status, ControlStatus::controlling);
    EXPECT_EQ(snap.authority, ControlAuthorityState::kelvo);
    EXPECT_TRUE(rig.hasEvent("Control mode changed to Quiet"));
}

TEST(ControlEngine, FailedWriteReleasesFansAndEntersFallbackWithTheReason) {
    Rig rig;
    rig.fans->failWrites = true;
    rig.engine->applyMode(ControlMode::quiet);
    auto snap = rig.engine->tick(100);
    EXPECT_FALSE(snap.decision);
    EXPECT_EQ(snap.status, ControlStatus::fallback);
    EXPECT_EQ(snap.authority, ControlAuthorityState::unavailable);
    EXPECT_GE(rig.fans->releases, 1);
    auto latest = rig.ring->latest();
    ASSERT_TRUE(latest);
    EXPECT_EQ(latest->message, "Entered monitor+alert fallback (helper unavailable)");
    EXPECT_TRUE(latest->isFailure);
    // Retries are spaced out and do not repeat the event while still failing.
    rig.engine->tick(101);
    EXPECT_EQ(rig.fans->writes, 1);
    rig.engine->tick(131);
    EXPECT_EQ(rig.fans->writes, 2);
    EXPECT_EQ(rig.countEvents("monitor+alert fallback"), 2);
    // The path comes back: control resumes.
    rig.fans->failWrites = false;
    auto back = rig.engine->tick(162);
    EXPECT_TRUE(back.decision);
    EXPECT_EQ(back.status, ControlStatus::controlling);
    EXPECT_TRUE(rig.hasEvent("Fan control path restored"));
}

TEST(ControlEngine, FailedReadsKeepLastKnownFansAndReportOnce) {
    Rig rig;
    auto first = rig.engine->tick(100);
    ASSERT_EQ(first.sample.fanCurrentRPM.size(), 2u);
    rig.fans->failReads = true;
    auto degraded = rig.engine->tick(101);
    rig.engine->tick(102);
    EXPECT_EQ(degraded.sample.fanCurrentRPM, first.sample.fanCurrentRPM);
    EXPECT_EQ(rig.countEvents("Fan telemetry degraded"), 1);
    rig.fans->failReads = false;
    rig.engine->tick(103);
    EXPECT_TRUE(rig.hasEvent("Fan telemetry recovered"));
}

TEST(ControlEngine, WithoutACpuTemperatureTheFansGoBackToTheFirmwareWithinOneTick) {
    Rig rig;
    rig.engine->applyMode(ControlMode::quiet);
    ASSERT_EQ(rig.engine->tick(100).status, ControlStatus::controlling);
    ASSERT_TRUE(rig.fans->holdsControl());
    const int writesBefore = rig.fans->writes;

    rig.telemetry->next.cpuTemperatureC.reset();
    auto blind = rig.engine->tick(101);
    EXPECT_FALSE(blind.decision);
    EXPECT_FALSE(rig.fans->holdsControl()) << "released in the tick that saw no temperature";
    EXPECT_GE(rig.fans->releases, 1);
    EXPECT_EQ(rig.fans->writes, writesBefore) << "no write without a temperature";
    EXPECT_EQ(blind.status, ControlStatus::fallback);
    EXPECT_EQ(blind.authority, ControlAuthorityState::system);
    auto latest = rig.ring->latest();
    ASSERT_TRUE(latest);
    EXPECT_TRUE(latest->isFailure);
    EXPECT_EQ(latest->message, "Entered monitor+alert fallback (no CPU temperature can be read)");

    // Still blind: no write, no second event.
    rig.engine->tick(102);
    EXPECT_EQ(rig.fans->writes, writesBefore);
    EXPECT_EQ(rig.countEvents("temperature can be read)"), 1);

    rig.telemetry->next.cpuTemperatureC = 55;
    auto back = rig.engine->tick(103);
    EXPECT_TRUE(back.decision);
    EXPECT_EQ(back.status, ControlStatus::controlling);
    EXPECT_TRUE(rig.fans->holdsControl());
    EXPECT_TRUE(rig.hasEvent("Temperatures can be read again: Kelvo controls the fans again"));
}

TEST(ControlEngine, CooldownDoesNotDriveTheFansBlindEither) {
    Rig rig;
    rig.engine->setCooldownEnabled(true);
    rig.telemetry->next.cpuTemperatureC.reset();
    auto snap = rig.engine->tick(100);
    EXPECT_FALSE(snap.decision);
    EXPECT_EQ(rig.fans->writes, 0);
    EXPECT_EQ(snap.status, ControlStatus::fallback);
    EXPECT_TRUE(rig.engine->isCooldownEnabled()) << "a die that cannot be read is not cool";
    EXPECT_FALSE(rig.hasEvent("Cooldown finished"));
}

TEST(ControlEngine, AnAwakeGpuThatLosesItsTemperatureIsBlindButASleepingOneIsNot) {
    Rig rig;
    rig.telemetry->next.gpuClockMHz = 1500;
    rig.engine->applyMode(ControlMode::quiet);
    ASSERT_EQ(rig.engine->tick(100).status, ControlStatus::controlling);

    // Asleep: no GPU reading at all. Nothing to see, nothing heating.
    rig.telemetry->next.gpuTemperatureC.reset();
    rig.telemetry->next.gpuClockMHz.reset();
    EXPECT_EQ(rig.engine->tick(101).status, ControlStatus::controlling);

    // Awake (a clock comes) with no temperature: blind.
    rig.telemetry->next.gpuClockMHz = 1500;
    auto blind = rig.engine->tick(102);
    EXPECT_EQ(blind.status, ControlStatus::fallback);
    EXPECT_FALSE(rig.fans->holdsControl());
    EXPECT_TRUE(rig.hasEvent("Entered monitor+alert fallback (no GPU temperature can be read)"));

    rig.telemetry->next.gpuTemperatureC = 60;
    EXPECT_EQ(rig.engine->tick(103).status, ControlStatus::controlling);
}

TEST(ControlEngine, AMachineWhoseGpuNeverShowedATemperatureIsControlledOnTheCpu) {
    Rig rig;
    rig.telemetry->next.gpuTemperatureC.reset();
    rig.telemetry->next.gpuClockMHz = 1200;
    rig.engine->applyMode(ControlMode::quiet);
    EXPECT_EQ(rig.engine->tick(100).status, ControlStatus::controlling);
    EXPECT_FALSE(rig.hasEvent("monitor+alert fallback"));
}

TEST(ControlEngine, AnUnreadableFanSpeedIsAbsentAndReportedOnce) {
    Rig rig;
    rig.fans->current = kUnreadableRPM;
    auto snap = rig.engine->tick(100);
    ASSERT_EQ(snap.sample.fanCurrentRPM.size(), 2u);
    for (double rpm : snap.sample.fanCurrentRPM) EXPECT_FALSE(isReadableRPM(rpm)) << rpm;
    EXPECT_FALSE(snap.sample.meanFanCurrentRPM()) << "no speed, not 0 rpm";
    auto latest = rig.ring->latest();
    ASSERT_TRUE(latest);
    EXPECT_TRUE(latest->isFailure);
    EXPECT_EQ(latest->message,
              "Fan telemetry degraded (no speed reading from fan0, fan1); shown as absent");
    rig.engine->tick(101);
    EXPECT_EQ(rig.countEvents("Fan telemetry degraded"), 1);
    rig.fans->current = 1800;
    auto back = rig.engine->tick(102);
    EXPECT_EQ(back.sample.meanFanCurrentRPM(), 1800);
    EXPECT_TRUE(rig.hasEvent("Fan telemetry recovered"));
}

TEST(ControlEngine, ALostLeaseIsShownForATickAndTheFansAreRetakenWithAnEvent) {
    Rig rig;
    rig.engine->applyMode(ControlMode::quiet);
    ASSERT_EQ(rig.engine->tick(100).status, ControlStatus::controlling);
    const int writes = rig.fans->writes;

    rig.fans->lost = {"fan0", "fan1"};
    auto lost = rig.engine->tick(110);
    EXPECT_EQ(lost.status, ControlStatus::fallback) << "the card says the fans are not held";
    EXPECT_EQ(lost.authority, ControlAuthorityState::system);
    EXPECT_EQ(rig.fans->writes, writes);
    auto latest = rig.ring->latest();
    ASSERT_TRUE(latest);
    EXPECT_TRUE(latest->isFailure);
    EXPECT_EQ(latest->message,
              "Fan lease lost (fan0, fan1): the helper gave the fans back to the firmware while "
              "Kelvo was not answering");

    auto back = rig.engine->tick(111);
    EXPECT_EQ(back.status, ControlStatus::controlling);
    EXPECT_TRUE(rig.fans->holdsControl());
    EXPECT_EQ(rig.countEvents("Fan lease retaken: Kelvo controls the fans again"), 1);
    rig.engine->tick(112);
    EXPECT_EQ(rig.countEvents("Fan lease"), 2) << "each said once";
}

TEST(ControlEngine, FansLostWhileTheFirmwareWasInChargeAnywayAreNotReported) {
    Rig rig;
    rig.engine->tick(100);
    rig.fans->lost = {"fan0"};
    EXPECT_EQ(rig.engine->tick(101).status, ControlStatus::monitoring);
    EXPECT_FALSE(rig.hasEvent("Fan lease"));
}

TEST(ControlEngine, ThreeLimitHitsInFiveMinutesRaiseBoundaryPressure) {
    Rig rig;
    rig.engine->applyMode(ControlMode::performance);
    Timestamp t = 1000;
    for (int hit = 0; hit < 2; ++hit) {
        rig.telemetry->next.cpuTemperatureC = 89;  // over the 88 °C limit
        rig.engine->tick(t += 10);
        rig.telemetry->next.cpuTemperatureC = 70;  // re-arms under limit − hysteresis
        rig.engine->tick(t += 10);
    }
    EXPECT_FALSE(rig.hasEvent("Repeated boundary pressure"));
    rig.telemetry->next.cpuTemperatureC = 89;
    rig.engine->tick(t += 10);
    EXPECT_TRUE(rig.hasEvent("Repeated boundary pressure while in Performance"));
}

TEST(ControlEngine, LimitHitsSpreadOverMoreThanFiveMinutesDoNotWarn) {
    Rig rig;
    rig.engine->applyMode(ControlMode::quiet);
    Timestamp t = 1000;
    for (int hit = 0; hit < 4; ++hit) {
        rig.telemetry->next.cpuTemperatureC = 89;
        rig.engine->tick(t += 1);
        rig.telemetry->next.cpuTemperatureC = 60;
        rig.engine->tick(t += 200);
    }
    EXPECT_FALSE(rig.hasEvent("Repeated boundary pressure"));
}

TEST(ControlEngine, CooldownRunsFansAtMaximumAndEndsByItself) {
    Rig rig;
    rig.telemetry->next.cpuTemperatureC = 85;
    rig.engine->setCooldownEnabled(true);
    auto hot = rig.engine->tick(100);
    ASSERT_TRUE(hot.decision);
    EXPECT_TRUE(hot.cooldownActive);
    EXPECT_EQ(hot.decision->targetRPM, (std::vector<double>{5000, 5000}));
    rig.telemetry->next.cpuTemperatureC = 77;  // 11 °C under 88, GPU 45 well under 85
    auto cool = rig.engine->tick(101);
    EXPECT_FALSE(cool.cooldownActive);
    EXPECT_FALSE(rig.engine->isCooldownEnabled());
    EXPECT_TRUE(rig.hasEvent("Cooldown finished"));
    // Back in System mode the fans go back to the firmware.
    rig.engine->tick(102);
    EXPECT_FALSE(rig.fans->holdsControl());
}

TEST(ControlEngine, ASlowBackEndIsAbandonedWithoutStallingTheTick) {
    ControlLoopConfig config;
    config.tickSeconds = 0.25;
    Rig rig(config);
    rig.fans->holdWrites();
    rig.engine->applyMode(ControlMode::quiet);
    rig.engine->tick(100);
    // Back from the tick while the write is still held: the tick did not wait for it.
    EXPECT_EQ(rig.fans->writesDone(), 0);
    EXPECT_TRUE(rig.hasEvent("Fan write abandoned"));
    rig.fans->releaseWrites();
}

TEST(ControlLoop, TicksDeliverSnapshotsAndStopReleasesTheFans) {
    auto telemetry = std::make_shared<ScriptedTelemetry>();
    telemetry->next.cpuTemperatureC = 60;
    auto fans = std::make_shared<RecordingFans>();
    auto ring = std::make_shared<EventRing>(160, 1e9);
    ControlLoopConfig config;
    config.tickSeconds = 0.25;
    ControlLoop loop(telemetry, fans, nullptr, ring, nullptr, config);
    std::atomic<int> snapshots{0};
    loop.subscribe([&](const ControlSnapshot&) { ++snapshots; });
    std::atomic<bool> applied{false};
    loop.post([&](ControlEngine& e) {
        e.applyMode(ControlMode::quiet);
        applied = true;
    });
    loop.start();
    for (int i = 0; i < 500 && snapshots < 3; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(applied);
    EXPECT_GE(snapshots.load(), 3);
    EXPECT_TRUE(fans->holdsControl());
    loop.stop();
    EXPECT_FALSE(fans->holdsControl());
    EXPECT_FALSE(loop.isRunning());
    int after = snapshots;
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(snapshots.load(), after);
}

// The user's per-fan choices on the simulated machine: a fan left to the firmware is never
// written, a fixed fan sits at its duty, a minimum holds, and a rebind keeps the choice.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "tests/simhw_e2e/SimhwRig.h"

namespace {

using namespace kelvo::test_support;

const QString kChoicesKey = QStringLiteral("kelvo.fans.choices");

// Full CPU for a minute and a half, after ten idle seconds.
const char* kLoadTrace = R"({"name": "load", "segments": [
  {"seconds": 10, "cpu": 0.03, "gpu": 0.02}, {"seconds": 90, "cpu": 0.95, "gpu": 0.1}]})";
const char* kIdleTrace = R"({"name": "idle", "segments": [
  {"seconds": 600, "cpu": 0.03, "gpu": 0.02}]})";

QString choices(const char* fan2Choice, const char* fan1Choice = nullptr) {
    QString json =
        QStringLiteral("{\"%1\": \"%2\"").arg(QLatin1String(kSimFan2), QLatin1String(fan2Choice));
    if (fan1Choice)
        json += QStringLiteral(", \"%1\": \"%2\"")
                    .arg(QLatin1String(kSimFan1), QLatin1String(fan1Choice));
    return json + QLatin1Char('}');
}

TEST(FanChoicesOnSimhw, AFirmwareFanIsNeverWrittenThroughAMinuteOfLoad) {
    SKIP_WITHOUT_FUSE();
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(kTestMachine, kLoadTrace)) << rig.sim().log();
    rig.setSetting(kChoicesKey, choices("firmware"));
    rig.startKelvo(QStringLiteral("quiet"));
    ASSERT_TRUE(pollUntil([&] { return rig.logColumn("cpu_c").size() >= 75; }, 240s))
        << rig.transcript();
    EXPECT_EQ(rig.writesTo(2, "pwm"), 0) << rig.transcript();
    EXPECT_EQ(rig.writesTo(2, "enable"), 0);
    const auto enable2 = rig.logColumn("fan2_enable");
    EXPECT_TRUE(std::all_of(enable2.begin(), enable2.end(), [](double e) { return e == 2; }));
    // The other fan is Kelvo's, and the load made it work.
    EXPECT_GT(rig.writesTo(1, "pwm"), 10);
    EXPECT_EQ(rig.chipFile("pwm1_enable"), "1");
}

TEST(FanChoicesOnSimhw, AFixedFanSitsAtItsDuty) {
    SKIP_WITHOUT_FUSE();
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(kTestMachine, kLoadTrace)) << rig.sim().log();
    rig.setSetting(kChoicesKey, choices("fixed 60"));
    rig.startKelvo(QStringLiteral("quiet"));
    // The fan sits at 60 % of its range: 600 + 0.6 × 1400 rpm, which is duty 153 on this
    // linear fan whether Kelvo maps it through a learned curve or the linear map.
    ASSERT_TRUE(
        pollUntil([&] { return std::abs(std::stoi(rig.chipFile("pwm2")) - 153) <= 6; }, 120s))
        << rig.chipFile("pwm2") << rig.transcript();
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(1s);
        EXPECT_NEAR(std::stoi(rig.chipFile("pwm2")), 153, 6) << "second " << i;
    }
    EXPECT_NEAR(std::stoi(rig.chipFile("fan2_input")), 1440, 60);
}

TEST(FanChoicesOnSimhw, AMinimumHoldsOnAnIdleMachine) {
    SKIP_WITHOUT_FUSE();
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(kTestMachine, kIdleTrace)) << rig.sim().log();
    rig.setSetting(kChoicesKey, choices("auto", "auto min 40"));
    rig.startKelvo(QStringLiteral("quiet"));
    ASSERT_TRUE(pollUntil([&] { return rig.learnedCurves() == 2; }, kSlowDeadline))
        << rig.transcript();
    // Idle and quiet: without the minimum fan 1 would sit at its floor (800 rpm, duty 0). With
    // it, at 40 % of its range: duty 102, 800 + 0.4 × 3200 = 2080 rpm. Kelvo reaches a duty
    // through what it has learned of the fan, which is only as exact as the speeds it saw.
    std::this_thread::sleep_for(10s);
    const std::size_t from = rig.logColumn("fan1_rpm").size();
    std::this_thread::sleep_for(20s);
    const auto rpm = rig.logColumn("fan1_rpm");
    const auto duty = rig.logColumn("fan1_pwm");
    ASSERT_GT(rpm.size(), from + 10);
    for (std::size_t i = from; i < rpm.size(); ++i) {
        EXPECT_GE(duty[i], 102 - 5) << "row " << i;
        EXPECT_GE(rpm[i], 2080 * 0.97) << "row " << i;
    }
    // The other fan, on auto, is at its floor: the minimum is the fan's own.
    EXPECT_LT(std::stoi(rig.chipFile("fan2_input")), 900);
}

TEST(FanChoicesOnSimhw, ARebindKeepsTheFansChoice) {
    SKIP_WITHOUT_FUSE();
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(kTestMachine)) << rig.sim().log();
    rig.setSetting(kChoicesKey, choices("firmware"));
    rig.startKelvo(QStringLiteral("performance"));
    ASSERT_TRUE(pollUntil([&] { return rig.chipFile("pwm1_enable") == "1"; }, kSlowDeadline))
        << rig.transcript();
    ASSERT_EQ(rig.sim().fault("rebind sys/class/hwmon/hwmon2"), 0);
    ASSERT_TRUE(
        pollUntil([&] { return rig.chipFile("pwm1_enable", "hwmon3") == "1"; }, kSlowDeadline))
        << rig.transcript();
    EXPECT_FALSE(pollUntil([&] { return rig.chipFile("pwm2_enable", "hwmon3") != "2"; }, 5s));
    EXPECT_EQ(rig.writesTo(2, "pwm"), 0);
    EXPECT_EQ(rig.writesTo(2, "enable"), 0);
}

}  // namespace

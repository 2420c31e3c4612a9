// Fan stop through the kernel: Kelvo's local back-end on a mounted kelvo-simhw whose first fan
// stops below duty 51, needs 77 to start, and is stopped by the firmware while the machine is
// cool. Real time: every wait is a poll with a generous deadline.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <thread>

#include "foundation/fans/LocalFanController.h"
#include "tests/simhw/SimhwProcess.h"

namespace {

using namespace kelvo;
using namespace kelvo::test_support;
using namespace std::chrono_literals;

constexpr auto kDeadline = 60s;
constexpr const char* kFan1 = "nct6798@/sys/devices/platform/nct6775.656#fan1";

const char* kFanStopMachine = R"({
  "name": "fan-stop-box",
  "logicalCpus": 2,
  "firmwareStopBelowC": 60,
  "fans": [{"name": "CPU fan", "minRPM": 800, "maxRPM": 4000, "stopBelowDuty": 51,
            "startDuty": 77},
           {"name": "Case fan", "minRPM": 600, "maxRPM": 2000}]
})";

class SimhwFanStop : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string why = fuseUnavailableReason(); !why.empty())
            GTEST_SKIP() << "kelvo-simhw cannot mount here: " << why;
        char pattern[] = "/tmp/kelvo-simhw-stop-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
        ::chmod(dir_.c_str(), 0755);
        sim_ = std::make_unique<SimhwProcess>(dir_, kFanStopMachine);
        ASSERT_TRUE(sim_->start()) << sim_->log();
        fans_ = std::make_unique<LocalFanController>(
            std::make_shared<HwmonFanService>(sim_->mountPoint().string()));
    }
    void TearDown() override {
        if (fans_) fans_->releaseToAutomatic();
        fans_.reset();
        sim_.reset();
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    std::string chip(const std::string& file) const {
        return readAttribute(sim_->at("sys/class/hwmon/hwmon2/" + file)).value_or("(missing)");
    }
    FanState fan1() {
        const FanReadResult read = fans_->readFans();
        EXPECT_TRUE(read.ok) << read.error;
        return read.ok && !read.fans.empty() ? read.fans[0] : FanState{};
    }
    // The control loop's rhythm: read, then set, four times a second.
    bool tickUntil(double target, const std::function<bool(const FanState&)>& done) {
        return pollUntil(
            [&] {
                const FanState state = fan1();
                if (done(state)) return true;
                EXPECT_TRUE(fans_->setTargets({target, 0}).ok);
                std::this_thread::sleep_for(250ms);
                return false;
            },
            kDeadline);
    }

    std::filesystem::path dir_;
    std::unique_ptr<SimhwProcess> sim_;
    std::unique_ptr<LocalFanController> fans_;
};

TEST_F(SimhwFanStop, AFanStopsOnAStopTargetAndRestartsWithAKick) {
    // Cool, the firmware has the fan at rest (pwm1 reads its 0): seen long enough, Kelvo knows
    // the fan stops and that the firmware stops it.
    EXPECT_EQ(chip("pwm1"), "0");
    ASSERT_TRUE(pollUntil(
        [&] {
            std::this_thread::sleep_for(250ms);
            const FanState state = fan1();
            return state.firmwareStops && state.canStop;
        },
        kDeadline))
        << chip("fan1_input");
    EXPECT_EQ(fan1().currentRPM, 0);

    // A speed asked of the fan at rest: a start kick (nothing is known of its start duty, so a
    // conservative one) until the tachometer shows it turning, in manual mode throughout.
    ASSERT_TRUE(fans_->setTargets({1500, 0}).ok);
    EXPECT_EQ(chip("pwm1_enable"), "1");
    EXPECT_EQ(chip("pwm1"), std::to_string(FanCurveLearner::kConservativeStartDuty));
    ASSERT_TRUE(tickUntil(1500, [](const FanState& s) { return s.currentRPM > 0; }))
        << chip("pwm1") << " " << chip("fan1_input");
    EXPECT_FALSE(fan1().stopCommanded);

    // Stop: duty 0 while Kelvo keeps the fan, and the tach reads 0 once it has run down.
    ASSERT_TRUE(tickUntil(kFanStopRPM, [](const FanState& s) { return s.currentRPM == 0; }))
        << chip("fan1_input");
    ASSERT_TRUE(fans_->setTargets({kFanStopRPM, 0}).ok);
    EXPECT_EQ(chip("pwm1"), "0");
    EXPECT_EQ(chip("pwm1_enable"), "1");
    const FanState stopped = fan1();
    EXPECT_TRUE(stopped.stopCommanded);
    EXPECT_EQ(stopped.targetRPM, kFanStopRPM);
    EXPECT_EQ(stopped.currentRPM, 0);

    // Restarted: the kick that worked before is its start duty now, and it turns again.
    ASSERT_TRUE(fans_->setTargets({1500, 0}).ok);
    EXPECT_EQ(chip("pwm1"), std::to_string(FanCurveLearner::kConservativeStartDuty));
    ASSERT_TRUE(tickUntil(1500, [](const FanState& s) { return s.currentRPM > 0; }));
    const FanState turning = fan1();
    EXPECT_GT(turning.currentRPM, 0);
    EXPECT_FALSE(turning.stopCommanded);
    const auto curve = fans_->learnedCurve(kFan1);
    ASSERT_TRUE(curve.has_value());
    EXPECT_EQ(FanKnowledge::fromCurve(*curve).startsAt, FanCurveLearner::kConservativeStartDuty);

    ASSERT_TRUE(fans_->releaseToAutomatic().ok);
    EXPECT_EQ(chip("pwm1_enable"), "2");
}

}  // namespace

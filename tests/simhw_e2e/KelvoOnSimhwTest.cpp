// Kelvo, unmodified, on the simulated machine behind a real file system: it finds the hwmon
// chips, learns each fan's curve while it works, holds its limits through a load trace, and answers
// each hardware fault with an event and the safe state.
#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QProcess>
#include <algorithm>
#include <cstdio>
#include <thread>

#include "tests/simhw_e2e/SimhwRig.h"

namespace {

using namespace kelvo::test_support;

// A laptop at its thermal edge (a 35 °C room, dust in the fins): without control the
// firmware's curve lets it run hot, so the quiet limit is what decides the fan speed.
std::string hotLaptop() {
    return slurp(std::string(KELVO_SOURCE_DIR) + "/bench/machines/thin-laptop-hot.json");
}

// A build: idle, four minutes of parallel compiling with short single-threaded steps, idle.
const char* kCompileTrace = R"({"name": "short-compile", "segments": [
  {"seconds": 20, "cpu": 0.03, "gpu": 0.02},
  {"seconds": 40, "cpu": 0.97, "gpu": 0.04}, {"seconds": 5, "cpu": 0.25, "gpu": 0.03},
  {"seconds": 35, "cpu": 0.93, "gpu": 0.04}, {"seconds": 4, "cpu": 0.2, "gpu": 0.03},
  {"seconds": 45, "cpu": 0.99, "gpu": 0.04}, {"seconds": 6, "cpu": 0.3, "gpu": 0.03},
  {"seconds": 50, "cpu": 0.95, "gpu": 0.04},
  {"seconds": 30, "cpu": 0.03, "gpu": 0.02}]})";
constexpr int kCompileSeconds = 235;

void waitForFansHeld(SimhwRig& rig) {
    ASSERT_TRUE(rig.saw(QStringLiteral("status=controlling"))) << rig.transcript();
    ASSERT_TRUE(pollUntil([&] { return rig.chipFile("pwm1_enable") == "1"; }, kSlowDeadline))
        << rig.transcript();
}

TEST(KelvoOnSimhw, LocalFansAreLearnedWhileTheyWorkWithoutASweep) {
    SKIP_WITHOUT_FUSE();
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(kTestMachine)) << rig.sim().log();
    rig.startKelvo(QStringLiteral("quiet"));
    ASSERT_TRUE(pollUntil([&] { return rig.learnedCurves() == 2; }, kSlowDeadline))
        << rig.transcript();
    ASSERT_NO_FATAL_FAILURE(waitForFansHeld(rig));
    // Nothing ran the fans up to learn them: on an idle machine in quiet mode the duty stays
    // low from the first second (the old start-up sweep began at 255).
    std::this_thread::sleep_for(10s);
    const auto duty = rig.logColumn("fan1_pwm");
    ASSERT_FALSE(duty.empty());
    EXPECT_LT(*std::max_element(duty.begin(), duty.end()), 128) << rig.transcript();
}

TEST(KelvoOnSimhw, ThroughTheHelperFansAreLearnedAndASigkillGivesThemBack) {
    SKIP_WITHOUT_FUSE();
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(kTestMachine)) << rig.sim().log();
    ASSERT_TRUE(rig.startHelper()) << rig.helper()->log();
    rig.startKelvo(QStringLiteral("quiet"));
    ASSERT_TRUE(pollUntil([&] { return rig.learnedCurves() == 2; }, kSlowDeadline))
        << rig.transcript() << rig.helper()->log();
    ASSERT_FALSE(rig.everyFanOnFirmware());

    QElapsedTimer timer;
    timer.start();
    ::kill(static_cast<pid_t>(rig.kelvo().process.processId()), SIGKILL);
    ASSERT_TRUE(pollUntil([&] { return rig.everyFanOnFirmware(); }, 30s)) << rig.helper()->log();
    std::printf("kelvo SIGKILL -> every simulated fan on its firmware curve: %lld ms\n",
                static_cast<long long>(timer.elapsed()));
    // And they stay there: nothing drives them any more.
    EXPECT_FALSE(pollUntil([&] { return !rig.everyFanOnFirmware(); }, 3s));
}

TEST(KelvoOnSimhw, QuietHoldsACompileTraceUnderItsLimits) {
    SKIP_WITHOUT_FUSE();
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(hotLaptop(), kCompileTrace)) << rig.sim().log();
    rig.startKelvo(QStringLiteral("quiet"));
    ASSERT_TRUE(pollUntil([&] { return rig.logColumn("cpu_c").size() >= kCompileSeconds; },
                          std::chrono::seconds(kCompileSeconds) + kSlowDeadline))
        << rig.transcript();
    const auto cpu = rig.logColumn("cpu_c");
    const auto gpu = rig.logColumn("gpu_c");
    const auto enable = rig.logColumn("fan1_enable");
    const double peakCpu = *std::max_element(cpu.begin(), cpu.end());
    const double peakGpu = *std::max_element(gpu.begin(), gpu.end());
    std::printf("quiet on thin-laptop-hot through a %d s build: peak CPU %.1f C, GPU %.1f C\n",
                kCompileSeconds, peakCpu, peakGpu);
    EXPECT_LE(peakCpu, 88.0) << rig.transcript();
    EXPECT_LE(peakGpu, 85.0);
    // The limit decided the speed: the build took the die close to it, under Kelvo's control.
    EXPECT_GT(peakCpu, 80.0);
    EXPECT_GT(std::count(enable.begin(), enable.end(), 1.0), kCompileSeconds / 2);
}

// Each fault, on a Kelvo that holds both fans (performance mode).
class SimhwFault : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT_FUSE();
        ASSERT_TRUE(rig.mount(kTestMachine)) << rig.sim().log();
        rig.startKelvo(QStringLiteral("performance"));
        ASSERT_NO_FATAL_FAILURE(waitForFansHeld(rig));
    }
    SimhwRig rig;
};

TEST_F(SimhwFault, TakebackIsAnsweredAtOnceAndTheFourthLeavesTheFanToTheFirmware) {
    for (int takeback = 1; takeback <= 3; ++takeback) {
        QElapsedTimer timer;
        timer.start();
        ASSERT_EQ(rig.sim().fault("takeback sys/class/hwmon/hwmon2/pwm1"), 0);
        ASSERT_TRUE(rig.saw(QStringLiteral("kelvo: failure: Fan control taken back from Kelvo (") +
                            QLatin1String(kSimFan1)))
            << rig.transcript();
        ASSERT_TRUE(pollUntil([&] { return rig.chipFile("pwm1_enable") == "1"; }, 30s))
            << rig.transcript();
        std::printf("takeback %d answered (fan manual again) after %lld ms\n", takeback,
                    static_cast<long long>(timer.elapsed()));
    }
    ASSERT_EQ(rig.sim().fault("takeback sys/class/hwmon/hwmon2/pwm1"), 0);
    ASSERT_TRUE(
        rig.saw(QStringLiteral("kelvo: failure: Stopped taking back ") + QLatin1String(kSimFan1)))
        << rig.transcript();
    EXPECT_FALSE(pollUntil([&] { return rig.chipFile("pwm1_enable") != "2"; }, 5s))
        << "Kelvo no longer fights for the fan";
    EXPECT_EQ(rig.chipFile("pwm2_enable"), "1") << "the other fan is still Kelvo's";
}

TEST_F(SimhwFault, EioOnADutyWriteFallsBackAndRecoversOnceWritesWork) {
    ASSERT_EQ(rig.sim().fault("eio sys/class/hwmon/hwmon2/pwm1"), 0);
    ASSERT_TRUE(rig.saw(QStringLiteral("kelvo: failure: Entered monitor+alert fallback (")))
        << rig.transcript();
    ASSERT_TRUE(pollUntil([&] { return rig.everyFanOnFirmware(); }, 30s)) << rig.transcript();
    ASSERT_EQ(rig.sim().fault("clear"), 0);
    // The next retry finds the path working again (the event says so in the dashboard; the
    // headless log shows the status).
    EXPECT_TRUE(rig.saw(QStringLiteral("status=controlling"), 120000)) << rig.transcript();
    EXPECT_TRUE(pollUntil([&] { return rig.chipFile("pwm1_enable") == "1"; }, 30s));
}

TEST_F(SimhwFault, AStalledFanIsReportedAndHandedToTheFirmware) {
    ASSERT_EQ(rig.sim().fault("stall sys/class/hwmon/hwmon2/pwm2"), 0);
    ASSERT_TRUE(rig.saw(QStringLiteral("kelvo: failure: Fan stalled (") + QLatin1String(kSimFan2)))
        << rig.transcript();
    EXPECT_TRUE(pollUntil([&] { return rig.chipFile("pwm2_enable") == "2"; }, 30s));
    EXPECT_EQ(rig.chipFile("pwm1_enable"), "1") << "the turning fan is still Kelvo's";
}

TEST_F(SimhwFault, VanishedTemperaturesSendEveryFanToTheFirmwareUntilTheyReturn) {
    // Both places the CPU's temperature can be read from.
    ASSERT_EQ(rig.sim().fault("vanish sys/class/hwmon/hwmon0/temp1_input"), 0);
    ASSERT_EQ(rig.sim().fault("vanish sys/class/thermal/thermal_zone0/temp"), 0);
    ASSERT_TRUE(rig.saw(QStringLiteral(
        "kelvo: failure: Entered monitor+alert fallback (no CPU temperature can be read)")))
        << rig.transcript();
    EXPECT_TRUE(pollUntil([&] { return rig.everyFanOnFirmware(); }, 30s));
    ASSERT_EQ(rig.sim().fault("clear"), 0);
    EXPECT_TRUE(rig.saw(QStringLiteral("status=controlling"))) << rig.transcript();
    EXPECT_TRUE(pollUntil([&] { return rig.chipFile("pwm1_enable") == "1"; }, 30s));
}

TEST_F(SimhwFault, ARebindIsReportedOncePerFanAndTheFansAreTakenUnderTheirNewNumber) {
    ASSERT_EQ(rig.sim().fault("rebind sys/class/hwmon/hwmon2"), 0);
    ASSERT_TRUE(rig.saw(QStringLiteral("kelvo: failure: Fan control taken back from Kelvo (") +
                        QLatin1String(kSimFan1)))
        << rig.transcript();
    // Same identities behind hwmon3: Kelvo drives them again, with what it learned of them.
    EXPECT_TRUE(pollUntil(
        [&] {
            return rig.chipFile("pwm1_enable", "hwmon3") == "1" &&
                   rig.chipFile("pwm2_enable", "hwmon3") == "1";
        },
        30s))
        << rig.transcript();
    // Not an error storm: one event per fan.
    rig.saw(QStringLiteral("a line that never comes"), 3000);
    const std::string transcript = rig.kelvo().transcript();
    std::size_t events = 0;
    for (std::size_t at = transcript.find("taken back from Kelvo"); at != std::string::npos;
         at = transcript.find("taken back from Kelvo", at + 1))
        ++events;
    EXPECT_EQ(events, 2u) << transcript;
}

// A private bus standing in for the system bus, with the test as logind on it.
class FakeLogind {
public:
    FakeLogind() {
        daemon_.start(QStringLiteral("dbus-daemon"),
                      {QStringLiteral("--session"), QStringLiteral("--nofork"),
                       QStringLiteral("--print-address=1")});
        if (!daemon_.waitForStarted(10000) || !daemon_.waitForReadyRead(10000)) return;
        address_ = QString::fromUtf8(daemon_.readLine()).trimmed();
        bus_ = std::make_unique<QDBusConnection>(
            QDBusConnection::connectToBus(address_, QStringLiteral("kelvo-test-logind")));
        owned_ =
            bus_->isConnected() && bus_->registerService(QStringLiteral("org.freedesktop.login1"));
    }
    ~FakeLogind() {
        if (bus_) QDBusConnection::disconnectFromBus(QStringLiteral("kelvo-test-logind"));
        daemon_.kill();
        daemon_.waitForFinished(5000);
    }
    bool ready() const { return owned_; }
    QString address() const { return address_; }
    bool prepareForSleep(bool sleeping) {
        auto signal = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                                 QStringLiteral("org.freedesktop.login1.Manager"),
                                                 QStringLiteral("PrepareForSleep"));
        signal << sleeping;
        return bus_->send(signal);
    }

private:
    QProcess daemon_;
    QString address_;
    std::unique_ptr<QDBusConnection> bus_;
    bool owned_ = false;
};

TEST(KelvoOnSimhw, SleepHandsEveryFanToTheFirmwareAndWakingTakesThemAgain) {
    SKIP_WITHOUT_FUSE();
    FakeLogind logind;
    ASSERT_TRUE(logind.ready()) << "no private bus";
    SimhwRig rig;
    ASSERT_TRUE(rig.mount(kTestMachine)) << rig.sim().log();
    rig.setKelvoEnvironment(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), logind.address());
    rig.startKelvo(QStringLiteral("performance"));
    ASSERT_NO_FATAL_FAILURE(waitForFansHeld(rig));
    // Kelvo subscribes a moment after it starts controlling: send until it has answered.
    ASSERT_TRUE(pollUntil(
        [&] {
            logind.prepareForSleep(true);
            QCoreApplication::processEvents();
            return rig.everyFanOnFirmware();
        },
        60s))
        << rig.transcript();
    EXPECT_TRUE(pollUntil(
        [&] { return rig.eventsWith("Fans handed to the firmware for sleep") >= 1; }, 30s));
    EXPECT_FALSE(pollUntil([&] { return !rig.everyFanOnFirmware(); }, 3s))
        << "nothing is written while the machine sleeps";

    ASSERT_TRUE(logind.prepareForSleep(false));
    EXPECT_TRUE(pollUntil(
        [&] {
            QCoreApplication::processEvents();
            return rig.chipFile("pwm1_enable") == "1";
        },
        30s))
        << rig.transcript();
    EXPECT_TRUE(
        pollUntil([&] { return rig.eventsWith("Fan control resumed after sleep") == 1; }, 30s));
    EXPECT_EQ(rig.eventsWith("Fans handed to the firmware for sleep"), 1);
}

// The same faults with the fans held through kelvo-helperd.
class SimhwFaultThroughTheHelper : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT_FUSE();
        ASSERT_TRUE(rig.mount(kTestMachine)) << rig.sim().log();
        ASSERT_TRUE(rig.startHelper()) << rig.helper()->log();
        rig.startKelvo(QStringLiteral("performance"));
        ASSERT_NO_FATAL_FAILURE(waitForFansHeld(rig));
    }
    SimhwRig rig;
};

TEST_F(SimhwFaultThroughTheHelper, TakebackIsReportedAndTheFanTakenAgain) {
    ASSERT_EQ(rig.sim().fault("takeback sys/class/hwmon/hwmon2/pwm1"), 0);
    ASSERT_TRUE(rig.saw(QStringLiteral("kelvo: failure: Fan control taken back from Kelvo (") +
                        QLatin1String(kSimFan1)))
        << rig.transcript() << rig.helper()->log();
    EXPECT_TRUE(pollUntil([&] { return rig.chipFile("pwm1_enable") == "1"; }, 30s))
        << rig.helper()->log();
    EXPECT_NE(rig.helper()->log().find("was switched out of manual mode from outside"),
              std::string::npos);
    EXPECT_EQ(rig.kelvo().transcript().find("monitor+alert fallback"), std::string::npos)
        << "a takeback is not a broken fan path";
}

// The helper refuses the write to one fan: that fan alone goes back to the firmware, the other
// stays Kelvo's, and nothing falls back.
TEST_F(SimhwFaultThroughTheHelper, EioOnOneFanGivesThatFanAloneBack) {
    ASSERT_EQ(rig.sim().fault("eio sys/class/hwmon/hwmon2/pwm2"), 0);
    ASSERT_TRUE(rig.saw(QStringLiteral("kelvo: failure: Fan handed back to the firmware (") +
                        QLatin1String(kSimFan2)))
        << rig.transcript() << rig.helper()->log();
    EXPECT_TRUE(pollUntil([&] { return rig.chipFile("pwm2_enable") == "2"; }, 30s))
        << rig.transcript() << rig.helper()->log();
    EXPECT_EQ(rig.chipFile("pwm1_enable"), "1") << "the other fan is still Kelvo's";
    EXPECT_EQ(rig.kelvo().transcript().find("monitor+alert fallback"), std::string::npos)
        << rig.transcript();
}

}  // namespace

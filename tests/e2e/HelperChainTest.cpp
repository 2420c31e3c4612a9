// Kelvo, kelvoctl and kelvo-helperd together against a fake sysfs tree: the whole unprivileged
// chain the way a user runs it with the helper installed.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <cstdio>

#include "foundation/store/SQLiteStore.h"
#include "tests/e2e/KelvoProcess.h"
#include "tests/helper/HelperTestSupport.h"

namespace {

using namespace kelvo::test_support;
using namespace std::chrono_literals;

// Deadlines for what must happen: they only matter when it never does.
constexpr auto kDeadline = 15000ms;

constexpr const char* kPackageCounter = "sys/devices/virtual/powercap/intel-rapl/intel-rapl:0";

struct Output {
    int exitCode = -1;
    QString out;
    QString err;
};

Output runKelvoctl(const QStringList& args, const QString& program = QStringLiteral(KELVOCTL_BIN),
                   const QStringList& prefix = {}) {
    QProcess ctl;
    ctl.start(program, prefix + args);
    ctl.waitForFinished(10000);
    return {ctl.exitStatus() == QProcess::NormalExit ? ctl.exitCode() : -1,
            QString::fromUtf8(ctl.readAllStandardOutput()),
            QString::fromUtf8(ctl.readAllStandardError())};
}

// The control mode Kelvo restores at launch.
void persistMode(const QTemporaryDir& home, const QString& mode) {
    QSettings settings(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                       QSettings::IniFormat);
    settings.setValue(QStringLiteral("kelvo.control.mode"), mode);
    settings.sync();
}

QStringList realBackendArguments(const FakeSysfs& kelvoTree, const HelperDaemon& helper) {
    return {QStringLiteral("--headless"),      QStringLiteral("--xpc-only-fans"),
            QStringLiteral("--sysfs-root"),    QString::fromStdString(kelvoTree.root().string()),
            QStringLiteral("--helper-socket"), QString::fromStdString(helper.socketPath())};
}

bool anyFanManual(const FakeSysfs& sys) {
    const auto files = pwmFiles(sys);
    return files.at("pwm1_enable") == "1" || files.at("pwm2_enable") == "1";
}

// Kelvo in performance mode on `board` through `helper`, once it holds a fan.
void startHoldingFans(KelvoProcess& kelvo, const FakeSysfs& board, const HelperDaemon& helper) {
    ASSERT_NO_FATAL_FAILURE(kelvo.start(realBackendArguments(board, helper)));
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=performance status=controlling")))
        << kelvo.transcript();
    ASSERT_TRUE(waitUntil([&] { return anyFanManual(board); }, kDeadline))
        << kelvo.transcript() << helper.log();
}

}  // namespace

TEST(HelperChain, KelvoDrivesFansThroughTheHelperAndAKillGivesThemBack) {
    FakeSysfs board;
    buildHelperBoard(board);
    const auto runtime = makeTempDir("kelvo-e2e-run");
    HelperDaemon helper(board.root().string(), runtime);
    ASSERT_TRUE(helper.start()) << helper.log();

    QTemporaryDir home;
    persistMode(home, QStringLiteral("performance"));
    KelvoProcess kelvo(home);
    ASSERT_NO_FATAL_FAILURE(startHoldingFans(kelvo, board, helper));
    // The original modes are journaled before anything is taken.
    EXPECT_TRUE(std::filesystem::exists(helper.journalPath()));

    const Output status = runKelvoctl({QStringLiteral("helper"), QStringLiteral("status"),
                                       QStringLiteral("--helper-socket"),
                                       QString::fromStdString(helper.socketPath())});
    EXPECT_EQ(status.exitCode, 0) << status.err.toStdString();
    EXPECT_TRUE(status.out.startsWith(QStringLiteral("kelvo-helperd ")))
        << status.out.toStdString();
    EXPECT_TRUE(status.out.contains(QStringLiteral("4 fans:"))) << status.out.toStdString();
    EXPECT_TRUE(status.out.contains(QStringLiteral("mode manual, held by Kelvo")))
        << status.out.toStdString();
    EXPECT_TRUE(status.out.contains(QStringLiteral("no PWM control"))) << status.out.toStdString();
    EXPECT_TRUE(status.out.contains(QStringLiteral("\"Package id 0\" 52.0 °C")))
        << status.out.toStdString();

    // The build identity names the helper back-end and the version the running helper reports.
    kelvo::SQLiteStore store(
        home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")).toStdString());
    bool identityNamesHelper = false;
    for (const auto& event : store.recentEvents(200))
        identityNamesHelper |= event.message.find(std::string("backend xpc, helper ") +
                                                  KELVO_VERSION_STRING) != std::string::npos;
    EXPECT_TRUE(identityNamesHelper);

    const auto killedAt = SteadyClock::now();
    kelvo.stopWith(SIGKILL);
    const auto restored = waitUntil([&] { return boardRestored(board); }, kDeadline);
    ASSERT_TRUE(restored.has_value()) << helper.log();
    const double ms =
        std::chrono::duration<double, std::milli>(SteadyClock::now() - killedAt).count();
    std::printf("kelvo SIGKILL -> fans back in their original modes: %.1f ms\n", ms);
    // At once, because the dead process's connection closed, not after its lease ran out.
    EXPECT_TRUE(releasedOnDisconnect(helper.log())) << helper.log();
    EXPECT_TRUE(
        waitUntil([&] { return !std::filesystem::exists(helper.journalPath()); }, kDeadline));

    const Output after =
        runKelvoctl({QStringLiteral("--helper-socket"), QString::fromStdString(helper.socketPath()),
                     QStringLiteral("helper"), QStringLiteral("status")});
    EXPECT_EQ(after.exitCode, 0);
    EXPECT_FALSE(after.out.contains(QStringLiteral("held by Kelvo"))) << after.out.toStdString();
}

// A Kelvo that stops answering (stopped, swapped out, stuck) loses its fans to the helper's lease
// expiry; when it runs again it says so, shows the hand-over, and takes them back.
TEST(HelperChain, ALostLeaseIsReportedAndTheFansAreRetaken) {
    FakeSysfs board;
    buildHelperBoard(board);
    const auto runtime = makeTempDir("kelvo-e2e-run");
    HelperDaemon helper(board.root().string(), runtime);
    ASSERT_TRUE(helper.start()) << helper.log();
    QTemporaryDir home;
    persistMode(home, QStringLiteral("performance"));
    KelvoProcess kelvo(home);
    ASSERT_NO_FATAL_FAILURE(startHoldingFans(kelvo, board, helper));

    const auto pid = static_cast<pid_t>(kelvo.process.processId());
    ASSERT_EQ(::kill(pid, SIGSTOP), 0);
    const bool released = waitUntil([&] { return !anyFanManual(board); }, kDeadline).has_value();
    ASSERT_EQ(::kill(pid, SIGCONT), 0);
    ASSERT_TRUE(released) << "the lease ran out while Kelvo was stopped\n" << helper.log();

    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=performance status=fallback")))
        << kelvo.transcript();
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=performance status=controlling")))
        << kelvo.transcript();
    EXPECT_TRUE(waitUntil([&] { return anyFanManual(board); }, kDeadline)) << "retaken";
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    kelvo::SQLiteStore store(
        home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")).toStdString());
    int lost = 0;
    int retaken = 0;
    for (const auto& event : store.recentEvents(200)) {
        lost += event.message.starts_with("Fan lease lost (") && event.isFailure;
        retaken += event.message == "Fan lease retaken: Kelvo controls the fans again";
    }
    EXPECT_EQ(lost, 1);
    EXPECT_EQ(retaken, 1);
}

TEST(HelperChain, PowerComesFromCountersOnlyTheHelperCanRead) {
    FakeSysfs board;
    buildHelperBoard(board);
    // Kelvo's own view of the machine lacks the energy counters, as an unprivileged process's
    // does on current kernels: any power it shows was read through the helper.
    FakeSysfs kelvoView;
    buildHelperBoard(kelvoView);
    std::filesystem::remove(kelvoView.path(std::string(kPackageCounter) + "/energy_uj"));
    const auto runtime = makeTempDir("kelvo-e2e-run");
    HelperDaemon helper(board.root().string(), runtime);
    ASSERT_TRUE(helper.start()) << helper.log();

    QTemporaryDir home;
    persistMode(home, QStringLiteral("systemAuto"));
    KelvoProcess kelvo(home);
    ASSERT_NO_FATAL_FAILURE(kelvo.start(realBackendArguments(kelvoView, helper)));
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("status=monitoring")));
    // The package draws energy from now on; only the helper's tree sees it.
    std::atomic<bool> running{true};
    std::thread load([&] {
        unsigned long long energy = kPackageEnergy;
        while (running) {
            energy += 2'000'000;  // 2 J every 50 ms: 40 W
            board.write(std::string(kPackageCounter) + "/energy_uj", std::to_string(energy) + "\n");
            std::this_thread::sleep_for(50ms);
        }
    });
    const bool sawPower = kelvo.waitForLine(QStringLiteral(" power=[1-9]\\d*\\.\\dW "));
    running = false;
    load.join();
    EXPECT_TRUE(sawPower) << kelvo.transcript();
}

TEST(HelperChain, KelvoctlSaysWhenTheHelperIsNotRunning) {
    FakeSysfs board;
    buildHelperBoard(board);
    const auto runtime = makeTempDir("kelvo-e2e-none");
    const Output status = runKelvoctl(
        {QStringLiteral("helper"), QStringLiteral("status"), QStringLiteral("--helper-socket"),
         QString::fromStdString((runtime / "helper.sock").string()), QStringLiteral("--sysfs-root"),
         QString::fromStdString(board.root().string())});
    EXPECT_EQ(status.exitCode, 1);
    EXPECT_TRUE(status.out.isEmpty());
    EXPECT_TRUE(status.err.contains(QStringLiteral("helper not installed or not running at ") +
                                    QString::fromStdString((runtime / "helper.sock").string())))
        << status.err.toStdString();
    EXPECT_TRUE(status.err.contains(QStringLiteral("Install and enable kelvo-helperd")));
    // The board has four fans, three of them with PWM.
    EXPECT_TRUE(status.err.contains(QStringLiteral("4 fan(s), 3 with PWM control")))
        << status.err.toStdString();
}

TEST(HelperChain, KelvoctlSaysWhenTheUserIsNotAllowed) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to run kelvoctl as another user";
    FakeSysfs board;
    buildHelperBoard(board);
    const auto runtime = makeTempDir("kelvo-e2e-refuse");
    HelperDaemon helper(board.root().string(), runtime,
                        {"--allowed-group", "kelvo-e2e-no-such-group"});
    ASSERT_TRUE(helper.start()) << helper.log();
    // nobody: not root, not an allowed uid, in no allowed group.
    const Output status = runKelvoctl(
        {QStringLiteral(KELVOCTL_BIN), QStringLiteral("helper"), QStringLiteral("status"),
         QStringLiteral("--helper-socket"), QString::fromStdString(helper.socketPath())},
        QStringLiteral("setpriv"),
        {QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
         QStringLiteral("--clear-groups"), QStringLiteral("--")});
    EXPECT_EQ(status.exitCode, 1) << status.err.toStdString();
    EXPECT_TRUE(
        status.err.contains(QStringLiteral("not allowed to use the helper (uid 65534 is not root "
                                           "or in group kelvo-e2e-no-such-group)")))
        << status.err.toStdString();
    EXPECT_TRUE(status.err.contains(QStringLiteral("usermod -aG kelvo")));
    EXPECT_TRUE(helper.log().find("65534") != std::string::npos) << helper.log();
}

// The installed unit runs the helper as root with no capabilities and no new privileges; the
// chain must work under exactly those limits.
TEST(HelperChain, TheHelperNeedsNoCapabilities) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to run the helper as root without capabilities";
    FakeSysfs board;
    buildHelperBoard(board);
    const auto runtime = makeTempDir("kelvo-e2e-nocaps");
    HelperDaemon helper(board.root().string(), runtime);
    helper.setLauncher({"/usr/bin/setpriv", "--no-new-privs", "--bounding-set=-all",
                        "--inh-caps=-all", "--ambient-caps=-all", "--"});
    ASSERT_TRUE(helper.start()) << helper.log();
    const std::string capabilities =
        readWholeFile("/proc/" + std::to_string(helper.pid()) + "/status");
    EXPECT_NE(capabilities.find("CapEff:\t0000000000000000"), std::string::npos) << capabilities;
    EXPECT_NE(capabilities.find("NoNewPrivs:\t1"), std::string::npos) << capabilities;

    QTemporaryDir home;
    persistMode(home, QStringLiteral("performance"));
    KelvoProcess kelvo(home);
    ASSERT_NO_FATAL_FAILURE(startHoldingFans(kelvo, board, helper));
    kelvo.stopWith(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return boardRestored(board); }, kDeadline).has_value())
        << helper.log();
    EXPECT_TRUE(releasedOnDisconnect(helper.log())) << helper.log();
}

// The helper dies while Kelvo holds fans: Kelvo says so and falls back to monitoring, and the
// restarted helper gives the fans back from its journal.
TEST(HelperChain, ADeadHelperIsReportedAndItsSuccessorRestoresTheFans) {
    FakeSysfs board;
    buildHelperBoard(board);
    const auto runtime = makeTempDir("kelvo-e2e-dead");
    auto helper = std::make_unique<HelperDaemon>(board.root().string(), runtime);
    ASSERT_TRUE(helper->start()) << helper->log();

    QTemporaryDir home;
    persistMode(home, QStringLiteral("performance"));
    KelvoProcess kelvo(home);
    ASSERT_NO_FATAL_FAILURE(startHoldingFans(kelvo, board, *helper));

    helper->signal(SIGKILL);
    ASSERT_TRUE(helper->waitExit(kDeadline).has_value());
    // Nothing gives the fans back while no helper runs: the journal keeps what is owed.
    EXPECT_TRUE(std::filesystem::exists(helper->journalPath()));
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=performance status=fallback")))
        << kelvo.transcript();

    HelperDaemon successor(board.root().string(), runtime);
    ASSERT_TRUE(successor.start()) << successor.log();
    EXPECT_TRUE(waitUntil([&] { return boardRestored(board); }, kDeadline).has_value())
        << successor.log();
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);

    kelvo::SQLiteStore store(
        home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")).toStdString());
    bool reported = false;
    for (const auto& event : store.recentEvents(200))
        reported |= event.message == "Entered monitor+alert fallback (helper unavailable)";
    EXPECT_TRUE(reported);
}

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QSettings>
#include <QTemporaryDir>

#include "../foundation/LinuxFakeSysfs.h"
#include "app/AppRuntime.h"
#include "foundation/fans/HybridFanController.h"
#include "foundation/sim/SimulatedFanController.h"
#include "tests/EventLoopWait.h"
#include "tests/PrivateHome.h"

using namespace kelvo;

namespace {

using kelvo::testing::waitFor;

// Each runtime gets its own settings file and data folder.
class RuntimeFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home.isValid());
        settings = kelvo::testing::enterPrivateHome(home);
    }
    AppRuntimeOptions options(QStringList args = {QStringLiteral("--harness-simulated-fans")}) {
        AppRuntimeOptions o;
        o.arguments = args;
        o.settings = settings.get();
        o.loopConfig.tickSeconds = 0.25;
        return o;
    }
    bool ringHas(AppRuntime& runtime, const std::string& text) {
        for (const auto& e : runtime.eventRing().recent(160))
            if (e.message.find(text) != std::string::npos) return true;
        return false;
    }
    QTemporaryDir home;
    std::unique_ptr<QSettings> settings;
};

// Records every call the runtime makes into the capture seam, in order.
class RecordingCapture : public CaptureSeam {
public:
    explicit RecordingCapture(QStringList* log) : log_(log) {}
    // Nothing for a capture card to bind to: these tests have no window.
    QObject* viewModel() override { return nullptr; }
    void configure(std::function<ControlMode()> provider, std::function<void(ControlMode)> apply,
                   std::function<void()> changed) override {
        *log_ << QStringLiteral("configure");
        modeProvider = std::move(provider);
        applyMode = std::move(apply);
        historyChanged = std::move(changed);
    }
    QCoro::Task<> restorePersistentState() override {
        *log_ << QStringLiteral("restore");
        co_return;
    }
    QCoro::Task<> evaluateProfilingThrottleSignals(const ControlSnapshot&) override {
        *log_ << QStringLiteral("evaluate");
        co_return;
    }
    void updateProfilingClock(Timestamp) override { *log_ << QStringLiteral("clock"); }
    void updateAdaptivePredictorSummary(const std::optional<AdaptiveLeadModel>&) override {
        *log_ << QStringLiteral("summary");
    }
    void setAdaptivePredictorLabel(const QString& label) override {
        *log_ << QStringLiteral("label:") + label;
    }
    void setAdaptivePredictorDetail(const QString& detail) override {
        *log_ << QStringLiteral("detail:") + detail;
    }
    std::function<ControlMode()> modeProvider;
    std::function<void(ControlMode)> applyMode;
    std::function<void()> historyChanged;

private:
    QStringList* log_;
};

}  // namespace

TEST(AppRuntimeBackEnd, SimulatedFlagWinsOverLocalOnly) {
    auto controller = AppRuntime::makeFanController(
        {QStringLiteral("--local-only-fans"), QStringLiteral("--harness-simulated-fans")});
    EXPECT_NE(std::dynamic_pointer_cast<SimulatedFanController>(controller), nullptr);
}

TEST(AppRuntimeBackEnd, DefaultLaunchIsHybridWithoutLocalWriteFallback) {
    auto plain = std::dynamic_pointer_cast<HybridFanController>(AppRuntime::makeFanController({}));
    ASSERT_NE(plain, nullptr);
    EXPECT_FALSE(plain->allowLocalWriteFallback());
    auto hybrid = std::dynamic_pointer_cast<HybridFanController>(
        AppRuntime::makeFanController({QStringLiteral("--hybrid-fans")}));
    ASSERT_NE(hybrid, nullptr);
    EXPECT_TRUE(hybrid->allowLocalWriteFallback());
}

TEST_F(RuntimeFixture, UnknownOrEmptyPersistedModeRestoresSystemAuto) {
    settings->setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("turbo"));
    EXPECT_EQ(AppRuntime::restoredMode(*settings), ControlMode::systemAuto);
    settings->setValue(QStringLiteral("kelvo.control.mode"), QString());
    EXPECT_EQ(AppRuntime::restoredMode(*settings), ControlMode::systemAuto);
    settings->remove(QStringLiteral("kelvo.control.mode"));
    EXPECT_EQ(AppRuntime::restoredMode(*settings), ControlMode::systemAuto);
    settings->setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("quietHybrid"));
    EXPECT_EQ(AppRuntime::restoredMode(*settings), ControlMode::quietHybrid);
}

TEST(AppRuntimeAlerts, FallbackReasonComesFromTheLastParentheses) {
    EXPECT_EQ(AppRuntime::fallbackAlertReason(
                  QStringLiteral("Entered monitor+alert fallback (helper unavailable)")),
              QStringLiteral("helper unavailable"));
    EXPECT_EQ(AppRuntime::fallbackAlertReason(QStringLiteral("fallback (a) then (b)")),
              QStringLiteral("b"));
    EXPECT_EQ(AppRuntime::fallbackAlertReason(QStringLiteral("monitor+alert fallback ) oops (")),
              QStringLiteral("fan control path unavailable"));
    EXPECT_EQ(AppRuntime::fallbackAlertReason(QStringLiteral("monitor+alert fallback")),
              QStringLiteral("fan control path unavailable"));
    EXPECT_EQ(AppRuntime::fallbackAlertReason(QStringLiteral("monitor+alert fallback ()")),
              QString());
}

TEST_F(RuntimeFixture, SameLatestEventTwiceRaisesOneNotification) {
    AppRuntime runtime(options());
    QStringList titles, bodies;
    runtime.notifications()->setObserver([&](const QString& t, const QString& b) {
        titles << t;
        bodies << b;
    });
    auto event = RuntimeEvent::make("Entered monitor+alert fallback (helper unavailable)", true);
    runtime.handleAlerts(event);
    runtime.handleAlerts(event);
    ASSERT_EQ(titles.size(), 1);
    EXPECT_EQ(titles[0], QStringLiteral("Kelvo fallback mode"));
    EXPECT_EQ(bodies[0], QStringLiteral("Fan control released to system auto: helper unavailable"));
    EXPECT_TRUE(runtime.notifications()->authorizationRequested());
}

TEST_F(RuntimeFixture, AnAlertFollowedByAnotherEventInTheSameTickIsStillRaisedOnce) {
    AppRuntime runtime(options());
    QStringList titles;
    runtime.notifications()->setObserver([&](const QString& t, const QString&) { titles << t; });
    auto fallback = RuntimeEvent::make("Entered monitor+alert fallback (helper unavailable)", true);
    auto identity = RuntimeEvent::make("Startup build identity: app 1 (1)", false, true);
    auto boundary = RuntimeEvent::make("Repeated boundary pressure while in Quiet");
    identity.timestamp = fallback.timestamp + 0.001;
    boundary.timestamp = identity.timestamp + 1;
    runtime.handleAlertsThrough({fallback, identity});
    EXPECT_EQ(titles, QStringList{QStringLiteral("Kelvo fallback mode")});
    runtime.handleAlertsThrough({fallback, identity});
    runtime.handleAlertsThrough({fallback, identity, boundary});
    EXPECT_EQ(titles, (QStringList{QStringLiteral("Kelvo fallback mode"),
                                   QStringLiteral("Kelvo boundary warning")}));
    // The last handled event has left the window: only newer events count.
    auto older = RuntimeEvent::make("Entered monitor+alert fallback (helper unavailable)", true);
    older.timestamp = boundary.timestamp - 5;
    runtime.handleAlertsThrough({older});
    EXPECT_EQ(titles.size(), 2);
}

TEST_F(RuntimeFixture, OneMessageCanRaiseSeveralAlertsAndBoundaryNamesTheRuntimeMode) {
    settings->setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("performance"));
    AppRuntime runtime(options());
    QStringList titles, bodies;
    runtime.notifications()->setObserver([&](const QString& t, const QString& b) {
        titles << t;
        bodies << b;
    });
    runtime.handleAlerts(
        RuntimeEvent::make("Fan telemetry degraded; Repeated boundary pressure while in Quiet; "
                           "monitor+alert fallback ()"));
    ASSERT_EQ(titles.size(), 3);
    EXPECT_EQ(titles, (QStringList{QStringLiteral("Kelvo fallback mode"),
                                   QStringLiteral("Kelvo fan telemetry degraded"),
                                   QStringLiteral("Kelvo boundary warning")}));
    EXPECT_EQ(bodies[0], QStringLiteral("Fan control released to system auto: "));
    EXPECT_EQ(bodies[1],
              QStringLiteral("Continuing with last known fan readings while retrying the helper."));
    EXPECT_EQ(bodies[2],
              QStringLiteral("Repeated boundary pressure detected while Performance was active."));
}

TEST_F(RuntimeFixture, WindowVisibilityDrivesLiveStoreBuffering) {
    AppRuntime runtime(options());
    auto* live = runtime.live();
    auto* presentation = runtime.presentation();
    presentation->setDashboardWindowVisibility(DashboardWindowVisibility::offscreen);
    EXPECT_TRUE(live->dashboardIsUserVisible());
    presentation->setDashboardWindowVisibility(DashboardWindowVisibility::minimized);
    EXPECT_FALSE(live->dashboardIsUserVisible());
    presentation->setDashboardWindowVisibility(DashboardWindowVisibility::hidden);
    EXPECT_FALSE(live->dashboardIsUserVisible());
    const auto revision = live->trendRevision();
    presentation->setDashboardWindowVisibility(DashboardWindowVisibility::visible);
    EXPECT_TRUE(live->dashboardIsUserVisible());
    EXPECT_EQ(live->trendRevision(), revision + 1);  // the buffer was flushed exactly once
}

// Requests are heard either way, so that kelvoctl can be told why nothing happened; only the
// launch flag lets them change the mode.
TEST_F(RuntimeFixture, WithoutTheLaunchFlagARequestIsHeardButNotApplied) {
    AppRuntime runtime(options());
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    EXPECT_FALSE(runtime.acceptsExternalModeControl());
    ASSERT_NE(runtime.externalRequestBridge(), nullptr);
    emit runtime.externalRequestBridge()->modeRequested(ControlMode::performance);
    kelvo::testing::processFor(500);
    EXPECT_EQ(runtime.mode(), ControlMode::systemAuto);
    runtime.shutdown();

    AppRuntime allowed(options(
        {QStringLiteral("--harness-simulated-fans"), QStringLiteral("--allow-external-control")}));
    ASSERT_TRUE(waitFor([&] { return allowed.startupFinished(); }));
    EXPECT_TRUE(allowed.acceptsExternalModeControl());
    ASSERT_NE(allowed.externalRequestBridge(), nullptr);
    emit allowed.externalRequestBridge()->modeRequested(ControlMode::performance);
    EXPECT_TRUE(waitFor([&] { return allowed.mode() == ControlMode::performance; }));
    allowed.shutdown();
}

TEST_F(RuntimeFixture, StartupRunsInOrderAndFillsTheLiveStore) {
    QStringList log;
    auto o = options();
    o.makeCapture = [&log](ControlLoop&, ProfilingService&) {
        return std::make_unique<RecordingCapture>(&log);
    };
    AppRuntime runtime(std::move(o));
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    ASSERT_TRUE(runtime.subscriptionID().has_value());
    // configure at construction, then restore, then the baseline predictor texts.
    ASSERT_GE(log.size(), 4);
    EXPECT_EQ(log[0], QStringLiteral("configure"));
    EXPECT_LT(log.indexOf(QStringLiteral("restore")),
              log.indexOf(QStringLiteral("label:Baseline")));
    EXPECT_TRUE(log.contains(QStringLiteral("detail:No adaptive model active")));
    EXPECT_TRUE(ringHas(runtime, "External mode control disabled for this launch"));
    EXPECT_TRUE(ringHas(runtime, "Startup build identity: app "));
    EXPECT_TRUE(runtime.buildIdentitySummary().contains(
        QStringLiteral(", backend simulated, helper n/a, exe size=")));
    EXPECT_EQ(runtime.live()->buildVersionDetail(),
              QStringLiteral("Backend simulated \u2022 Helper n/a"));
    EXPECT_TRUE(runtime.live()->buildVersionLabel().startsWith(QStringLiteral("Build ")));
    // Snapshots arrive: each is evaluated by the capture coordinator before its clock moves.
    ASSERT_TRUE(waitFor([&] { return runtime.live()->sampleHistory().size() >= 3; }));
    const auto evaluate = log.indexOf(QStringLiteral("evaluate"));
    ASSERT_GE(evaluate, 0);
    EXPECT_EQ(log.value(evaluate + 1), QStringLiteral("clock"));
    EXPECT_TRUE(runtime.live()->latestSample().has_value());
    EXPECT_EQ(runtime.live()->status(), ControlStatus::monitoring);
    EXPECT_FALSE(runtime.live()->previewHistory().empty());  // System mode previews the fans
}

TEST_F(RuntimeFixture, SetModePersistsSwitchesTheLoopAndClearsThePreview) {
    AppRuntime runtime(options());
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    ASSERT_TRUE(waitFor([&] { return !runtime.live()->previewHistory().empty(); }));
    runtime.setMode(ControlMode::quiet);
    EXPECT_EQ(settings->value(QStringLiteral("kelvo.control.mode")).toString(),
              QStringLiteral("quiet"));
    ASSERT_TRUE(waitFor([&] { return runtime.live()->status() == ControlStatus::controlling; }));
    EXPECT_TRUE(runtime.live()->previewHistory().empty());
    EXPECT_TRUE(ringHas(runtime, "Control mode changed to Quiet"));
}

TEST_F(RuntimeFixture, PersistedModeIsRestoredIntoTheLoopAtStartup) {
    settings->setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("performance"));
    AppRuntime runtime(options());
    EXPECT_EQ(runtime.mode(), ControlMode::performance);
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    ASSERT_TRUE(waitFor([&] { return runtime.live()->status() == ControlStatus::controlling; }));
    EXPECT_TRUE(ringHas(runtime, "Control mode changed to Performance"));
}

TEST_F(RuntimeFixture, CaptureModeSelectionPersistsWithoutSwitchingTheLoop) {
    RecordingCapture* capture = nullptr;
    QStringList log;
    auto o = options();
    o.makeCapture = [&](ControlLoop&, ProfilingService&) {
        auto made = std::make_unique<RecordingCapture>(&log);
        capture = made.get();
        return made;
    };
    AppRuntime runtime(std::move(o));
    ASSERT_NE(capture, nullptr);
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    EXPECT_EQ(capture->modeProvider(), ControlMode::systemAuto);
    capture->applyMode(ControlMode::performance);
    EXPECT_EQ(runtime.mode(), ControlMode::performance);
    EXPECT_EQ(capture->modeProvider(), ControlMode::performance);
    EXPECT_EQ(settings->value(QStringLiteral("kelvo.control.mode")).toString(),
              QStringLiteral("performance"));
    // Six more ticks, over a second of samples, so the status card has been refreshed too:
    // each would have shown a switch, and the loop stays in System.
    int ticks = 0;
    const auto counting =
        QObject::connect(&runtime, &AppRuntime::snapshotHandled, &runtime, [&ticks] { ++ticks; });
    const bool ticked = waitFor([&] { return ticks >= 6; });
    QObject::disconnect(counting);
    ASSERT_TRUE(ticked);
    EXPECT_FALSE(ringHas(runtime, "Control mode changed"));
    EXPECT_EQ(runtime.live()->status(), ControlStatus::monitoring);
}

TEST_F(RuntimeFixture, AMachineWithNothingUnderHwmonIsExplainedOnce) {
    ASSERT_TRUE(QDir().mkpath(home.filePath(QStringLiteral("empty/sys/class/hwmon"))));
    AppRuntime runtime(
        options({QStringLiteral("--sysfs-root"), home.filePath(QStringLiteral("empty")),
                 QStringLiteral("--helper-socket"), home.filePath(QStringLiteral("none.sock"))}));
    QStringList said;
    QObject::connect(&runtime, &AppRuntime::machineExplained,
                     [&said](const QString& sentence) { said << sentence; });
    int ticks = 0;
    QObject::connect(&runtime, &AppRuntime::snapshotHandled, [&ticks] { ++ticks; });
    ASSERT_TRUE(waitFor([&] { return ticks >= 12; }));
    ASSERT_EQ(said.size(), 1);
    EXPECT_TRUE(said.first().contains(QStringLiteral("no temperature sensor and no fan")));
    EXPECT_TRUE(ringHas(runtime, said.first().toStdString()));
}

TEST_F(RuntimeFixture, TheSimulatedMachineNeedsNoExplanation) {
    AppRuntime runtime(options());
    int explained = 0;
    QObject::connect(&runtime, &AppRuntime::machineExplained, [&explained] { ++explained; });
    int ticks = 0;
    QObject::connect(&runtime, &AppRuntime::snapshotHandled, [&ticks] { ++ticks; });
    ASSERT_TRUE(waitFor([&] { return ticks >= 12; }));
    EXPECT_EQ(explained, 0);
}

TEST_F(RuntimeFixture, CorruptDatabaseIsReportedAndControlGoesOn) {
    QDir().mkpath(home.filePath(QStringLiteral("data/Kelvo")));
    QFile garbage(home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")));
    ASSERT_TRUE(garbage.open(QIODevice::WriteOnly));
    garbage.write(QByteArray(8192, '\x5a'));
    garbage.close();
    AppRuntime runtime(options());
    EXPECT_TRUE(ringHas(runtime, "was unreadable"));
    ASSERT_TRUE(waitFor([&] { return runtime.live()->sampleHistory().size() >= 2; }));
}

TEST_F(RuntimeFixture, GarbageSettingsFileIsReportedAndDefaultsUsed) {
    QFile file(home.filePath(QStringLiteral("garbage.ini")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("[kelvo\n\x01\x02=\xff\xfe\n[[[\nkelvo.control.mode\n");
    file.close();
    QSettings garbage(file.fileName(), QSettings::IniFormat);
    auto o = options();
    o.settings = &garbage;
    AppRuntime runtime(std::move(o));
    EXPECT_EQ(runtime.mode(), ControlMode::systemAuto);
    EXPECT_TRUE(ringHas(runtime, "could not be read"));
    ASSERT_TRUE(waitFor([&] { return runtime.live()->sampleHistory().size() >= 2; }));
}

TEST_F(RuntimeFixture, UnwritableDataFolderFallsBackToMemoryAndKeepsControlling) {
    // A regular file where the data folder should be: nothing can be created inside it.
    QFile blocker(home.filePath(QStringLiteral("data")));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    settings->setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("quiet"));
    AppRuntime runtime(options());
    EXPECT_TRUE(ringHas(runtime, "could not be opened"));
    ASSERT_TRUE(waitFor([&] { return runtime.live()->status() == ControlStatus::controlling; }));
}

TEST_F(RuntimeFixture, ShutdownReleasesFansToTheFirmware) {
    settings->setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("quiet"));
    AppRuntime runtime(options());
    ASSERT_TRUE(waitFor([&] { return runtime.live()->status() == ControlStatus::controlling; }));
    EXPECT_TRUE(runtime.fanController()->holdsControl());
    runtime.shutdown();
    EXPECT_FALSE(runtime.fanController()->holdsControl());
    EXPECT_TRUE(ringHas(runtime, "Fans released to automatic control (control loop stopped)"));
}

TEST(AppRuntimeLaunchPaths, SysfsRootAndHelperSocketAcceptBothSpellings) {
    auto paths =
        LaunchPaths::fromArguments({QStringLiteral("--sysfs-root"), QStringLiteral("/tmp/fake"),
                                    QStringLiteral("--helper-socket=/tmp/h.sock")});
    EXPECT_EQ(paths.sysfsRoot, "/tmp/fake");
    EXPECT_EQ(paths.helperSocket, "/tmp/h.sock");
    auto defaults = LaunchPaths::fromArguments({QStringLiteral("--sysfs-root")});
    EXPECT_EQ(defaults.sysfsRoot, "/");
    EXPECT_EQ(defaults.helperSocket, "/run/kelvo/helper.sock");
}

TEST_F(RuntimeFixture, LocalOnlyFansDriveAFakeHwmonTreeAndGiveItBackOnShutdown) {
    test_support::FakeSysfs sys;
    const std::string hwmon = sys.addHwmon(0, "it87", "platform/it87.656");
    sys.write(hwmon + "/fan1_input", "1500\n");
    sys.write(hwmon + "/fan1_min", "600\n");
    sys.write(hwmon + "/fan1_max", "3000\n");
    sys.write(hwmon + "/pwm1", "100\n");
    sys.write(hwmon + "/pwm1_enable", "2\n");
    // The temperature the fan answers to: without one Kelvo leaves the fan to the firmware.
    const std::string coretemp = sys.addHwmon(1, "coretemp", "platform/coretemp.0");
    sys.write(coretemp + "/temp1_label", "Package id 0\n");
    sys.write(coretemp + "/temp1_input", "55000\n");
    sys.write("proc/stat", "cpu  100 0 100 1000 0 0 0 0 0 0\n");
    settings->setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("performance"));
    const QString root = QString::fromStdString(sys.path("").string());
    AppRuntime runtime(
        options({QStringLiteral("--local-only-fans"), QStringLiteral("--sysfs-root"), root}));
    ASSERT_TRUE(waitFor([&] { return runtime.live()->status() == ControlStatus::controlling; }));
    EXPECT_EQ(sys.read(hwmon + "/pwm1_enable"), "1");  // Kelvo holds the fan
    ASSERT_TRUE(runtime.live()->latestSample().has_value());
    EXPECT_EQ(runtime.live()->latestSample()->fanCurrentRPM, std::vector<double>{1500});
    EXPECT_TRUE(waitFor([&] {
        return runtime.buildIdentitySummary().contains(QStringLiteral("backend local, helper n/a"));
    }));
    runtime.shutdown();
    EXPECT_EQ(sys.read(hwmon + "/pwm1_enable"), "2");  // back to the firmware's own mode
}

TEST_F(RuntimeFixture, RealBackEndsKeepTheirLearnedFanCurvesInTheDatabase) {
    test_support::FakeSysfs sys;
    const std::string hwmon = sys.addHwmon(0, "it87", "platform/it87.656");
    sys.write(hwmon + "/fan1_input", "1500\n");
    sys.write(hwmon + "/pwm1", "100\n");
    sys.write(hwmon + "/pwm1_enable", "2\n");
    sys.write("proc/stat", "cpu  100 0 100 1000 0 0 0 0 0 0\n");
    const std::string identity = "it87@/sys/devices/platform/it87.656#fan1";
    const FanCurve curve{{51, 650}, {128, 1400}, {255, 2100}};
    {
        QDir().mkpath(home.filePath(QStringLiteral("data/Kelvo")));
        SQLiteStore store(home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")).toStdString());
        ASSERT_TRUE(store.saveFanCurve(identity, curve));
    }
    const QString root = QString::fromStdString(sys.path("").string());
    AppRuntime runtime(
        options({QStringLiteral("--local-only-fans"), QStringLiteral("--sysfs-root"), root}));
    auto* learning = runtime.fanController()->curveLearning();
    ASSERT_NE(learning, nullptr);
    EXPECT_EQ(learning->learnedCurve(identity), curve);
    runtime.shutdown();
}

// The coordinator inside the runtime, as the app wires it: the runtime feeds it every loop
// snapshot, its mode provider answers with the runtime's mode, and start-up restores it.
#include <gtest/gtest.h>

#include <QSettings>

#include "CaptureTestRig.h"
#include "app/AppRuntime.h"

namespace kelvo::testing {
namespace {

TEST(CaptureRuntimeWiringTest, TheRuntimeFeedsTheCoordinatorAndItsModeIsRecorded) {
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", home.filePath(QStringLiteral("data")).toUtf8());
    QSettings settings(home.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
    settings.setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("performance"));
    AppRuntimeOptions options;
    options.arguments = {QStringLiteral("--harness-simulated-fans")};
    options.settings = &settings;
    options.loopConfig.tickSeconds = 0.25;
    QStringList revealed;
    CaptureCoordinator* capture = nullptr;
    options.makeCapture = [&](ControlLoop& loop, ProfilingService& service) {
        CaptureCoordinatorOptions captureOptions;
        captureOptions.profilesBaseDirectory = [&home] {
            return home.filePath(QStringLiteral("profiles"));
        };
        captureOptions.reveal = [&revealed](const QString& path) { revealed << path; };
        auto made = std::make_unique<CaptureCoordinator>(loop, service, std::move(captureOptions));
        capture = made.get();
        return made;
    };
    AppRuntime runtime(std::move(options));
    ASSERT_NE(capture, nullptr);
    // The runtime hands out the coordinator as its seam, and the card binds to the coordinator.
    ASSERT_EQ(runtime.capture(), static_cast<CaptureSeam*>(capture));
    EXPECT_EQ(runtime.capture()->viewModel(), static_cast<QObject*>(capture));
    ASSERT_TRUE(waitFor([&] { return runtime.startupFinished(); }));
    EXPECT_EQ(capture->adaptivePredictorLabel(), QStringLiteral("Baseline"));

    capture->startBetaCapture();
    ASSERT_TRUE(waitFor([&] { return capture->profilingIsRunning(); }));
    const auto runID = *capture->profilingRunID();
    EXPECT_EQ(runtime.profilingService().store().run(runID)->mode, "performance");
    // The elapsed clock moves with the snapshots the runtime hands over.
    ASSERT_TRUE(waitFor([&] { return capture->profilingElapsed() != QStringLiteral("00:00"); }));
    // A second of sample time may hold fewer ticks on a loaded machine: wait for them.
    EXPECT_TRUE(
        waitFor([&] { return runtime.profilingService().store().runSamples(runID).size() >= 3; }));

    std::optional<QString> bundle;
    QObject::connect(
        capture, &CaptureCoordinator::finalizationFinished,
        [&](qint64, const QString&, const QString& path, const QString&) { bundle = path; });
    capture->beginCaptureStop(true);
    ASSERT_TRUE(waitFor([&] { return bundle.has_value(); }));
    EXPECT_TRUE(bundle->endsWith(QStringLiteral(".kelvocapture")));
    EXPECT_EQ(revealed, QStringList{*bundle});
}

}  // namespace
}  // namespace kelvo::testing

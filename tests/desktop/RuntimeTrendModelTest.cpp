#include <gtest/gtest.h>

#include <QSettings>
#include <QTemporaryDir>
#include <memory>

#include "app/AppRuntime.h"
#include "dashboard/TrendSectionModel.h"
#include "desktop/RuntimeTrendModel.h"
#include "tests/dashboard/DashboardTestSamples.h"

using namespace kelvo;

namespace {

constexpr Timestamp kStart = 1'700'000'000;

LiveSnapshot snapshotAt(Timestamp t) {
    return test::loadedSnapshot(t);
}

using test::hasPreview;

}  // namespace

TEST(TrendSectionModel, FollowsTheRuntimesModeThroughItsSignal) {
    QTemporaryDir dir;
    QSettings settings(dir.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
    AppRuntimeOptions options;
    options.arguments = {QStringLiteral("--harness-simulated-fans")};
    options.settings = &settings;
    options.loopConfig.tickSeconds = 0.25;
    AppRuntime runtime(std::move(options));
    std::unique_ptr<TrendSectionModel> owned(makeRuntimeTrendModel(&runtime, &settings, nullptr));
    TrendSectionModel& model = *owned;
    const auto live = runtime.live();
    Timestamp t = kStart;
    for (int i = 0; i < 4; ++i, t += 0.25) {
        auto snapshot = snapshotAt(t);
        snapshot.previewActive = true;
        ControlDecision preview;
        preview.timestamp = t;
        preview.targetRPM = {2400, 2600};
        snapshot.previewDecision = preview;
        live->ingest(snapshot);
    }
    ASSERT_EQ(runtime.mode(), ControlMode::systemAuto);
    ASSERT_TRUE(hasPreview(model.snapshot()));
    const auto base = model.memo().computationCount();
    runtime.setMode(ControlMode::quiet);
    EXPECT_EQ(model.memo().computationCount(), base + 1);
    EXPECT_EQ(model.memo().cachedKey()->runtimeModeRawValue, "quiet");
    EXPECT_FALSE(hasPreview(model.snapshot()));
    runtime.setMode(ControlMode::quiet);
    EXPECT_EQ(model.memo().computationCount(), base + 1);
    runtime.setMode(ControlMode::performance);
    EXPECT_EQ(model.memo().computationCount(), base + 2);
    runtime.shutdown();
}

#include <gtest/gtest.h>

#include <QSignalSpy>
#include <QTemporaryDir>

#include "dashboard/TrendSectionModel.h"

using namespace kelvo;

namespace {
LiveSnapshot snapshotAt(Timestamp t) {
    LiveSnapshot s;
    s.sample.timestamp = t;
    s.sample.cpuTemperatureC = 70;
    s.sample.cpuClockMHz = 4000;
    s.sample.cpuUtilizationPct = 95;
    s.sample.totalPowerW = 80;
    s.sample.fanCurrentRPM = {2500};
    s.sample.fanMaxRPM = {5000};
    return s;
}

struct ModelRig {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("s.ini")), QSettings::IniFormat};
    LiveDashboardStore store;
    ControlMode mode = ControlMode::systemAuto;
    TrendSectionModel model{&store, [this] { return mode; }, &settings};
};
}  // namespace

TEST(TrendSectionModel, RecomputesOncePerStoreRevisionAndNeverOtherwise) {
    ModelRig rig;
    QSignalSpy changed(&rig.model, &TrendSectionModel::sectionChanged);
    Timestamp t = 1'700'000'000;
    for (int i = 0; i < 8; ++i) rig.store.ingest(snapshotAt(t += 0.25));
    const auto revision = rig.store.trendRevision();
    EXPECT_EQ(changed.count(), static_cast<int>(revision));
    EXPECT_EQ(rig.model.memo().computationCount(), revision);
    // Reading every property does not recompute.
    (void)rig.model.peakPerformanceValueText();
    (void)rig.model.peakPerformanceHelp();
    (void)rig.model.totalPowerScaleText();
    (void)rig.model.snapshot();
    rig.model.refresh();
    EXPECT_EQ(rig.model.memo().computationCount(), revision);
    EXPECT_EQ(rig.model.totalPowerScaleText(), QStringLiteral("80.0"));
    EXPECT_EQ(rig.model.fanScaleMaxRPM(), 5000);
}

TEST(TrendSectionModel, TogglesWindowAndModeEachRecomputeOnceAndPersist) {
    ModelRig rig;
    rig.store.ingest(snapshotAt(1'700'000'000));
    rig.model.refresh();
    const auto base = rig.model.memo().computationCount();
    rig.model.setShowCPUSeries(false);
    rig.model.setShowCPUSeries(false);
    EXPECT_EQ(rig.model.memo().computationCount(), base + 1);
    EXPECT_FALSE(rig.settings.value(QStringLiteral("kelvo.presentation.series.cpu")).toBool());
    rig.model.setTrendWindow(QStringLiteral("oneMinute"));
    EXPECT_EQ(rig.model.memo().computationCount(), base + 2);
    EXPECT_EQ(rig.settings.value(QStringLiteral("kelvo.presentation.trend_window")).toString(),
              QStringLiteral("oneMinute"));
    rig.mode = ControlMode::quiet;
    rig.model.refresh();
    rig.model.refresh();
    EXPECT_EQ(rig.model.memo().computationCount(), base + 3);
    // Fan preview is gone in Quiet: GPU ×2, fan, power remain.
    EXPECT_EQ(rig.model.snapshot().series.size(), 4u);
}

TEST(TrendSectionModel, PersistedChoicesAreRestoredAndUnknownWindowIsFiveMinutes) {
    QTemporaryDir dir;
    QSettings settings(dir.filePath(QStringLiteral("s.ini")), QSettings::IniFormat);
    settings.setValue(QStringLiteral("kelvo.presentation.series.fan"), false);
    settings.setValue(QStringLiteral("kelvo.presentation.trend_window"), QStringLiteral("hour"));
    LiveDashboardStore store;
    TrendSectionModel model(
        &store, [] { return ControlMode::systemAuto; }, &settings);
    EXPECT_FALSE(model.showFanSeries());
    EXPECT_TRUE(model.showGPUSeries());
    EXPECT_EQ(model.trendWindow(), QStringLiteral("fiveMinutes"));
    EXPECT_EQ(model.peakPerformanceValueText(), QString::fromUtf8("\u2014"));
    EXPECT_EQ(model.peakPerformanceTint(),
              TrendSectionModel::tintColor(PeakPerformanceTint::secondary));
}

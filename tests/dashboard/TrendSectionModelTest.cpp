#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>

#include "DashboardTestSamples.h"
#include "dashboard/SystemColors.h"
#include "dashboard/TrendSectionModel.h"

using namespace kelvo;

namespace {

constexpr Timestamp kStart = 1'700'000'000;

LiveSnapshot snapshotAt(Timestamp t) {
    return test::loadedSnapshot(t);
}

using test::hasPreview;

struct ModelRig {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat};
    LiveDashboardStore store;
    ControlMode mode = ControlMode::systemAuto;
    std::unique_ptr<TrendSectionModel> model;

    void make() {
        model = std::make_unique<TrendSectionModel>(
            &store, [this] { return mode; }, &settings);
    }
    std::uint64_t computations() const { return model->memo().computationCount(); }
};

}  // namespace

TEST(TrendSectionModel, WithNoStoredPreferencesItShowsFiveMinutesAndEverySeries) {
    ModelRig rig;
    rig.make();
    EXPECT_EQ(rig.model->trendWindow(), QStringLiteral("fiveMinutes"));
    EXPECT_TRUE(rig.model->showGPUSeries());
    EXPECT_TRUE(rig.model->showCPUSeries());
    EXPECT_TRUE(rig.model->showFanSeries());
    EXPECT_TRUE(rig.model->showPowerSeries());
    EXPECT_EQ(rig.computations(), 1u);
    EXPECT_EQ(rig.model->snapshot().viewportDomain.visibleWindowSeconds, 300);
    EXPECT_EQ(rig.model->snapshot().series.size(), 7u);
    EXPECT_EQ(rig.model->fanScaleText(), QStringLiteral("1"));
    EXPECT_EQ(rig.model->gpuScaleText(), QStringLiteral("1"));
    EXPECT_EQ(rig.model->cpuScaleText(), QStringLiteral("1"));
    EXPECT_EQ(rig.model->totalPowerScaleText(), QStringLiteral("1.0"));
    EXPECT_EQ(rig.model->peakPerformanceValueText(), QString::fromUtf8("\u2014"));
    EXPECT_EQ(rig.model->peakPerformanceTint(), SystemColor::secondary);
    EXPECT_EQ(rig.model->peakPerformanceHelp(),
              QStringLiteral("Kelvo is still learning this machine's CPU and GPU high-load clock "
                             "references. Peak Performance stays blank until a learned reference "
                             "is available and qualified load appears in the current 5m window."));
}

TEST(TrendSectionModel, StoredChoicesAreRestoredAndAnUnknownWindowIsFiveMinutes) {
    ModelRig rig;
    rig.settings.setValue(QStringLiteral("kelvo.presentation.series.fan"), false);
    rig.settings.setValue(QStringLiteral("kelvo.presentation.series.cpu"), false);
    rig.settings.setValue(QStringLiteral("kelvo.presentation.trend_window"),
                          QStringLiteral("hour"));
    rig.make();
    EXPECT_TRUE(rig.model->showGPUSeries());
    EXPECT_FALSE(rig.model->showCPUSeries());
    EXPECT_FALSE(rig.model->showFanSeries());
    EXPECT_TRUE(rig.model->showPowerSeries());
    EXPECT_EQ(rig.model->trendWindow(), QStringLiteral("fiveMinutes"));
    EXPECT_EQ(rig.model->snapshot().series.size(), 3u);  // GPU ×2, power

    ModelRig minute;
    minute.settings.setValue(QStringLiteral("kelvo.presentation.trend_window"),
                             QStringLiteral("oneMinute"));
    minute.make();
    EXPECT_EQ(minute.model->trendWindow(), QStringLiteral("oneMinute"));
    EXPECT_EQ(minute.model->snapshot().viewportDomain.visibleWindowSeconds, 60);
    EXPECT_TRUE(minute.model->peakPerformanceHelp().endsWith(QStringLiteral("current 1m window.")));
}

TEST(TrendSectionModel, RecomputesExactlyOncePerStoreRevisionAndNeverOtherwise) {
    ModelRig rig;
    rig.make();
    QSignalSpy snapshots(rig.model.get(), &TrendSectionModel::snapshotChanged);
    const auto base = rig.computations();
    const auto baseRevision = rig.store.trendRevision();
    Timestamp t = kStart;
    for (int i = 0; i < 12; ++i, t += 0.25) {
        rig.store.ingest(snapshotAt(t));
        QCoreApplication::processEvents();
        EXPECT_EQ(rig.computations() - base, rig.store.trendRevision() - baseRevision) << i;
    }
    EXPECT_EQ(rig.store.trendRevision() - baseRevision, 12u);
    EXPECT_EQ(snapshots.count(), 12);
    // A snapshot that arrives too soon republishes nothing, so nothing is recomputed.
    rig.store.ingest(snapshotAt(t - 0.2));
    // Reading is free.
    for (int i = 0; i < 3; ++i) {
        (void)rig.model->snapshot();
        (void)rig.model->peakPerformanceHelp();
        (void)rig.model->fanScaleText();
        rig.model->refresh();
    }
    QCoreApplication::processEvents();
    EXPECT_EQ(rig.computations() - base, 12u);
    EXPECT_EQ(rig.model->memo().cachedKey()->trendRevision, rig.store.trendRevision());
    EXPECT_EQ(rig.model->snapshot().viewportDomain.referenceUpperBound, t - 0.25);
}

TEST(TrendSectionModel, AConfigurationChangeArrivingWithItsRevisionIsOneRecompute) {
    ModelRig rig;
    rig.make();
    Timestamp t = kStart;
    rig.store.ingest(snapshotAt(t));
    QCoreApplication::processEvents();
    const auto base = rig.computations();
    auto changed = snapshotAt(t += 1.0);  // card and trend update together
    changed.gpuConfig.cpuReferenceClockMHz = 4300;
    rig.store.ingest(changed);
    QCoreApplication::processEvents();
    EXPECT_EQ(rig.computations() - base, 1u);
    EXPECT_EQ(rig.model->memo().cachedKey()->gpuClockWindowAnalysisConfig.cpuReferenceClockMHz,
              4300);
}

TEST(TrendSectionModel, AHiddenDashboardRecomputesOnceWhenItIsShownAgain) {
    ModelRig rig;
    rig.make();
    Timestamp t = kStart;
    rig.store.ingest(snapshotAt(t));
    const auto base = rig.computations();
    rig.store.applyWindowVisibility(DashboardWindowVisibility::hidden);
    for (int i = 0; i < 8; ++i) rig.store.ingest(snapshotAt(t += 0.25));
    QCoreApplication::processEvents();
    EXPECT_EQ(rig.computations(), base);
    rig.store.applyWindowVisibility(DashboardWindowVisibility::visible);
    QCoreApplication::processEvents();
    EXPECT_EQ(rig.computations(), base + 1);
    EXPECT_EQ(rig.model->snapshot().viewportDomain.referenceUpperBound, t);
}

TEST(TrendSectionModel, TogglesWindowAndModeEachRecomputeOnceAndPersist) {
    ModelRig rig;
    rig.make();
    rig.store.ingest(snapshotAt(kStart));
    rig.store.ingest(snapshotAt(kStart + 0.25));
    auto base = rig.computations();
    QSignalSpy cpuChanged(rig.model.get(), &TrendSectionModel::showCPUSeriesChanged);

    rig.model->setShowCPUSeries(false);
    rig.model->setShowCPUSeries(false);
    EXPECT_EQ(rig.computations(), base + 1);
    EXPECT_EQ(cpuChanged.count(), 1);
    EXPECT_FALSE(rig.settings.value(QStringLiteral("kelvo.presentation.series.cpu")).toBool());
    EXPECT_EQ(rig.model->snapshot().series.size(), 5u);

    struct Toggle {
        void (TrendSectionModel::*set)(bool);
        const char* key;
    };
    for (const Toggle& toggle :
         {Toggle{&TrendSectionModel::setShowGPUSeries, "kelvo.presentation.series.gpu"},
          Toggle{&TrendSectionModel::setShowFanSeries, "kelvo.presentation.series.fan"},
          Toggle{&TrendSectionModel::setShowPowerSeries, "kelvo.presentation.series.power"}}) {
        base = rig.computations();
        (rig.model.get()->*toggle.set)(false);
        (rig.model.get()->*toggle.set)(false);
        EXPECT_EQ(rig.computations(), base + 1) << toggle.key;
        EXPECT_FALSE(rig.settings.value(QString::fromUtf8(toggle.key), true).toBool());
        (rig.model.get()->*toggle.set)(true);
        EXPECT_EQ(rig.computations(), base + 2) << toggle.key;
        EXPECT_TRUE(rig.settings.value(QString::fromUtf8(toggle.key), false).toBool());
    }

    base = rig.computations();
    QSignalSpy windowChanged(rig.model.get(), &TrendSectionModel::trendWindowChanged);
    rig.model->setTrendWindow(QStringLiteral("oneMinute"));
    rig.model->setTrendWindow(QStringLiteral("oneMinute"));
    EXPECT_EQ(rig.computations(), base + 1);
    EXPECT_EQ(windowChanged.count(), 1);
    EXPECT_EQ(rig.settings.value(QStringLiteral("kelvo.presentation.trend_window")).toString(),
              QStringLiteral("oneMinute"));
    EXPECT_EQ(rig.model->snapshot().viewportDomain.visibleWindowSeconds, 60);
    rig.model->setTrendWindow(QStringLiteral("nonsense"));  // read as five minutes
    EXPECT_EQ(rig.computations(), base + 2);
    EXPECT_EQ(rig.model->trendWindow(), QStringLiteral("fiveMinutes"));
    EXPECT_EQ(rig.settings.value(QStringLiteral("kelvo.presentation.trend_window")).toString(),
              QStringLiteral("fiveMinutes"));

    base = rig.computations();
    EXPECT_TRUE(hasPreview(rig.model->snapshot()));  // drawn in System mode, even while empty
    rig.mode = ControlMode::quiet;
    rig.model->refresh();
    rig.model->refresh();
    EXPECT_EQ(rig.computations(), base + 1);
    EXPECT_FALSE(hasPreview(rig.model->snapshot()));
    EXPECT_EQ(rig.model->snapshot().series.size(), 4u);  // GPU ×2, fan, power; CPU is off
}

TEST(TrendSectionModel, PublishesTheSectionsTextsAndTintOnlyWhenTheyChange) {
    ModelRig rig;
    rig.make();
    QSignalSpy tint(rig.model.get(), &TrendSectionModel::peakPerformanceTintChanged);
    QSignalSpy value(rig.model.get(), &TrendSectionModel::peakPerformanceValueTextChanged);
    QSignalSpy fan(rig.model.get(), &TrendSectionModel::fanScaleTextChanged);
    QSignalSpy help(rig.model.get(), &TrendSectionModel::peakPerformanceHelpChanged);
    Timestamp t = kStart;
    for (int i = 0; i < 12; ++i, t += 0.25) rig.store.ingest(snapshotAt(t));
    // Steady load at 4000 of 4100 MHz on the CPU and the full 1500 MHz on the GPU.
    EXPECT_EQ(rig.model->fanScaleText(), QStringLiteral("5000"));
    EXPECT_EQ(rig.model->gpuScaleText(), QStringLiteral("1500"));
    EXPECT_EQ(rig.model->cpuScaleText(), QStringLiteral("4000"));
    EXPECT_EQ(rig.model->totalPowerScaleText(), QStringLiteral("80.0"));
    EXPECT_EQ(rig.model->peakPerformanceValueText(), QStringLiteral("98.8%"));
    EXPECT_EQ(rig.model->peakPerformanceTint(), SystemColor::green);
    // The window ends a second before the newest sample: 8 of the 12 are in it.
    EXPECT_EQ(rig.model->peakPerformanceHelp(),
              QStringLiteral("Peak Performance averages CPU and GPU realized high-load retention "
                             "when both domains are qualified in the current 5m window. CPU "
                             "retained 97.6% across 8 high-load samples; GPU retained 100.0% "
                             "across 8 high-load samples. Combined result: 98.8%."));
    EXPECT_EQ(tint.count(), 1);
    EXPECT_EQ(value.count(), 1);
    EXPECT_EQ(fan.count(), 1);
    // Once for the empty window, then once per sample count from 1 to 8 (the fifth ingest
    // brings the first sample into the window).
    EXPECT_EQ(help.count(), 9);
}

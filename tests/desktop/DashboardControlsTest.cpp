#include <QQmlProperty>

#include "DesktopTestSupport.h"
#include "dashboard/TrendSectionModel.h"
#include "desktop/DashboardViewModel.h"
#include "trend_render/FixedViewportTrendHostItem.h"
#include "trend_render/FixedViewportTrendView.h"

namespace kelvo::testing {
namespace {

class DashboardControls : public DesktopFixture {
protected:
    bool checked(const QString& identifier) {
        return item(identifier)->property("checked").toBool();
    }
    bool toggleOn(const QString& identifier) { return item(identifier)->property("on").toBool(); }
};

TEST_F(DashboardControls, EveryRegionCarriesItsIdentifierAndLabel) {
    openDashboard();
    const QList<std::pair<QString, QString>> labelled = {
        {"surface-root", "Kelvo Root Surface"},
        {"topbar-utility", "Utility Top Bar"},
        {"topbar-aux-controls", "Utility Auxiliary Controls"},
        {"control-public-mode", "Cooling Preference"},
        {"card-trend", "Trend Card"},
        {"trend-chart-live", "Live Trend Chart"},
        {"card-live-metrics", "Live Metrics Card"},
        {"card-capture-primary", "Beta Capture Primary Card"},
    };
    for (const auto& [identifier, label] : labelled) {
        QQuickItem* region = item(identifier);
        ASSERT_NE(region, nullptr) << identifier.toStdString();
        EXPECT_EQ(accessibleName(region), label) << identifier.toStdString();
    }
    for (const QString identifier :
         {"surface-selection", "surface-selection-dashboard", "surface-selection-advanced",
          "surface-selection-capture", "dashboard-public-mode-system",
          "dashboard-public-mode-enhanced", "surface-top-deck", "control-trend-window",
          "trend-series-gpu-clock", "trend-series-gpu-temp", "trend-series-cpu-clock",
          "trend-series-cpu-temp", "trend-series-fan-speed", "trend-series-watts",
          "capture-beta-notes", "capture-start-beta"})
        EXPECT_NE(item(identifier), nullptr) << identifier.toStdString();
    EXPECT_EQ(item("dashboard-public-mode-system")->property("text").toString(), "System");
    EXPECT_EQ(item("dashboard-public-mode-enhanced")->property("text").toString(), "Kelvo");
    EXPECT_EQ(item("capture-start-beta")->property("text").toString(), "Start Beta Capture");
    EXPECT_EQ(item("capture-beta-notes")->property("placeholderText").toString(),
              "Notes for this tester or session");
    EXPECT_EQ(item("control-public-mode")->width(), 286);
    EXPECT_EQ(item("surface-selection")->width(), 318);
    EXPECT_EQ(item("control-trend-window")->width(), 180)
        << "the trend window switch keeps its width";
    // In the window's order: the top bar above the deck, the deck above the capture card.
    const auto y = [&](const char* id) { return item(id)->mapToScene(QPointF(0, 0)).y(); };
    EXPECT_LT(y("topbar-utility"), y("surface-top-deck"));
    EXPECT_LT(y("card-trend"), y("card-live-metrics"));
    EXPECT_LT(y("card-live-metrics"), y("card-capture-primary"));
}

TEST_F(DashboardControls, WithNoStoredPreferencesTheTrendShowsFiveMinutesAndEverySeries) {
    openDashboard();
    EXPECT_EQ(window()->trendModel()->trendWindow(), QStringLiteral("fiveMinutes"));
    EXPECT_TRUE(checked("control-trend-window-fiveMinutes"));
    EXPECT_FALSE(checked("control-trend-window-oneMinute"));
    for (const char* id :
         {"trend-series-gpu-clock", "trend-series-gpu-temp", "trend-series-cpu-clock",
          "trend-series-cpu-temp", "trend-series-fan-speed", "trend-series-watts"})
        EXPECT_TRUE(toggleOn(id)) << id;
}

TEST_F(DashboardControls, SwitchingGpuTempOffAlsoHidesTheGpuClock) {
    openDashboard();
    ASSERT_TRUE(waitFor([&] { return runtime->live()->sampleHistory().size() >= 4; }));
    click("trend-series-gpu-temp");
    EXPECT_FALSE(window()->trendModel()->showGPUSeries());
    EXPECT_FALSE(toggleOn("trend-series-gpu-temp"));
    EXPECT_FALSE(toggleOn("trend-series-gpu-clock")) << "the linked toggle shows off too";
    EXPECT_TRUE(toggleOn("trend-series-cpu-temp"));
    EXPECT_FALSE(settings->value(TrendSectionModel::kGPUSeriesKey).toBool()) << "persisted";
    click("trend-series-gpu-clock");
    EXPECT_TRUE(toggleOn("trend-series-gpu-temp"));
}

TEST_F(DashboardControls, SeriesTogglesCarryTheirHelpWithTheScaleMaxima) {
    openDashboard();
    ASSERT_TRUE(waitFor([&] { return !window()->trendModel()->gpuScaleText().isEmpty(); }));
    EXPECT_EQ(item("trend-series-gpu-clock")->property("help").toString(),
              "GPU clock as a percentage of " + window()->trendModel()->gpuScaleText() +
                  " MHz. Toggling this also toggles GPU Temp.");
    EXPECT_EQ(item("trend-series-cpu-temp")->property("help").toString(),
              "CPU temperature. Toggling this also toggles CPU Clock.");
    EXPECT_EQ(item("trend-series-fan-speed")->property("help").toString(),
              "Fan speed as a percentage of " + window()->trendModel()->fanScaleText() + " RPM.");
    EXPECT_EQ(item("trend-series-watts")->property("help").toString(),
              "Right axis up to " + window()->trendModel()->totalPowerScaleText() +
                  " W of total system power.");
    EXPECT_NE(item("trend-series-link-gpu"), nullptr);
    EXPECT_EQ(item("trend-series-link-cpu")->width(), 14);
}

TEST_F(DashboardControls, EverySegmentedControlShowsExactlyItsSelectionWhateverIsPressed) {
    openDashboard();
    struct Segmented {
        QString prefix;
        QStringList values;
        std::function<QString()> current;
    };
    const QList<Segmented> controls = {
        {"dashboard-public-mode-",
         {"system", "enhanced"},
         [&] { return window()->viewModel()->publicMode(); }},
        {"surface-selection-",
         {"dashboard", "advanced", "capture"},
         [&] { return window()->viewModel()->selectedSurface(); }},
        {"control-trend-window-",
         {"oneMinute", "fiveMinutes"},
         [&] { return window()->trendModel()->trendWindow(); }},
    };
    for (const Segmented& control : controls) {
        const auto expectOnlyCurrentChecked = [&](const QString& pressed) {
            SCOPED_TRACE((control.prefix + pressed).toStdString());
            // The press may go through the control loop before the selection changes.
            ASSERT_TRUE(waitFor([&] { return control.current() == pressed; }));
            QStringList shown;
            for (const QString& value : control.values)
                if (checked(control.prefix + value)) shown << value;
            EXPECT_EQ(shown, QStringList{control.current()});
        };
        const QString selected = control.current();
        ASSERT_TRUE(control.values.contains(selected)) << selected.toStdString();
        const QString other =
            control.values.first() == selected ? control.values.last() : control.values.first();
        for (const QString& value : {selected, selected, other, other, selected}) {
            click(control.prefix + value);
            expectOnlyCurrentChecked(value);
        }
    }
}

TEST_F(DashboardControls, ThePeakPerformanceCardIsTitledWithItsTwoLines) {
    openDashboard();
    QQuickItem* title = item("trend-peak-performance-title");
    ASSERT_NE(title, nullptr);
    EXPECT_EQ(title->property("text").toString(), "Peak Performance\nUnder Full Load");
    EXPECT_EQ(title->property("lineCount").toInt(), 2);
}

TEST_F(DashboardControls, TheTrendWindowControlSwitchesToOneMinute) {
    openDashboard();
    click("control-trend-window-oneMinute");
    EXPECT_EQ(window()->trendModel()->trendWindow(), QStringLiteral("oneMinute"));
    EXPECT_EQ(settings->value(TrendSectionModel::kTrendWindowKey).toString(), "oneMinute");
}

TEST_F(DashboardControls, PressingKelvoMovesAQuietRuntimeToQuietHybrid) {
    startRuntime();
    runtime->setMode(ControlMode::quiet);
    openDashboard();
    EXPECT_EQ(window()->viewModel()->publicMode(), QStringLiteral("enhanced"));
    EXPECT_TRUE(checked("dashboard-public-mode-enhanced"));
    EXPECT_FALSE(checked("dashboard-public-mode-system"));
    click("dashboard-public-mode-enhanced");
    EXPECT_TRUE(waitFor([&] { return runtime->mode() == ControlMode::quietHybrid; }));
    click("dashboard-public-mode-system");
    EXPECT_TRUE(waitFor([&] { return runtime->mode() == ControlMode::systemAuto; }));
    EXPECT_TRUE(checked("dashboard-public-mode-system"));
}

TEST_F(DashboardControls, APerformanceRuntimeShowsTheSliderAtKelvo) {
    startRuntime();
    runtime->setMode(ControlMode::performance);
    openDashboard();
    EXPECT_TRUE(checked("dashboard-public-mode-enhanced"));
}

TEST_F(DashboardControls, TheSurfacePickerSelectsTheAdvancedSurfaceWithItsDetail) {
    openDashboard();
    EXPECT_FALSE(shown("surface-advanced"));
    click("surface-selection-advanced");
    EXPECT_EQ(runtime->presentation()->selectedSurface(), AppSurfaceSelection::advanced);
    EXPECT_TRUE(shown("surface-advanced"));
    ASSERT_TRUE(waitFor(
        [&] { return !window()->viewModel()->advanced().value("fans").toStringList().isEmpty(); }));
    const QString fans = window()->viewModel()->advanced().value("fans").toStringList().join('\n');
    EXPECT_TRUE(fans.contains("RPM, target")) << fans.toStdString();
    EXPECT_TRUE(fans.contains("RPM maximum")) << fans.toStdString();
    click("surface-selection-capture");
    EXPECT_EQ(runtime->presentation()->selectedSurface(), AppSurfaceSelection::capture);
    EXPECT_FALSE(shown("surface-advanced"));
    EXPECT_TRUE(shown("surface-capture"));
}

TEST_F(DashboardControls, TheCaptureSurfaceNamesTheScenarioAndThePlanInWords) {
    openDashboard();
    click("surface-selection-capture");
    ASSERT_TRUE(waitFor([&] { return shown("surface-capture"); }));
    settle();
    QStringList texts;
    std::function<void(QQuickItem*)> visit = [&](QQuickItem* from) {
        for (QQuickItem* child : from->childItems()) {
            if (child->inherits("QQuickText") && child->isVisible())
                texts << child->property("text").toString();
            visit(child);
        }
    };
    visit(item("surface-capture"));
    EXPECT_TRUE(texts.contains("Scenario: Real Workflow Capture"))
        << texts.join(" | ").toStdString();
    EXPECT_TRUE(texts.contains("No scripted plan is running.")) << texts.join(" | ").toStdString();
    for (const QString& text : texts) {
        EXPECT_FALSE(text.contains("realWorkflow")) << text.toStdString();
        EXPECT_FALSE(text.endsWith("idle")) << text.toStdString();
    }
}

TEST_F(DashboardControls, TheCoolingPreferenceOptionsSayWhatTheyDo) {
    openDashboard();
    for (const QString value : {"system", "enhanced"}) {
        QQuickItem* option = item("dashboard-public-mode-" + value);
        ASSERT_NE(option, nullptr);
        const QString help = window()->viewModel()->publicModeHelp(value);
        EXPECT_GT(help.size(), 40) << value.toStdString();
        EXPECT_EQ(QQmlProperty(option, "Accessible.description", qmlContext(option)).read(), help);
    }
    EXPECT_TRUE(window()->viewModel()->publicModeHelp("enhanced").contains("Quiet Hybrid"));
    EXPECT_TRUE(window()->viewModel()->publicModeHelp("system").contains("firmware"));
    QQuickItem* kelvo = item("dashboard-public-mode-enhanced");
    // On a busy machine the dashboard may still be laying itself out when the pointer arrives,
    // and the option moves out from under it: point at where the option is now until it is
    // hovered.
    EXPECT_TRUE(waitFor([&] {
        if (!kelvo->property("hovered").toBool()) {
            const QPointF centre(kelvo->width() / 2, kelvo->height() / 2);
            QTest::mouseMove(window(), kelvo->mapToScene(centre).toPoint());
        }
        return QQmlProperty(kelvo, "ToolTip.visible", qmlContext(kelvo)).read().toBool();
    })) << "pointing at an option shows its sentence";
}

TEST_F(DashboardControls, AFanKelvoHoldsStillReadsStoppedNeverMinusOne) {
    openDashboard();
    click("surface-selection-advanced");
    ASSERT_TRUE(waitFor([&] { return runtime->live()->latestSample().has_value(); }));
    // Straight into the store, between two of the loop's snapshots: the view model follows
    // the store's signals at once.
    LiveSnapshot snapshot;
    snapshot.sample = *runtime->live()->latestSample();
    snapshot.sample.timestamp += 5;
    snapshot.sample.fanNames = {"Simulated fan 1", "Simulated fan 2"};
    snapshot.sample.fanCurrentRPM = {0, 1500};
    snapshot.sample.fanTargetRPM = {kFanStopRPM, 1500};
    snapshot.sample.fanMinRPM = {0, 0};
    snapshot.sample.fanMaxRPM = {2000, 2000};
    ControlDecision decision;
    decision.timestamp = snapshot.sample.timestamp;
    decision.mode = ControlMode::quiet;
    decision.targetRPM = {kFanStopRPM, 1500};
    snapshot.decision = decision;
    snapshot.status = ControlStatus::controlling;
    runtime->live()->ingest(snapshot);
    const QStringList fans = window()->viewModel()->advanced().value("fans").toStringList();
    ASSERT_EQ(fans.size(), 2) << fans.join('\n').toStdString();
    EXPECT_TRUE(fans[0].contains("target stopped")) << fans[0].toStdString();
    EXPECT_TRUE(fans[0].contains("loop wants stopped")) << fans[0].toStdString();
    EXPECT_FALSE(fans[0].contains("-1")) << fans[0].toStdString();
    EXPECT_TRUE(fans[1].contains("target 1500 RPM")) << fans[1].toStdString();
    EXPECT_EQ(window()->viewModel()->card().value("fans").toString(),
              QStringLiteral("2 fans: stopped, 1500 RPM"));
}

TEST_F(DashboardControls, TheLiveMetricsCardShowsTheLatestSample) {
    openDashboard();
    ASSERT_TRUE(waitFor([&] { return runtime->live()->latestSample().has_value(); }));
    ASSERT_TRUE(waitFor([&] {
        return window()->viewModel()->card().value("cpuTemperature").toString().endsWith("°C");
    }));
    const QVariantMap card = window()->viewModel()->card();
    EXPECT_TRUE(card.value("fans").toString().endsWith("RPM"))
        << card.value("fans").toString().toStdString();
    EXPECT_TRUE(card.value("power").toString().endsWith(" W"));
    EXPECT_FALSE(card.value("buildVersionLabel").toString().isEmpty());
    QQuickItem* cpu = item("metric-cpu-temp");
    ASSERT_NE(cpu, nullptr);
    EXPECT_EQ(accessibleName(cpu), "CPU Temp");
}

TEST_F(DashboardControls, TheChartIsFedByTheTrendSection) {
    openDashboard();
    auto* chart = qobject_cast<FixedViewportTrendView*>(item("trend-chart-live"));
    ASSERT_NE(chart, nullptr);
    EXPECT_EQ(chart->model(), window()->trendModel());
    EXPECT_GT(chart->plotFrame().width(), 200);
    ASSERT_TRUE(waitFor([&] { return chart->host()->snapshot().has_value(); }));
}

TEST_F(DashboardControls, NotesAreTypedAndACaptureStartsAndStopsFromTheCard) {
    openDashboard();
    ASSERT_TRUE(waitFor([&] { return runtime->startupFinished(); }, 10000));
    click("capture-beta-notes");
    for (const char c : std::string("fan rattle")) QTest::keyClick(window(), c);
    EXPECT_EQ(capture()->betaCaptureNotes(), QStringLiteral("fan rattle"));

    click("capture-start-beta");
    ASSERT_TRUE(waitFor([&] { return capture()->profilingIsRunning(); }, 10000));
    EXPECT_EQ(capture()->captureActivityTintName(), QStringLiteral("orange"));
    EXPECT_TRUE(waitFor([&] { return !item("capture-start-beta")->isEnabled(); }));
    EXPECT_EQ(item("capture-beta-notes")->isEnabled(), !capture()->captureInteractionLocked());
    EXPECT_EQ(item("card-capture-primary")->property("accent").value<QColor>(),
              QColor(244, 134, 40))
        << "tinted while active";
    ASSERT_TRUE(
        waitFor([&] { return capture()->profilingElapsed() != QStringLiteral("00:00"); }, 10000));
    EXPECT_EQ(item("capture-elapsed")->property("text").toString(), capture()->profilingElapsed());

    click("capture-stop");
    ASSERT_TRUE(waitFor([&] { return capture()->lastPackagedExportPath().has_value(); }, 60000));
    EXPECT_TRUE(waitFor([&] { return item("capture-last-bundle")->isVisible(); }));
    EXPECT_TRUE(item("capture-last-bundle")->property("text").toString().contains(".kelvocapture"));
    EXPECT_FALSE(capture()->profilingIsRunning());
    EXPECT_TRUE(waitFor([&] { return item("capture-start-beta")->isEnabled(); }));
}

}  // namespace
}  // namespace kelvo::testing

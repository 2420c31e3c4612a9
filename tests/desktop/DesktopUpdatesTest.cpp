// The updater as the desktop application attaches it: the tray item's context menu and the
// dashboard top bar's way to the update settings.
#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>

#include "DesktopTestSupport.h"
#include "desktop/KelvoApp.h"

namespace kelvo::testing {
namespace {

class DesktopUpdates : public DesktopFixture {
protected:
    // The desktop application as `kelvo` builds it, with an updater that has no feed (nothing
    // leaves this machine).
    void launch() {
        startRuntime();
        UpdaterConfiguration configuration;
        configuration.displayVersion = QStringLiteral("0.1.0");
        configuration.buildVersion = QStringLiteral("1");
        configuration.settings = settings.get();
        app = std::make_unique<KelvoApp>(*runtime, *settings, configuration, [this] { ++quits; });
        app->didFinishLaunching();
        ASSERT_NE(dashboard(), nullptr);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(dashboard()));
    }
    void TearDown() override {
        app.reset();
        DesktopFixture::TearDown();
    }

    DashboardView* dashboard() const { return app->lifecycle().dashboardWindow(); }
    QQuickItem* dashboardItem(const QString& identifier) const {
        return findItem(dashboard()->contentItem(), identifier);
    }
    QAction* menuAction(const QString& text) const {
        for (QAction* action : app->lifecycle().statusItem()->contextMenu()->actions())
            if (action->text() == text) return action;
        return nullptr;
    }

    // The live metrics card can sit below the fold of a small window. Scrolls until the target
    // lies inside the window, however long the layout takes to settle.
    void scrollInto(QQuickItem* target) {
        QObject* flickable =
            dashboard()->rootObject()->findChild<QObject*>(QStringLiteral("dashboard-scroll"));
        ASSERT_NE(flickable, nullptr);
        ASSERT_TRUE(waitFor([&] {
            const double y = target->mapToItem(dashboard()->contentItem(), QPointF(0, 0)).y();
            if (y >= 0 && y + target->height() <= dashboard()->height()) return true;
            const double contentY = flickable->property("contentY").toDouble();
            flickable->setProperty("contentY", std::max(0.0, contentY + y - 20));
            return false;
        }));
    }

    std::unique_ptr<KelvoApp> app;
    int quits = 0;
};

}  // namespace

TEST_F(DesktopUpdates, TheTrayMenuOffersItsCommandsInOrder) {
    launch();
    QMenu* menu = app->lifecycle().statusItem()->contextMenu();
    ASSERT_NE(menu, nullptr);
    QStringList texts;
    for (QAction* action : menu->actions())
        if (!action->isSeparator()) texts << action->text();
    EXPECT_EQ(texts, (QStringList{QStringLiteral("Show Dashboard"), QStringLiteral("Fans…"),
                                  QStringLiteral("Cooling"), QStringLiteral("Check for Updates…"),
                                  QStringLiteral("Settings…"), QStringLiteral("Quit Kelvo")}));
}

TEST_F(DesktopUpdates, TheCoolingMenuNamesEveryModeChecksTheCurrentOneAndSwitches) {
    launch();
    QMenu* menu = app->lifecycle().statusItem()->contextMenu();
    ASSERT_NE(menu, nullptr);
    QMenu* cooling = nullptr;
    for (QAction* action : menu->actions())
        if (action->text() == QStringLiteral("Cooling")) cooling = action->menu();
    ASSERT_NE(cooling, nullptr);
    QStringList names;
    for (QAction* entry : cooling->actions()) {
        names << entry->text();
        EXPECT_TRUE(entry->isCheckable());
        EXPECT_TRUE(entry->toolTip().endsWith(QLatin1Char('.')) ||
                    entry->toolTip().endsWith(QStringLiteral(").")))
            << entry->toolTip().toStdString();
    }
    EXPECT_EQ(names, (QStringList{QStringLiteral("System"), QStringLiteral("Quiet"),
                                  QStringLiteral("Quiet Hybrid"), QStringLiteral("Performance")}));
    const auto checked = [cooling] {
        QStringList on;
        for (QAction* entry : cooling->actions())
            if (entry->isChecked()) on << entry->text();
        return on;
    };
    EXPECT_EQ(checked(), QStringList{QStringLiteral("System")});
    cooling->actions().at(3)->trigger();
    EXPECT_EQ(runtime->mode(), ControlMode::performance);
    EXPECT_EQ(checked(), QStringList{QStringLiteral("Performance")});
    // A change made elsewhere (the window, kelvoctl) moves the check.
    runtime->setMode(ControlMode::quiet);
    EXPECT_EQ(checked(), QStringList{QStringLiteral("Quiet")});
}

TEST_F(DesktopUpdates, ShowDashboardFromTheMenuBringsBackAClosedWindow) {
    launch();
    dashboard()->close();
    ASSERT_TRUE(waitFor([&] { return !dashboard()->isVisible(); }));
    QAction* show = menuAction(QStringLiteral("Show Dashboard"));
    ASSERT_NE(show, nullptr);
    show->trigger();
    EXPECT_TRUE(waitFor([&] { return dashboard()->isVisible(); }));
}

TEST_F(DesktopUpdates, FansFromTheMenuShowsTheDashboardWithTheFansPane) {
    launch();
    dashboard()->close();
    ASSERT_TRUE(waitFor([&] { return !dashboard()->isVisible(); }));
    QAction* fans = menuAction(QStringLiteral("Fans…"));
    ASSERT_NE(fans, nullptr);
    fans->trigger();
    EXPECT_TRUE(waitFor([&] { return dashboard()->isVisible(); }));
    EXPECT_TRUE(runtime->fanSettings()->paneOpen());
    QQuickItem* pane = dashboardItem(QStringLiteral("surface-fans"));
    ASSERT_NE(pane, nullptr);
    EXPECT_TRUE(pane->isVisible());
}

TEST_F(DesktopUpdates, QuitFromTheMenuReachesTheApplication) {
    launch();
    QAction* quit = menuAction(QStringLiteral("Quit Kelvo"));
    ASSERT_NE(quit, nullptr);
    quit->trigger();
    // Quitting destroys the menu, so it happens once the menu's signal has returned.
    EXPECT_EQ(quits, 0);
    EXPECT_TRUE(waitFor([&] { return quits == 1; }));
}

TEST_F(DesktopUpdates, WithoutAnUpdaterThereIsNoUpdateSettingsButton) {
    openDashboard();
    ASSERT_NE(item(QStringLiteral("build-update-settings")), nullptr);
    EXPECT_FALSE(item(QStringLiteral("build-update-settings"))->isVisible());
}

TEST_F(DesktopUpdates, TheButtonBesideTheVersionOpensTheUpdateSettings) {
    launch();
    QQuickItem* button = dashboardItem(QStringLiteral("build-update-settings"));
    ASSERT_NE(button, nullptr);
    ASSERT_TRUE(waitFor([&] { return button->isVisible(); }));
    EXPECT_EQ(accessibleName(button), QStringLiteral("Update Settings"));
    EXPECT_FALSE(app->updates().settingsView().isVisible());
    ASSERT_TRUE(waitFor([&] { return app->lifecycle().hasAppliedInitialWindowPlacement(); }));
    ASSERT_NO_FATAL_FAILURE(scrollInto(button));
    const QPointF centre = button->mapToScene(QPointF(button->width() / 2, button->height() / 2));
    QTest::mouseClick(dashboard(), Qt::LeftButton, Qt::NoModifier, centre.toPoint());
    EXPECT_TRUE(waitFor([&] { return app->updates().settingsView().isVisible(); }));
}

TEST_F(DesktopUpdates, SettingsFromTheMenuOpensTheSameWindow) {
    launch();
    QAction* settingsAction = menuAction(QStringLiteral("Settings…"));
    ASSERT_NE(settingsAction, nullptr);
    settingsAction->trigger();
    EXPECT_TRUE(waitFor([&] { return app->updates().settingsView().isVisible(); }));
}

}  // namespace kelvo::testing

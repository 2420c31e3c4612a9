// The updater as the desktop application attaches it: the tray item's context menu and the
// dashboard top bar's way to the update settings.
#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>

#include "DesktopTestSupport.h"
#include "app/shell/AppCommands.h"
#include "updates/ui/AppUpdaterController.h"

namespace kelvo::testing {
namespace {

class DesktopUpdates : public DesktopFixture {
protected:
    void attachUpdater() {
        UpdaterConfiguration configuration;  // no feed: nothing leaves this machine
        configuration.displayVersion = QStringLiteral("0.1.0");
        configuration.buildVersion = QStringLiteral("1");
        configuration.settings = settings.get();
        updates = std::make_unique<AppUpdaterController>(
            configuration,
            TrayMenuActions{[this] { controller->showDashboardWindow(); }, [this] { ++quits; }});
        controller->setStatusItemMenu(updates->trayMenu());
        commands = new AppCommands([this] { updates->settingsView().show(); }, updates.get());
        controller->setAppCommands(commands);
    }
    void TearDown() override {
        updates.reset();
        DesktopFixture::TearDown();
    }

    QAction* menuAction(const QString& text) const {
        for (QAction* action : controller->statusItem()->contextMenu()->actions())
            if (action->text() == text) return action;
        return nullptr;
    }

    std::unique_ptr<AppUpdaterController> updates;
    AppCommands* commands = nullptr;
    int quits = 0;
};

}  // namespace

TEST_F(DesktopUpdates, TheTrayMenuOffersFourCommandsInOrder) {
    openDashboard();
    attachUpdater();
    QMenu* menu = controller->statusItem()->contextMenu();
    ASSERT_NE(menu, nullptr);
    QStringList texts;
    for (QAction* action : menu->actions())
        if (!action->isSeparator()) texts << action->text();
    EXPECT_EQ(texts,
              (QStringList{QStringLiteral("Show Dashboard"), QStringLiteral("Check for Updates…"),
                           QStringLiteral("Settings…"), QStringLiteral("Quit Kelvo")}));
}

TEST_F(DesktopUpdates, ShowDashboardFromTheMenuBringsBackAClosedWindow) {
    openDashboard();
    attachUpdater();
    window()->close();
    ASSERT_TRUE(waitFor([&] { return !window()->isVisible(); }));
    QAction* show = menuAction(QStringLiteral("Show Dashboard"));
    ASSERT_NE(show, nullptr);
    show->trigger();
    EXPECT_TRUE(waitFor([&] { return window()->isVisible(); }));
}

TEST_F(DesktopUpdates, QuitFromTheMenuReachesTheApplication) {
    openDashboard();
    attachUpdater();
    QAction* quit = menuAction(QStringLiteral("Quit Kelvo"));
    ASSERT_NE(quit, nullptr);
    quit->trigger();
    EXPECT_EQ(quits, 1);
}

TEST_F(DesktopUpdates, TheTopBarOpensTheUpdateSettings) {
    openDashboard();
    EXPECT_FALSE(item(QStringLiteral("topbar-settings"))->isVisible());
    attachUpdater();
    ASSERT_TRUE(waitFor([&] { return item(QStringLiteral("topbar-settings"))->isVisible(); }));
    EXPECT_EQ(accessibleName(item(QStringLiteral("topbar-settings"))), QStringLiteral("Settings"));
    EXPECT_FALSE(updates->settingsView().isVisible());
    click(QStringLiteral("topbar-settings"));
    EXPECT_TRUE(waitFor([&] { return updates->settingsView().isVisible(); }));
}

TEST_F(DesktopUpdates, SettingsFromTheMenuOpensTheSameWindow) {
    openDashboard();
    attachUpdater();
    QAction* settingsAction = menuAction(QStringLiteral("Settings…"));
    ASSERT_NE(settingsAction, nullptr);
    settingsAction->trigger();
    EXPECT_TRUE(waitFor([&] { return updates->settingsView().isVisible(); }));
}

}  // namespace kelvo::testing

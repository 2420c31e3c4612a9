#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include <QMenu>
#include <QSignalSpy>
#include <QTest>

#include "UpdateTestRig.h"
#include "updates/ui/CheckForUpdatesView.h"
#include "updates/ui/TrayMenu.h"
#include "updates/ui/UpdaterSettingsView.h"

using kelvo::CheckForUpdatesView;
using kelvo::Updater;
using kelvo::test::LocalHttpServer;
using kelvo::test::UpdateTestRig;

TEST(CheckForUpdatesView, TheCommandIsDisabledWhileACheckRuns) {
    UpdateTestRig rig;
    LocalHttpServer server;
    rig.publish(server, {});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")),
                                      rig.installFile("installed")));
    CheckForUpdatesView view(updater);
    QAction* action = view.action();
    EXPECT_EQ(action->text(), QStringLiteral("Check for Updates\u2026"));
    EXPECT_TRUE(action->isEnabled());
    QSignalSpy done(&updater, &Updater::updateNotFound);
    action->trigger();
    EXPECT_FALSE(updater.canCheckForUpdates());
    // The view model follows on the event loop. The deadlines only matter when it never does;
    // the check may also end while the first wait still runs.
    EXPECT_TRUE(QTest::qWaitFor([&] { return !action->isEnabled(); }, 10000));
    ASSERT_TRUE(QTest::qWaitFor([&] { return done.count() == 1; }, 10000));
    EXPECT_TRUE(QTest::qWaitFor([&] { return action->isEnabled(); }, 10000));
    EXPECT_TRUE(view.viewModel().canCheckForUpdates());
    EXPECT_EQ(server.hits(QStringLiteral("/appcast.xml")), 1);
}

TEST(CheckForUpdatesView, WithoutAFeedTheCommandIsDisabled) {
    UpdateTestRig rig;
    Updater updater(rig.configuration(QUrl(), rig.installFile("installed")));
    CheckForUpdatesView view(updater);
    EXPECT_FALSE(view.action()->isEnabled());
}

TEST(TrayMenu, HasTheFiveCommandsInOrderAndRunsThem) {
    UpdateTestRig rig;
    Updater updater(rig.configuration(QUrl(QStringLiteral("http://127.0.0.1:9/a.xml")),
                                      rig.installFile("installed")));
    CheckForUpdatesView check(updater);
    kelvo::UpdaterSettingsView settings(updater);
    int shown = 0;
    int quit = 0;
    int fans = 0;
    int made = 0;
    auto menu = kelvo::makeTrayMenu({[&] { ++shown; }, [&] { ++quit; }, [&] { ++fans; }}, check,
                                    [&]() -> kelvo::UpdaterSettingsView& {
                                        ++made;
                                        return settings;
                                    });
    EXPECT_EQ(made, 0) << "the settings window is asked for only when it is shown";
    QStringList texts;
    QList<QAction*> commands;
    for (QAction* action : menu->actions()) {
        if (action->isSeparator()) continue;
        texts << action->text();
        commands << action;
    }
    EXPECT_EQ(texts, QStringList({QStringLiteral("Show Dashboard"), QStringLiteral("Fans\u2026"),
                                  QStringLiteral("Check for Updates\u2026"),
                                  QStringLiteral("Settings\u2026"), QStringLiteral("Quit Kelvo")}));
    ASSERT_EQ(commands.size(), 5);
    EXPECT_EQ(commands[2], check.action());
    commands[0]->trigger();
    EXPECT_EQ(shown, 1);
    EXPECT_FALSE(settings.isVisible());
    EXPECT_EQ(fans, 0);
    commands[1]->trigger();
    EXPECT_EQ(fans, 1);
    commands[3]->trigger();
    EXPECT_EQ(made, 1);
    EXPECT_TRUE(settings.isVisible());
    EXPECT_EQ(quit, 0);
    commands[4]->trigger();
    EXPECT_EQ(quit, 1);
}

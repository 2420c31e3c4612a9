#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include "UpdateTestRig.h"
#include "updates/ui/AppUpdaterController.h"

using kelvo::test::UpdateTestRig;

TEST(AppUpdaterController, StartsTheUpdaterAndWiresTheMenuToIt) {
    UpdateTestRig rig;
    int shown = 0;
    kelvo::AppUpdaterController controller(
        rig.configuration(QUrl(QStringLiteral("http://127.0.0.1:9/appcast.xml")),
                          rig.installFile("installed")),
        {[&] { ++shown; }, [] {}, [] {}});
    EXPECT_TRUE(controller.updater().nextScheduledCheck().isValid());
    ASSERT_NE(controller.trayMenu(), nullptr);
    const auto actions = controller.trayMenu()->actions();
    EXPECT_TRUE(actions.contains(controller.checkForUpdatesView().action()));
    actions.front()->trigger();
    EXPECT_EQ(shown, 1);
    // The settings window works on the same updater.
    controller.settingsView().automaticCheckToggle()->setChecked(false);
    EXPECT_FALSE(controller.updater().automaticallyChecksForUpdates());
    EXPECT_FALSE(controller.updater().nextScheduledCheck().isValid());
}

#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include <QAbstractButton>
#include <QSignalSpy>
#include <QTest>

#include "UpdateTestRig.h"
#include "updates/ui/UpdateUserDriver.h"

using kelvo::AppUpdaterControllerDelegate;
using kelvo::Updater;
using kelvo::UpdateUserDriver;
using kelvo::test::FeedItem;
using kelvo::test::LocalHttpServer;
using kelvo::test::UpdateTestRig;

namespace {

QAbstractButton* buttonNamed(QMessageBox* box, const QString& text) {
    for (QAbstractButton* button : box->buttons())
        if (button->text() == text) return button;
    return nullptr;
}

// A feed that offers nothing newer than the installed build, and the driver showing its outcome.
class UpdateUserDriverWithEmptyFeed : public ::testing::Test {
protected:
    UpdateUserDriverWithEmptyFeed() { rig.publish(server, {}); }

    UpdateTestRig rig;
    LocalHttpServer server;
    Updater updater{rig.configuration(server.url(QStringLiteral("/appcast.xml")),
                                      rig.installFile("installed"))};
    AppUpdaterControllerDelegate delegate;
    UpdateUserDriver driver{updater, delegate};
};

}  // namespace

TEST(UpdateUserDriver, TheOfferShowsBothVersionsWithTheirBuildsAndInstalls) {
    UpdateTestRig rig;
    LocalHttpServer server;
    rig.publish(server, {FeedItem{QStringLiteral("12"),
                                  QStringLiteral("0.2.0"),
                                  QStringLiteral("/k.AppImage"),
                                  "new build",
                                  {},
                                  {},
                                  -1}});
    const QString target = rig.installFile("installed");
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    AppUpdaterControllerDelegate delegate;
    UpdateUserDriver driver(updater, delegate);
    updater.checkForUpdates();
    ASSERT_TRUE(QTest::qWaitFor([&] { return driver.currentDialog() != nullptr; }, 10000));
    QMessageBox* offer = driver.currentDialog();
    EXPECT_TRUE(offer->text().contains(
        QStringLiteral("Kelvo 0.2.0 (12) is available. You have 0.1.0 (10).")))
        << offer->text().toStdString();
    EXPECT_TRUE(
        offer->informativeText().contains(QStringLiteral("https://kelvo.invalid/notes/12.html")));
    QAbstractButton* install = buttonNamed(offer, QStringLiteral("Install Update"));
    ASSERT_NE(install, nullptr);
    ASSERT_NE(buttonNamed(offer, QStringLiteral("Later")), nullptr);
    QSignalSpy installed(&updater, &Updater::updateInstalled);
    install->click();
    ASSERT_TRUE(installed.wait(10000));
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("new build"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return driver.currentDialog() != nullptr; }, 10000));
    EXPECT_TRUE(driver.currentDialog()->text().contains(
        QStringLiteral("Kelvo 0.2.0 (12) has been installed")))
        << driver.currentDialog()->text().toStdString();
    driver.currentDialog()->close();
}

TEST_F(UpdateUserDriverWithEmptyFeed, UpToDateAndFailuresOfTheUsersCheckAreShown) {
    QSignalSpy notFound(&updater, &Updater::updateNotFound);
    updater.checkForUpdates();
    ASSERT_TRUE(notFound.wait(10000));
    ASSERT_NE(driver.currentDialog(), nullptr);
    EXPECT_TRUE(driver.currentDialog()->text().contains(
        QStringLiteral("Kelvo 0.1.0 (10) is currently the newest version available.")))
        << driver.currentDialog()->text().toStdString();
    driver.currentDialog()->close();
    QTest::qWait(10);

    server.serve(QStringLiteral("/appcast.xml"), {404, "gone", -1});
    QSignalSpy failed(&updater, &Updater::updateFailed);
    updater.checkForUpdates();
    ASSERT_TRUE(failed.wait(10000));
    ASSERT_NE(driver.currentDialog(), nullptr);
    EXPECT_TRUE(driver.currentDialog()->text().contains(QStringLiteral("HTTP 404")))
        << driver.currentDialog()->text().toStdString();
    driver.currentDialog()->close();
}

TEST_F(UpdateUserDriverWithEmptyFeed, AScheduledCheckThatFindsNothingStaysQuiet) {
    QSignalSpy notFound(&updater, &Updater::updateNotFound);
    updater.checkForUpdatesInBackground();
    ASSERT_TRUE(notFound.wait(10000));
    EXPECT_EQ(driver.currentDialog(), nullptr);
}

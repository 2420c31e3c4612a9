#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include <QGroupBox>
#include <QSignalSpy>
#include <QTest>

#include "UpdateTestRig.h"
#include "updates/ui/UpdaterSettingsView.h"

using kelvo::UpdateCheckIntervalOption;
using kelvo::Updater;
using kelvo::UpdaterSettingsView;
using kelvo::test::UpdateTestRig;

namespace {

class UpdaterSettingsViewTest : public ::testing::Test {
protected:
    std::unique_ptr<Updater> makeUpdater(bool withKey = true) {
        auto configuration = rig.configuration(
            QUrl(QStringLiteral("http://127.0.0.1:9/appcast.xml")), rig.installFile("installed"));
        if (!withKey) configuration.publicKey.clear();
        return std::make_unique<Updater>(configuration);
    }

    UpdateTestRig rig;
};

}  // namespace

TEST_F(UpdaterSettingsViewTest, ShowsTheUpdatesSectionInOrder) {
    auto updater = makeUpdater();
    UpdaterSettingsView view(*updater);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    EXPECT_EQ(view.width(), 420);
    const auto* section = view.findChild<QGroupBox*>();
    ASSERT_NE(section, nullptr);
    EXPECT_EQ(section->title(), QStringLiteral("Updates"));
    EXPECT_EQ(view.automaticCheckToggle()->text(),
              QStringLiteral("Automatically check for updates"));
    EXPECT_EQ(view.automaticDownloadToggle()->text(),
              QStringLiteral("Automatically download and install updates"));
    EXPECT_EQ(view.checkNowButton()->text(), QStringLiteral("Check for Updates Now"));
    QStringList labels;
    for (int i = 0; i < view.frequencyPicker()->count(); ++i)
        labels << view.frequencyPicker()->itemText(i);
    EXPECT_EQ(labels, QStringList({QStringLiteral("Hourly"), QStringLiteral("Daily"),
                                   QStringLiteral("Weekly"), QStringLiteral("Monthly")}));
    EXPECT_TRUE(view.footnote()->text().startsWith(
        QStringLiteral("Kelvo keeps using the existing beta installer for first-time installs")));
    // Top to bottom as listed.
    const int toggleY = view.automaticCheckToggle()->mapTo(&view, QPoint()).y();
    const int pickerY = view.frequencyPicker()->mapTo(&view, QPoint()).y();
    const int downloadY = view.automaticDownloadToggle()->mapTo(&view, QPoint()).y();
    const int buttonY = view.checkNowButton()->mapTo(&view, QPoint()).y();
    const int footY = view.footnote()->mapTo(&view, QPoint()).y();
    EXPECT_LT(toggleY, pickerY);
    EXPECT_LT(pickerY, downloadY);
    EXPECT_LT(downloadY, buttonY);
    EXPECT_LT(buttonY, footY);
}

TEST_F(UpdaterSettingsViewTest, StateStartsFromTheUpdaterWithTheClosestInterval) {
    auto updater = makeUpdater();
    updater->setUpdateCheckInterval(43200);
    updater->setAutomaticallyDownloadsUpdates(true);
    UpdaterSettingsView view(*updater);
    EXPECT_TRUE(view.automaticallyChecksForUpdates());
    EXPECT_TRUE(view.automaticallyDownloadsUpdates());
    EXPECT_EQ(view.selectedCheckInterval(), UpdateCheckIntervalOption::hourly);
    EXPECT_EQ(view.frequencyPicker()->currentText(), QStringLiteral("Hourly"));
    updater->setUpdateCheckInterval(2000000);
    UpdaterSettingsView monthly(*updater);
    EXPECT_EQ(monthly.selectedCheckInterval(), UpdateCheckIntervalOption::monthly);
}

TEST_F(UpdaterSettingsViewTest, WithAutomaticCheckingOffPickerAndDownloadToggleAreDisabled) {
    auto updater = makeUpdater();
    updater->setAutomaticallyDownloadsUpdates(true);
    UpdaterSettingsView view(*updater);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    EXPECT_TRUE(view.frequencyPicker()->isEnabled());
    EXPECT_TRUE(view.automaticDownloadToggle()->isEnabled());
    QTest::mouseClick(view.automaticCheckToggle(), Qt::LeftButton);
    EXPECT_FALSE(updater->automaticallyChecksForUpdates());
    EXPECT_FALSE(view.frequencyPicker()->isEnabled());
    EXPECT_FALSE(view.automaticDownloadToggle()->isEnabled());
    EXPECT_TRUE(view.automaticDownloadToggle()->isChecked()) << "the value itself is kept";
    // Whatever their values: a fresh view with checks off starts disabled too.
    updater->setAutomaticallyDownloadsUpdates(false);
    UpdaterSettingsView fresh(*updater);
    EXPECT_FALSE(fresh.frequencyPicker()->isEnabled());
    EXPECT_FALSE(fresh.automaticDownloadToggle()->isEnabled());
    QTest::mouseClick(view.automaticCheckToggle(), Qt::LeftButton);
    EXPECT_TRUE(view.frequencyPicker()->isEnabled());
}

TEST_F(UpdaterSettingsViewTest, TheDownloadToggleIsDisabledWhenUpdatesCannotBeVerified) {
    auto updater = makeUpdater(false);
    UpdaterSettingsView view(*updater);
    EXPECT_TRUE(view.frequencyPicker()->isEnabled());
    EXPECT_FALSE(view.automaticDownloadToggle()->isEnabled());
}

TEST_F(UpdaterSettingsViewTest, ChangesAreWrittenToTheUpdater) {
    auto updater = makeUpdater();
    UpdaterSettingsView view(*updater);
    view.frequencyPicker()->setCurrentIndex(2);
    EXPECT_EQ(updater->updateCheckInterval(), 604800);
    EXPECT_EQ(view.selectedCheckInterval(), UpdateCheckIntervalOption::weekly);
    view.automaticDownloadToggle()->setChecked(true);
    EXPECT_TRUE(updater->automaticallyDownloadsUpdates());
    EXPECT_EQ(rig.settings->value(QString::fromLatin1(Updater::kCheckIntervalKey)).toDouble(),
              604800);
}

TEST_F(UpdaterSettingsViewTest, WithoutAFeedEveryControlIsDisabledAndTheNoticeSaysWhy) {
    auto configuration = rig.configuration(QUrl(), rig.installFile("installed"));
    Updater updater(configuration);
    UpdaterSettingsView view(updater);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    EXPECT_FALSE(view.checkNowButton()->isEnabled());
    EXPECT_FALSE(view.automaticCheckToggle()->isEnabled());
    EXPECT_FALSE(view.frequencyPicker()->isEnabled());
    EXPECT_FALSE(view.automaticDownloadToggle()->isEnabled());
    ASSERT_TRUE(view.noFeedNotice()->isVisible());
    EXPECT_TRUE(view.noFeedNotice()->text().contains(QStringLiteral("no update feed")));
    EXPECT_TRUE(view.noFeedNotice()->text().contains(QStringLiteral("package manager")));
}

TEST_F(UpdaterSettingsViewTest, WithAFeedTheNoticeIsHiddenAndCheckNowIsOffered) {
    auto updater = makeUpdater();
    UpdaterSettingsView view(*updater);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    EXPECT_FALSE(view.noFeedNotice()->isVisible());
    EXPECT_TRUE(view.checkNowButton()->isEnabled());
}

TEST_F(UpdaterSettingsViewTest, CheckNowStartsACheck) {
    auto updater = makeUpdater();
    UpdaterSettingsView view(*updater);
    QSignalSpy canCheck(updater.get(), &Updater::canCheckForUpdatesChanged);
    view.checkNowButton()->click();
    ASSERT_FALSE(canCheck.isEmpty());
    EXPECT_FALSE(canCheck.front().at(0).toBool());
    updater->cancel();
}

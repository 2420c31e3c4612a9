#include "app/AppPresentationStore.h"

#include <gtest/gtest.h>
#include <QDir>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <memory>

#include "tests/QtTestPrinters.h"

namespace kelvo {
namespace {

constexpr const char* kSelectionKey = "kelvo.presentation.surface_selection";
constexpr const char* kModeKey = "kelvo.presentation.surface_mode";

class AppPresentationStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(temp_.isValid());
        path_ = QDir(temp_.path()).filePath(QStringLiteral("Kelvo.ini"));
        settings_ = std::make_unique<QSettings>(path_, QSettings::IniFormat);
    }
    // What another process (the next launch) would read from disk.
    QVariant onDisk(const char* key) const {
        QSettings reread(path_, QSettings::IniFormat);
        return reread.value(QString::fromLatin1(key));
    }

    QTemporaryDir temp_;
    QString path_;
    std::unique_ptr<QSettings> settings_;
};

TEST_F(AppPresentationStoreTest, FreshInstallSelectsDashboardAndWritesBothKeys) {
    AppPresentationStore store(settings_.get());
    EXPECT_EQ(store.selectedSurface(), AppSurfaceSelection::dashboard);
    EXPECT_EQ(onDisk(kSelectionKey).toString(), QStringLiteral("dashboard"));
    EXPECT_EQ(onDisk(kModeKey).toString(), QStringLiteral("standard"));
}

TEST_F(AppPresentationStoreTest, OldAdvancedModeMigratesToAdvancedSelection) {
    settings_->setValue(kModeKey, QStringLiteral("advanced"));
    AppPresentationStore store(settings_.get());
    EXPECT_EQ(store.selectedSurface(), AppSurfaceSelection::advanced);
    EXPECT_EQ(onDisk(kSelectionKey).toString(), QStringLiteral("advanced"));
    EXPECT_EQ(onDisk(kModeKey).toString(), QStringLiteral("advanced"));
}

TEST_F(AppPresentationStoreTest, OldStandardModeNeverMeansCapture) {
    settings_->setValue(kModeKey, QStringLiteral("standard"));
    AppPresentationStore store(settings_.get());
    EXPECT_EQ(store.selectedSurface(), AppSurfaceSelection::dashboard);
    EXPECT_EQ(onDisk(kSelectionKey).toString(), QStringLiteral("dashboard"));
}

TEST_F(AppPresentationStoreTest, CaptureSelectionRewritesOldAdvancedModeToStandard) {
    settings_->setValue(kSelectionKey, QStringLiteral("capture"));
    settings_->setValue(kModeKey, QStringLiteral("advanced"));
    AppPresentationStore store(settings_.get());
    EXPECT_EQ(store.selectedSurface(), AppSurfaceSelection::capture);
    EXPECT_EQ(onDisk(kSelectionKey).toString(), QStringLiteral("capture"));
    EXPECT_EQ(onDisk(kModeKey).toString(), QStringLiteral("standard"));
}

TEST_F(AppPresentationStoreTest, UnknownSelectionWordFallsBackToOldKey) {
    settings_->setValue(kSelectionKey, QStringLiteral("expert"));
    settings_->setValue(kModeKey, QStringLiteral("advanced"));
    AppPresentationStore store(settings_.get());
    EXPECT_EQ(store.selectedSurface(), AppSurfaceSelection::advanced);
    EXPECT_EQ(onDisk(kSelectionKey).toString(), QStringLiteral("advanced"));
}

TEST_F(AppPresentationStoreTest, UnknownSelectionAndUnknownOldModeGiveDashboard) {
    settings_->setValue(kSelectionKey, QStringLiteral("Capture"));  // raw values are exact
    settings_->setValue(kModeKey, QStringLiteral("pro"));
    AppPresentationStore store(settings_.get());
    EXPECT_EQ(store.selectedSurface(), AppSurfaceSelection::dashboard);
    EXPECT_EQ(onDisk(kSelectionKey).toString(), QStringLiteral("dashboard"));
    EXPECT_EQ(onDisk(kModeKey).toString(), QStringLiteral("standard"));
}

TEST_F(AppPresentationStoreTest, WritingSelectionPersistsBothKeysAndNotifiesOnChangeOnly) {
    AppPresentationStore store(settings_.get());
    QSignalSpy changed(&store, &AppPresentationStore::selectedSurfaceChanged);

    store.setSelectedSurface(AppSurfaceSelection::advanced);
    EXPECT_EQ(changed.count(), 1);
    EXPECT_EQ(onDisk(kSelectionKey).toString(), QStringLiteral("advanced"));
    EXPECT_EQ(onDisk(kModeKey).toString(), QStringLiteral("advanced"));

    store.setSelectedSurface(AppSurfaceSelection::advanced);
    EXPECT_EQ(changed.count(), 1);

    store.setSelectedSurface(AppSurfaceSelection::capture);
    EXPECT_EQ(changed.count(), 2);
    EXPECT_EQ(onDisk(kSelectionKey).toString(), QStringLiteral("capture"));
    EXPECT_EQ(onDisk(kModeKey).toString(), QStringLiteral("standard"));
}

TEST_F(AppPresentationStoreTest, SelectionSurvivesRelaunch) {
    {
        AppPresentationStore store(settings_.get());
        store.setSelectedSurface(AppSurfaceSelection::capture);
    }
    QSettings nextLaunch(path_, QSettings::IniFormat);
    AppPresentationStore store(&nextLaunch);
    EXPECT_EQ(store.selectedSurface(), AppSurfaceSelection::capture);
}

TEST_F(AppPresentationStoreTest, SelectionIsAPropertyWithNotification) {
    AppPresentationStore store(settings_.get());
    QSignalSpy changed(&store, &AppPresentationStore::selectedSurfaceChanged);
    ASSERT_TRUE(
        store.setProperty("selectedSurface", QVariant::fromValue(AppSurfaceSelection::capture)));
    EXPECT_EQ(store.selectedSurface(), AppSurfaceSelection::capture);
    EXPECT_EQ(changed.count(), 1);
    EXPECT_EQ(store.property("selectedSurface").value<AppSurfaceSelection>(),
              AppSurfaceSelection::capture);
}

TEST_F(AppPresentationStoreTest, WindowVisibilityStartsVisibleIsNotPersistedAndNotifiesOnChange) {
    AppPresentationStore store(settings_.get());
    EXPECT_EQ(store.dashboardWindowVisibility(), DashboardWindowVisibility::visible);
    QSignalSpy changed(&store, &AppPresentationStore::dashboardWindowVisibilityChanged);

    store.setDashboardWindowVisibility(DashboardWindowVisibility::minimized);
    store.setDashboardWindowVisibility(DashboardWindowVisibility::minimized);
    store.setDashboardWindowVisibility(DashboardWindowVisibility::hidden);
    EXPECT_EQ(changed.count(), 2);
    EXPECT_EQ(store.dashboardWindowVisibility(), DashboardWindowVisibility::hidden);

    QSettings reread(path_, QSettings::IniFormat);
    EXPECT_EQ(reread.allKeys().size(), 2);
    QSettings nextLaunch(path_, QSettings::IniFormat);
    AppPresentationStore relaunched(&nextLaunch);
    EXPECT_EQ(relaunched.dashboardWindowVisibility(), DashboardWindowVisibility::visible);
}

TEST(PresentationEnumsTest, RawValuesRoundTripInCaseOrder) {
    QStringList selections;
    for (auto selection : presentation::kAllAppSurfaceSelections) {
        selections << presentation::rawValue(selection);
        EXPECT_EQ(presentation::appSurfaceSelectionFromRaw(presentation::rawValue(selection)),
                  selection);
    }
    EXPECT_EQ(selections, QStringList({"dashboard", "advanced", "capture"}));

    QStringList visibilities;
    for (auto visibility : presentation::kAllDashboardWindowVisibilities) {
        visibilities << presentation::rawValue(visibility);
        EXPECT_EQ(
            presentation::dashboardWindowVisibilityFromRaw(presentation::rawValue(visibility)),
            visibility);
    }
    EXPECT_EQ(visibilities, QStringList({"visible", "hidden", "minimized", "offscreen"}));

    EXPECT_EQ(presentation::rawValue(AppSurfaceMode::standard), QStringLiteral("standard"));
    EXPECT_EQ(presentation::rawValue(AppSurfaceMode::advanced), QStringLiteral("advanced"));
    EXPECT_EQ(presentation::appSurfaceModeFromRaw(QStringLiteral("advanced")),
              AppSurfaceMode::advanced);
    EXPECT_EQ(presentation::appSurfaceSelectionFromRaw(QStringLiteral("standard")), std::nullopt);
}

}  // namespace
}  // namespace kelvo

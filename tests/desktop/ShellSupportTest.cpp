#include <gtest/gtest.h>

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include "desktop/AccessibilitySlug.h"
#include "desktop/AppLifecycleController.h"
#include "desktop/AutostartEntry.h"
#include "desktop/DashboardLayout.h"
#include "desktop/DashboardViewModel.h"
#include "desktop/KelvoIcon.h"

namespace kelvo {
namespace {

TEST(AccessibilitySlug, JoinsLetterAndDigitRunsLowerCased) {
    EXPECT_EQ(accessibilitySlug(QStringLiteral("GPU Clock")), QStringLiteral("gpu-clock"));
    EXPECT_EQ(accessibilitySlug(QStringLiteral("  Fan  Speed!")), QStringLiteral("fan-speed"));
    EXPECT_EQ(accessibilitySlug(QStringLiteral("CPU2/Temp (°C)")), QStringLiteral("cpu2-temp-c"));
    EXPECT_EQ(accessibilitySlug(QStringLiteral("--")), QString());
}

TEST(DashboardPublicMode, SystemAutoIsSystemEveryOtherModeIsEnhanced) {
    EXPECT_EQ(publicModeFor(ControlMode::systemAuto), DashboardPublicMode::system);
    EXPECT_EQ(publicModeFor(ControlMode::quiet), DashboardPublicMode::enhanced);
    EXPECT_EQ(publicModeFor(ControlMode::quietHybrid), DashboardPublicMode::enhanced);
    EXPECT_EQ(publicModeFor(ControlMode::performance), DashboardPublicMode::enhanced);
    EXPECT_EQ(controlModeFor(DashboardPublicMode::system), ControlMode::systemAuto);
    EXPECT_EQ(controlModeFor(DashboardPublicMode::enhanced), ControlMode::quietHybrid);
    EXPECT_EQ(rawValue(DashboardPublicMode::enhanced), QStringLiteral("enhanced"));
}

TEST(DashboardBenefitText, EachCountHasItsNounInTheRightNumber) {
    RuntimeBenefitSummary one;
    one.kelvoAuthoritySeconds = 720;
    one.interventionCount = 1;
    one.throttleWarningAvoidedSeconds = 660;
    one.throttleWarningEventCount = 1;
    one.fallbackEventCount = 1;
    EXPECT_EQ(DashboardViewModel::benefitText(one),
              QStringLiteral("Last 24 Hours: Kelvo in charge 12 min in 1 intervention; 11 min "
                             "without throttle warnings; 1 throttle event, 1 fallback."));
    RuntimeBenefitSummary many = one;
    many.interventionCount = 2;
    many.throttleWarningEventCount = 0;
    many.fallbackEventCount = 3;
    EXPECT_EQ(DashboardViewModel::benefitText(many),
              QStringLiteral("Last 24 Hours: Kelvo in charge 12 min in 2 interventions; 11 min "
                             "without throttle warnings; 0 throttle events, 3 fallbacks."));
}

TEST(DashboardLayout, MinimumWidthHoldsTheTopBarsControlsAndSlack) {
    EXPECT_EQ(dashboard_layout::minimumContentWidth, 20 + 286 + 12 + 318 + 28 + 20);
    const QVariantMap map = dashboard_layout::dashboardLayoutMap();
    EXPECT_EQ(map.value(QStringLiteral("trendChartYDomainMax")).toDouble(), 105);
    EXPECT_EQ(map.value(QStringLiteral("utilitySurfacePickerWidth")).toDouble(), 318);
    EXPECT_EQ(map.size(), 25);
}

TEST(LegacyWindowDefaults, OnlyKeysWithTheOldFramePrefixesAreRemoved) {
    QTemporaryDir dir;
    QSettings settings(dir.filePath(QStringLiteral("s.ini")), QSettings::IniFormat);
    settings.setValue(QStringLiteral("NSWindow Frame dashboard-AppWindow-1"), "a");
    settings.setValue(
        QStringLiteral("NSWindow Frame SwiftUI.ModifiedContent<Kelvo.DashboardView, X>"), "b");
    settings.setValue(QStringLiteral("NSWindow Frame Kelvo.dashboardWindow"), "c");
    settings.setValue(QStringLiteral("kelvo.dashboard.window.content_width"), 900.0);
    settings.setValue(QStringLiteral("NSWindow Frame Other"), "kept");
    AppLifecycleController::clearLegacyWindowFrameDefaults(settings);
    EXPECT_EQ(settings.allKeys().size(), 2) << settings.allKeys().join(',').toStdString();
    EXPECT_TRUE(settings.contains(QStringLiteral("kelvo.dashboard.window.content_width")));
    EXPECT_TRUE(settings.contains(QStringLiteral("NSWindow Frame Other")));
}

TEST(AutostartEntry, WritesALaunchEntryAndRemovesIt) {
    QTemporaryDir dir;
    qputenv("XDG_CONFIG_HOME", dir.path().toUtf8());
    EXPECT_FALSE(isAutostartEnabled());
    ASSERT_TRUE(setAutostartEnabled(true, QStringLiteral("/opt/my apps/kelvo")));
    EXPECT_TRUE(isAutostartEnabled());
    EXPECT_EQ(autostartEntryPath(), dir.filePath(QStringLiteral("autostart/kelvo.desktop")));
    QFile file(autostartEntryPath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(file.readAll());
    EXPECT_TRUE(text.startsWith(QStringLiteral("[Desktop Entry]\n")));
    EXPECT_TRUE(text.contains(QStringLiteral("Exec=\"/opt/my apps/kelvo\"\n")));
    ASSERT_TRUE(setAutostartEnabled(false, QString()));
    EXPECT_FALSE(isAutostartEnabled());
}

TEST(KelvoIcon, TheTrayImageIsTheApplicationIconAt18Pixels) {
    const QIcon app = kelvoApplicationIcon();
    ASSERT_FALSE(app.isNull());
    const QImage big = app.pixmap(QSize(256, 256)).toImage();
    EXPECT_EQ(big.size(), QSize(256, 256));
    const QImage tray = kelvoTrayIcon().pixmap(QSize(18, 18)).toImage();
    ASSERT_EQ(tray.size(), QSize(18, 18));
    // Drawn, in colour: the centre of the rounded square is not transparent and not grey.
    const QColor corner = tray.pixelColor(9, 3);
    EXPECT_GT(corner.alpha(), 200);
    EXPECT_GT(corner.blue(), corner.red() + 40);
}

}  // namespace
}  // namespace kelvo

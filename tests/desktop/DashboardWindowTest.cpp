#include <QFile>
#include <QGuiApplication>
#include <QScreen>
#include <QSignalSpy>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <cmath>

#include "DesktopTestSupport.h"
#include "desktop/DashboardLayout.h"
#include "desktop/DashboardViewModel.h"
#include "desktop/ReopenBridge.h"
#include "live/LiveDashboardStore.h"

namespace kelvo::testing {
namespace {

using Visibility = DashboardWindowVisibility;

class DashboardWindow : public DesktopFixture {
protected:
    Visibility visibility() const { return runtime->presentation()->dashboardWindowVisibility(); }
    QRect screenArea() const { return QGuiApplication::primaryScreen()->availableGeometry(); }
};

TEST_F(DashboardWindow, OpensOneWindowTitledKelvoWithTheContentsMinimumWidth) {
    openDashboard();
    EXPECT_EQ(window()->title(), QStringLiteral("Kelvo"));
    const double contentMinimum =
        window()->rootObject()->property("minimumContentWidth").toDouble();
    EXPECT_GE(contentMinimum, dashboard_layout::minimumContentWidth);
    EXPECT_EQ(window()->minimumWidth(),
              std::min(static_cast<int>(std::ceil(contentMinimum)), screenArea().width()));
    EXPECT_GE(window()->width(), window()->minimumWidth());
    EXPECT_TRUE(controller->hasAppliedInitialWindowPlacement());
    EXPECT_FALSE(controller->pendingShowRequest());
    ASSERT_TRUE(waitFor([&] { return visibility() == Visibility::visible; }));
    // Showing again reuses the same window.
    DashboardView* first = window();
    controller->showDashboardWindow();
    EXPECT_EQ(window(), first);
}

// A QML module the package failed to bring: the window cannot load, and the user is told why
// and what to install, while the loop keeps running.
TEST_F(DashboardWindow, AMissingQmlModuleIsReportedWithThePackageThatBringsIt) {
    QTemporaryDir qml;
    ASSERT_TRUE(qml.isValid());
    const QString broken = qml.filePath(QStringLiteral("Broken.qml"));
    {
        QFile file(broken);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("import QtQuick\nimport QtQml.NotThere\nItem {}\n");
    }
    startRuntime();
    QStringList notified;
    runtime->notifications()->setObserver([&notified](const QString& title, const QString& body) {
        notified << title + " | " + body;
    });
    controller = std::make_unique<AppLifecycleController>(settings.get());
    controller->configure(runtime.get());
    controller->setDashboardSource(QUrl::fromLocalFile(broken));
    controller->showDashboardWindow();
    const QString expected = QStringLiteral(
        "The dashboard window cannot open: module \"QtQml.NotThere\" is not installed. Install it "
        "with: sudo apt install qml6-module-qtqml-notthere.");
    EXPECT_EQ(controller->dashboardLoadProblem(), expected);
    const auto anyWindowShown = [] {
        for (const QWindow* shown : QGuiApplication::topLevelWindows())
            if (shown->isVisible()) return true;
        return false;
    };
    EXPECT_FALSE(anyWindowShown());
    EXPECT_FALSE(controller->pendingShowRequest());
    ASSERT_EQ(notified.size(), 1);
    EXPECT_EQ(notified.first(), QStringLiteral("Kelvo's window cannot open | ") + expected);
    const auto failures = [&] {
        int count = 0;
        for (const RuntimeEvent& event : runtime->eventRing().recent(200))
            if (event.isFailure && event.message == expected.toStdString()) ++count;
        return count;
    };
    EXPECT_EQ(failures(), 1);
    // Asking again tells again, without a second entry in the event list.
    controller->showDashboardWindow();
    EXPECT_EQ(notified.size(), 2);
    EXPECT_EQ(failures(), 1);
    EXPECT_FALSE(anyWindowShown());
}

TEST(DashboardLoadErrors, AnyOtherErrorIsGivenAsItStands) {
    QQmlError error;
    error.setDescription(QStringLiteral("Expected token `}'"));
    EXPECT_EQ(DashboardView::describeLoadErrors({error}),
              QStringLiteral("The dashboard window cannot open: Expected token `}'."));
    EXPECT_EQ(DashboardView::describeLoadErrors({}),
              QStringLiteral("The dashboard window cannot open."));
}

TEST_F(DashboardWindow, TheTrayItemSaysKelvoAndShowsAnImage) {
    openDashboard();
    ASSERT_NE(controller->statusItem(), nullptr);
    EXPECT_EQ(controller->statusItem()->toolTip(), QStringLiteral("Kelvo"));
    EXPECT_FALSE(controller->statusItem()->icon().isNull());
    EXPECT_EQ(controller->statusItem()->contextMenu(), nullptr);
    controller->installStatusItem();  // once only
    EXPECT_EQ(controller->findChildren<QSystemTrayIcon*>().size(), 1);
}

TEST_F(DashboardWindow, ClosingHidesTheWindowSetsHiddenAndTheProcessKeepsRunning) {
    openDashboard();
    ASSERT_TRUE(waitFor([&] { return visibility() == Visibility::visible; }));
    QSignalSpy lastClosed(qApp, &QGuiApplication::lastWindowClosed);
    EXPECT_FALSE(window()->close()) << "the close is refused: the window is only hidden";
    EXPECT_FALSE(window()->isVisible());
    EXPECT_EQ(visibility(), Visibility::hidden);
    EXPECT_NE(window(), nullptr) << "the window is kept for the next show";
    processFor(100);
    EXPECT_EQ(lastClosed.count(), 0);
    EXPECT_FALSE(runtime->live()->dashboardIsUserVisible());
}

TEST_F(DashboardWindow, WhileHiddenTheLiveStoreBuffersAndTheViewStaysStill) {
    openDashboard();
    ASSERT_TRUE(waitFor([&] { return runtime->live()->sampleHistory().size() >= 4; }));
    window()->close();
    ASSERT_EQ(visibility(), Visibility::hidden);
    const auto shown = runtime->live()->sampleHistory().size();
    const auto refreshes = window()->viewModel()->refreshCount();
    ASSERT_TRUE(
        waitFor([&] { return runtime->live()->bufferedSampleHistory().size() > shown + 4; }));
    EXPECT_EQ(runtime->live()->sampleHistory().size(), shown) << "published history frozen";
    EXPECT_EQ(window()->viewModel()->refreshCount(), refreshes) << "no view updates while hidden";

    controller->showDashboardWindow();
    ASSERT_TRUE(waitFor([&] { return visibility() == Visibility::visible; }));
    EXPECT_GT(runtime->live()->sampleHistory().size(), shown + 4) << "buffers published on show";
    EXPECT_TRUE(waitFor([&] { return window()->viewModel()->refreshCount() > refreshes; }));
}

TEST_F(DashboardWindow, ClickingTheTrayItemWhileMinimizedRestoresAndFocusesIt) {
    openDashboard();
    window()->showMinimized();
    ASSERT_TRUE(waitFor([&] { return visibility() == Visibility::minimized; }));
    emit controller->statusItem()->activated(QSystemTrayIcon::Trigger);
    EXPECT_FALSE(window()->windowStates().testFlag(Qt::WindowMinimized));
    EXPECT_TRUE(window()->isVisible());
    EXPECT_TRUE(waitFor([&] { return visibility() == Visibility::visible; }));
    EXPECT_TRUE(waitFor([&] { return window()->isActive(); }));
}

TEST_F(DashboardWindow, AContextClickOnTheTrayItemDoesNothing) {
    openDashboard();
    window()->close();
    emit controller->statusItem()->activated(QSystemTrayIcon::Context);
    processFor(50);
    EXPECT_FALSE(window()->isVisible());
}

TEST_F(DashboardWindow, ReopeningWithNoVisibleWindowShowsTheDashboard) {
    openDashboard();
    window()->close();
    ASSERT_EQ(visibility(), Visibility::hidden);
    controller->handleReopen(false);
    EXPECT_TRUE(window()->isVisible());
    EXPECT_TRUE(waitFor([&] { return visibility() == Visibility::visible; }));
}

TEST_F(DashboardWindow, AForwardedReopenShowsAHiddenDashboard) {
    openDashboard();
    ReopenBridge bridge(controller.get());
    window()->close();
    bridge.Reopen();
    EXPECT_TRUE(window()->isVisible());
    EXPECT_TRUE(waitFor([&] { return visibility() == Visibility::visible; }));
}

TEST_F(DashboardWindow, APersistedWidthBelowTheMinimumGivesTheMinimum) {
    settings->setValue(AppLifecycleController::kContentWidthKey, 300.0);
    settings->setValue(AppLifecycleController::kTopLeftXKey, 10.0);
    settings->setValue(AppLifecycleController::kTopLeftYKey, 10.0);
    openDashboard();
    EXPECT_EQ(window()->width(), window()->minimumWidth());
    EXPECT_GE(window()->width(), static_cast<int>(dashboard_layout::minimumContentWidth));
}

TEST_F(DashboardWindow, PlacementIsPersistedAndRestoredAcrossARestart) {
    openDashboard();
    // Wider than the minimum, narrower than the screen.
    const int width = std::min(window()->minimumWidth() + 60, screenArea().width() - 40);
    window()->setGeometry(40, 30, width, 500);
    ASSERT_TRUE(waitFor([&] {
        return settings->value(AppLifecycleController::kContentWidthKey).toDouble() == width &&
               settings->value(AppLifecycleController::kTopLeftXKey).toDouble() ==
                   window()->frameGeometry().x();
    }));
    const double x = settings->value(AppLifecycleController::kTopLeftXKey).toDouble();
    const double y = settings->value(AppLifecycleController::kTopLeftYKey).toDouble();

    controller.reset();  // the window goes with it, as at quit
    openDashboard();
    const QRect frame = window()->frameGeometry();
    EXPECT_EQ(frame.x(), x);
    EXPECT_EQ(window()->width(), width);
    // The height is the content's fitting height again; the top edge stays unless that height
    // no longer fits below it.
    const QRect area = screenArea();
    EXPECT_EQ(frame.y(), std::min<double>(y, area.y() + area.height() - frame.height()));
}

TEST_F(DashboardWindow, APlacementFromAScreenNoLongerAttachedLandsOnThisOneShrunkToFit) {
    // Saved on a big second monitor to the right; this session has only the Xvfb screen.
    const QRect area = screenArea();
    settings->setValue(AppLifecycleController::kContentWidthKey, area.width() + 400.0);
    settings->setValue(AppLifecycleController::kTopLeftXKey, area.right() + 600.0);
    settings->setValue(AppLifecycleController::kTopLeftYKey, area.bottom() + 300.0);
    openDashboard();
    const QRect frame = window()->frameGeometry();
    EXPECT_TRUE(area.contains(frame))
        << frame.x() << "," << frame.y() << " " << frame.width() << "x" << frame.height();
    EXPECT_EQ(frame.width(), area.width()) << "shrunk to the screen's width";
}

TEST_F(DashboardWindow, WithoutAPersistedPlacementTheWindowIsCentred) {
    openDashboard();
    const QRect area = screenArea();
    const QPoint centre = window()->geometry().center();
    EXPECT_LE(std::abs(centre.x() - area.center().x()), 2);
    EXPECT_LE(std::abs(centre.y() - area.center().y()), 2);
}

}  // namespace
}  // namespace kelvo::testing

// A real runtime on the simulated machine, its dashboard window and tray item, each test with
// its own settings file and data folders.
#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QQmlContext>
#include <QQmlProperty>
#include <QQuickItem>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <functional>
#include <memory>

#include "app/AppRuntime.h"
#include "capture/CaptureCoordinator.h"
#include "desktop/AppLifecycleController.h"
#include "desktop/DashboardView.h"
#include "tests/EventLoopWait.h"
#include "tests/PrivateHome.h"

namespace kelvo::testing {

class DesktopFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home.isValid());
        settings = enterPrivateHome(home);
    }
    void TearDown() override {
        controller.reset();
        if (runtime) runtime->shutdown();
        runtime.reset();
    }

    void startRuntime() {
        AppRuntimeOptions options;
        options.arguments = {QStringLiteral("--harness-simulated-fans")};
        options.settings = settings.get();
        options.loopConfig.tickSeconds = 0.25;
        options.makeCapture = [this](ControlLoop& loop, ProfilingService& service) {
            CaptureCoordinatorOptions captureOptions;
            captureOptions.profilesBaseDirectory = [this] {
                return home.filePath(QStringLiteral("profiles"));
            };
            captureOptions.reveal = [this](const QString& path) { revealed << path; };
            auto made =
                std::make_unique<CaptureCoordinator>(loop, service, std::move(captureOptions));
            capture_ = made.get();
            return made;
        };
        runtime = std::make_unique<AppRuntime>(std::move(options));
    }

    // Starts the runtime (when not yet) and shows the dashboard, waiting for its first frame.
    void openDashboard() {
        if (!runtime) startRuntime();
        controller = std::make_unique<AppLifecycleController>(settings.get());
        controller->configure(runtime.get());
        controller->installStatusItem();
        controller->showDashboardWindow();
        ASSERT_NE(window(), nullptr);
        ASSERT_TRUE(waitFor([&] { return window()->isExposed(); }));
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window()));
    }

    DashboardView* window() const { return controller ? controller->dashboardWindow() : nullptr; }

    // Waits until two frames have reached the screen since now: layouts are polished before each
    // frame, so by then they follow the latest change of surface, size or content.
    void settle() {
        int swapped = 0;
        auto connection = QObject::connect(
            window(), &QQuickWindow::frameSwapped, window(), [&swapped] { ++swapped; },
            Qt::QueuedConnection);
        ASSERT_TRUE(waitFor([&] {
            window()->update();
            return swapped >= 2;
        })) << "frames reach the screen";
        QObject::disconnect(connection);
    }
    // The coordinator the runtime made through the factory above (the runtime owns it).
    CaptureCoordinator* capture() const { return capture_; }

    // Searches the visual tree, where the items made by repeaters live too.
    static QQuickItem* findItem(QQuickItem* from, const QString& identifier) {
        if (from->objectName() == identifier) return from;
        for (QQuickItem* child : from->childItems())
            if (QQuickItem* found = findItem(child, identifier)) return found;
        return nullptr;
    }

    QQuickItem* item(const QString& identifier) const {
        return findItem(window()->contentItem(), identifier);
    }

    // A surface's detail exists only while it is shown.
    bool shown(const QString& identifier) const {
        const QQuickItem* found = item(identifier);
        return found && found->isVisible();
    }

    static QString accessibleName(QQuickItem* item) {
        return QQmlProperty(item, QStringLiteral("Accessible.name"), qmlContext(item))
            .read()
            .toString();
    }

    // Clicks the middle of the item with the mouse, as a user would.
    void click(const QString& identifier) {
        QQuickItem* target = item(identifier);
        ASSERT_NE(target, nullptr) << identifier.toStdString();
        ASSERT_TRUE(target->isVisible()) << identifier.toStdString();
        scrollIntoView(target);
        const QPointF centre =
            target->mapToScene(QPointF(target->width() / 2, target->height() / 2));
        QTest::mouseClick(window(), Qt::LeftButton, Qt::NoModifier, centre.toPoint());
        QCoreApplication::processEvents();
    }

    // The dashboard scrolls when it is taller than the window: bring the item into view first,
    // scrolling again until it lies inside the window (the layout may still be settling).
    void scrollIntoView(QQuickItem* target) {
        QObject* flickable =
            window()->rootObject()->findChild<QObject*>(QStringLiteral("dashboard-scroll"));
        if (!flickable) return;
        EXPECT_TRUE(waitFor([&] {
            const double y = target->mapToItem(window()->contentItem(), QPointF(0, 0)).y();
            if (y >= 0 && y + target->height() <= window()->height()) return true;
            const double contentY = flickable->property("contentY").toDouble();
            const double maxY =
                flickable->property("contentHeight").toDouble() - window()->height();
            flickable->setProperty("contentY",
                                   std::clamp(contentY + y - 20, 0.0, std::max(0.0, maxY)));
            return false;
        })) << "scrolled into view: "
            << target->objectName().toStdString();
    }

    QTemporaryDir home;
    std::unique_ptr<QSettings> settings;
    std::unique_ptr<AppRuntime> runtime;
    std::unique_ptr<AppLifecycleController> controller;
    QStringList revealed;
    CaptureCoordinator* capture_ = nullptr;  // owned by the runtime
};

}  // namespace kelvo::testing

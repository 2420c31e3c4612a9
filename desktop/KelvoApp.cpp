#include "desktop/KelvoApp.h"

#include <QApplication>
#include <QFontDatabase>
#include <QPointer>
#include <QThreadPool>

#include "app/AppRuntime.h"
#include "desktop/AppCommands.h"
#include "desktop/CoolingMenu.h"
#include "desktop/KelvoIcon.h"
#include "desktop/ReopenBridge.h"

namespace kelvo {

void KelvoApp::willFinishLaunching(QSettings& defaults) {
    // Reading the system's font configuration and font list takes some 10 ms, which the dashboard's
    // first text would otherwise wait for; the font database is thread-safe, so it is read while
    // the runtime starts and the graphics driver loads.
    QThreadPool::globalInstance()->start([] { QFontDatabase::families(); });
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setWindowIcon(kelvoApplicationIcon());
    AppLifecycleController::clearLegacyWindowFrameDefaults(defaults);
}

KelvoApp::KelvoApp(AppRuntime& runtime, QSettings& defaults, UpdaterConfiguration updates,
                   std::function<void()> quit, QObject* parent)
    : QObject(parent),
      runtime_(&runtime),
      lifecycle_(std::make_unique<AppLifecycleController>(&defaults)) {
    AppLifecycleController* lifecycle = lifecycle_.get();
    updates_ = std::make_unique<AppUpdaterController>(
        std::move(updates), TrayMenuActions{[lifecycle] { lifecycle->showDashboardWindow(); },
                                            [this, quit = std::move(quit)] {
                                                // Queued on the application: quitting destroys this
                                                // object.
                                                QMetaObject::invokeMethod(
                                                    qApp,
                                                    [self = QPointer<KelvoApp>(this), quit] {
                                                        if (self) quit();
                                                    },
                                                    Qt::QueuedConnection);
                                            },
                                            [lifecycle, fans = runtime.fanSettings()] {
                                                fans->setPaneOpen(true);
                                                lifecycle->showDashboardWindow();
                                            }});
    AppUpdaterController* controller = updates_.get();
    commands_ = new AppCommands([controller] { controller->settingsView().show(); }, this);
    lifecycle_->configure(&runtime);
}

// After "Fans…": how Kelvo cools is the next thing a user reaches for from the tray.
void KelvoApp::addCoolingMenu(QMenu* tray) {
    if (!tray || !runtime_) return;
    auto* cooling = new CoolingMenu(runtime_, tray);
    const QList<QAction*> entries = tray->actions();
    QAction* before = entries.size() > 2 ? entries.at(2) : nullptr;
    tray->insertMenu(before, cooling);
}

KelvoApp::~KelvoApp() {
    // The window goes before the updater whose commands it shows.
    lifecycle_.reset();
    updates_.reset();
}

void KelvoApp::didFinishLaunching() {
    lifecycle_->installStatusItem();
    addCoolingMenu(updates_->trayMenu());
    lifecycle_->setStatusItemMenu(updates_->trayMenu());
    lifecycle_->setAppCommands(commands_);
    lifecycle_->showDashboardWindow();
    auto* reopen = new ReopenBridge(lifecycle_.get(), lifecycle_.get());
    reopen->publish();
}

}  // namespace kelvo

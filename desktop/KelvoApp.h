// The desktop application around one runtime: the dashboard window and the tray item (through the
// process-wide AppLifecycleController), the updater with its tray menu, settings window and
// dialogs, and the bridge that lets a second launch reopen the dashboard.
#pragma once

#include <QObject>
#include <QSettings>
#include <functional>
#include <memory>

#include "desktop/AppLifecycleController.h"
#include "updates/UpdaterConfiguration.h"
#include "updates/ui/AppUpdaterController.h"

namespace kelvo {

class AppRuntime;
class AppCommands;

class KelvoApp : public QObject {
    Q_OBJECT
public:
    // Before anything opens a window: closing the last window never quits, the application icon,
    // and window-frame keys older builds left behind are removed.
    static void willFinishLaunching(QSettings& defaults);

    // `quit` ends the process the orderly way (it must give the fans back); it is called after
    // the tray menu's own signal has returned, since quitting destroys the menu.
    KelvoApp(AppRuntime& runtime, QSettings& defaults, UpdaterConfiguration updates,
             std::function<void()> quit, QObject* parent = nullptr);
    ~KelvoApp() override;

    // Shows the tray item with its menu and the dashboard, and answers later launches.
    void didFinishLaunching();

    AppLifecycleController& lifecycle() { return *lifecycle_; }
    AppUpdaterController& updates() { return *updates_; }

private:
    void addCoolingMenu(QMenu* tray);

    AppRuntime* runtime_;
    std::unique_ptr<AppLifecycleController> lifecycle_;
    std::unique_ptr<AppUpdaterController> updates_;
    AppCommands* commands_ = nullptr;
};

}  // namespace kelvo

// Everything the desktop application needs for updates, made once at launch: the updater
// (started at once), the dialogs' delegate and driver, the "Check for Updates…" command and the
// tray menu built from them, and the settings window when it is first asked for. The tray owner
// only attaches trayMenu().
#pragma once

#include <QObject>
#include <memory>

#include "updates/AppUpdaterControllerDelegate.h"
#include "updates/Updater.h"
#include "updates/ui/CheckForUpdatesView.h"
#include "updates/ui/TrayMenu.h"
#include "updates/ui/UpdateUserDriver.h"
#include "updates/ui/UpdaterSettingsView.h"

namespace kelvo {

class AppUpdaterController : public QObject {
    Q_OBJECT
public:
    AppUpdaterController(UpdaterConfiguration configuration, TrayMenuActions trayActions,
                         QObject* parent = nullptr);
    ~AppUpdaterController() override;

    Updater& updater() { return updater_; }
    CheckForUpdatesView& checkForUpdatesView() { return checkForUpdates_; }
    UpdaterSettingsView& settingsView();
    QMenu* trayMenu() { return trayMenu_.get(); }

private:
    Updater updater_;
    AppUpdaterControllerDelegate delegate_;
    UpdateUserDriver driver_;
    CheckForUpdatesView checkForUpdates_;
    std::unique_ptr<UpdaterSettingsView> settings_;
    std::unique_ptr<QMenu> trayMenu_;
};

}  // namespace kelvo

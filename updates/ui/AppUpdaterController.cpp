#include "updates/ui/AppUpdaterController.h"

namespace kelvo {

AppUpdaterController::AppUpdaterController(UpdaterConfiguration configuration,
                                           TrayMenuActions trayActions, QObject* parent)
    : QObject(parent),
      updater_(std::move(configuration)),
      driver_(updater_, delegate_),
      checkForUpdates_(updater_) {
    trayMenu_ = makeTrayMenu(std::move(trayActions), checkForUpdates_,
                             [this]() -> UpdaterSettingsView& { return settingsView(); });
    updater_.start();
}

// Made when first shown: building a window that most launches never open cost each launch about
// 13 ms before the dashboard's first frame.
UpdaterSettingsView& AppUpdaterController::settingsView() {
    if (!settings_) settings_ = std::make_unique<UpdaterSettingsView>(updater_);
    return *settings_;
}

AppUpdaterController::~AppUpdaterController() = default;

}  // namespace kelvo

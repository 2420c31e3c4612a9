#include "updates/ui/AppUpdaterController.h"

namespace kelvo {

AppUpdaterController::AppUpdaterController(UpdaterConfiguration configuration,
                                           TrayMenuActions trayActions, QObject* parent)
    : QObject(parent),
      updater_(std::move(configuration)),
      driver_(updater_, delegate_),
      checkForUpdates_(updater_),
      settings_(std::make_unique<UpdaterSettingsView>(updater_)) {
    trayMenu_ = makeTrayMenu(std::move(trayActions), checkForUpdates_, *settings_);
    updater_.start();
}

AppUpdaterController::~AppUpdaterController() = default;

}  // namespace kelvo

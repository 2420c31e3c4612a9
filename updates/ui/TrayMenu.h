// The tray icon's context menu: "Show Dashboard", "Fans…", "Check for Updates…", "Settings…"
// and "Quit Kelvo". The tray owner attaches it and supplies what showing and quitting mean
// (quitting must give the fans back).
#pragma once

#include <QMenu>
#include <functional>
#include <memory>

namespace kelvo {

class CheckForUpdatesView;
class UpdaterSettingsView;

struct TrayMenuActions {
    std::function<void()> showDashboard;
    std::function<void()> quit;
    std::function<void()> showFans;  // the dashboard with its Fans pane open
};

// `settings` gives the settings window, which may be made only when it is first asked for.
std::unique_ptr<QMenu> makeTrayMenu(TrayMenuActions actions, CheckForUpdatesView& checkForUpdates,
                                    std::function<UpdaterSettingsView&()> settings);

}  // namespace kelvo

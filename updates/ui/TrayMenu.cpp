#include "updates/ui/TrayMenu.h"

#include "updates/ui/CheckForUpdatesView.h"
#include "updates/ui/UpdaterSettingsView.h"

namespace kelvo {

std::unique_ptr<QMenu> makeTrayMenu(TrayMenuActions actions, CheckForUpdatesView& checkForUpdates,
                                    std::function<UpdaterSettingsView&()> settings) {
    auto menu = std::make_unique<QMenu>();
    QObject::connect(menu->addAction(QStringLiteral("Show Dashboard")), &QAction::triggered,
                     menu.get(), [show = std::move(actions.showDashboard)] {
                         if (show) show();
                     });
    QObject::connect(menu->addAction(QStringLiteral("Fans\u2026")), &QAction::triggered, menu.get(),
                     [show = std::move(actions.showFans)] {
                         if (show) show();
                     });
    menu->addAction(checkForUpdates.action());
    QObject::connect(menu->addAction(QStringLiteral("Settings\u2026")), &QAction::triggered,
                     menu.get(), [settings = std::move(settings)] {
                         if (!settings) return;
                         UpdaterSettingsView& window = settings();
                         window.show();
                         window.raise();
                         window.activateWindow();
                     });
    menu->addSeparator();
    QObject::connect(menu->addAction(QStringLiteral("Quit Kelvo")), &QAction::triggered, menu.get(),
                     [quit = std::move(actions.quit)] {
                         if (quit) quit();
                     });
    return menu;
}

}  // namespace kelvo

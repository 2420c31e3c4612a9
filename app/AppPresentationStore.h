// Presentation state that outlives a single view: the dashboard surface the user chose
// (persisted) and how visible the dashboard window is right now (never persisted).
#pragma once

#include <QObject>
#include <QSettings>
#include <QString>

#include "app_common/Presentation.h"

namespace kelvo {

class AppPresentationStore : public QObject {
    Q_OBJECT
    Q_PROPERTY(kelvo::presentation::AppSurfaceSelection selectedSurface READ selectedSurface WRITE
                   setSelectedSurface NOTIFY selectedSurfaceChanged)
    Q_PROPERTY(kelvo::presentation::DashboardWindowVisibility dashboardWindowVisibility READ
                   dashboardWindowVisibility WRITE setDashboardWindowVisibility NOTIFY
                       dashboardWindowVisibilityChanged)
public:
    static constexpr const char* surfaceModeKey = "kelvo.presentation.surface_mode";
    static constexpr const char* surfaceSelectionKey = "kelvo.presentation.surface_selection";

    // Restores the persisted selection (migrating the older key) and writes both keys back in
    // normalised form. `defaults` must outlive the store.
    explicit AppPresentationStore(QSettings* defaults, QObject* parent = nullptr);

    QSettings* defaults() const { return defaults_; }

    AppSurfaceSelection selectedSurface() const { return selectedSurface_; }
    // Every write is persisted; observers hear only of real changes.
    void setSelectedSurface(AppSurfaceSelection selection);

    DashboardWindowVisibility dashboardWindowVisibility() const {
        return dashboardWindowVisibility_;
    }
    void setDashboardWindowVisibility(DashboardWindowVisibility visibility);

signals:
    void selectedSurfaceChanged();
    void dashboardWindowVisibilityChanged();

private:
    void persistSelection();

    QSettings* defaults_;
    AppSurfaceSelection selectedSurface_ = AppSurfaceSelection::dashboard;
    DashboardWindowVisibility dashboardWindowVisibility_ = DashboardWindowVisibility::visible;
};

}  // namespace kelvo

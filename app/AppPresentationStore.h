// Presentation state that outlives a single view: the dashboard surface the user chose
// (persisted) and how visible the dashboard window is right now (never persisted).
#pragma once

#include <QObject>
#include <QSettings>
#include <QString>
#include <array>
#include <optional>

namespace kelvo {

namespace presentation {
Q_NAMESPACE

// Raw values double as the persisted strings.
enum class AppSurfaceSelection { dashboard, advanced, capture };
Q_ENUM_NS(AppSurfaceSelection)

// The older two-way setting the selection replaced; still written for builds that read it.
enum class AppSurfaceMode { standard, advanced };
Q_ENUM_NS(AppSurfaceMode)

enum class DashboardWindowVisibility { visible, hidden, minimized, offscreen };
Q_ENUM_NS(DashboardWindowVisibility)

inline constexpr std::array<AppSurfaceSelection, 3> kAllAppSurfaceSelections = {
    AppSurfaceSelection::dashboard, AppSurfaceSelection::advanced, AppSurfaceSelection::capture};
inline constexpr std::array<DashboardWindowVisibility, 4> kAllDashboardWindowVisibilities = {
    DashboardWindowVisibility::visible, DashboardWindowVisibility::hidden,
    DashboardWindowVisibility::minimized, DashboardWindowVisibility::offscreen};

QString rawValue(AppSurfaceSelection selection);
QString rawValue(AppSurfaceMode mode);
QString rawValue(DashboardWindowVisibility visibility);
std::optional<AppSurfaceSelection> appSurfaceSelectionFromRaw(const QString& raw);
std::optional<AppSurfaceMode> appSurfaceModeFromRaw(const QString& raw);
std::optional<DashboardWindowVisibility> dashboardWindowVisibilityFromRaw(const QString& raw);

}  // namespace presentation

using presentation::AppSurfaceMode;
using presentation::AppSurfaceSelection;
using presentation::DashboardWindowVisibility;

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

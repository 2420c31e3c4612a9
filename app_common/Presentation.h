// The dashboard's surfaces and the window's visibility as values, with the raw strings they are
// stored under; the live store and the presentation store both speak them.
#pragma once

#include <QObject>
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

}  // namespace kelvo

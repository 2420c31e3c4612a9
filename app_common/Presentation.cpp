#include "app_common/Presentation.h"

namespace kelvo {

namespace presentation {

QString rawValue(AppSurfaceSelection selection) {
    switch (selection) {
        case AppSurfaceSelection::dashboard: return QStringLiteral("dashboard");
        case AppSurfaceSelection::advanced: return QStringLiteral("advanced");
        case AppSurfaceSelection::capture: return QStringLiteral("capture");
    }
    return QStringLiteral("dashboard");
}

QString rawValue(AppSurfaceMode mode) {
    switch (mode) {
        case AppSurfaceMode::standard: return QStringLiteral("standard");
        case AppSurfaceMode::advanced: return QStringLiteral("advanced");
    }
    return QStringLiteral("standard");
}

QString rawValue(DashboardWindowVisibility visibility) {
    switch (visibility) {
        case DashboardWindowVisibility::visible: return QStringLiteral("visible");
        case DashboardWindowVisibility::hidden: return QStringLiteral("hidden");
        case DashboardWindowVisibility::minimized: return QStringLiteral("minimized");
        case DashboardWindowVisibility::offscreen: return QStringLiteral("offscreen");
    }
    return QStringLiteral("visible");
}

std::optional<AppSurfaceSelection> appSurfaceSelectionFromRaw(const QString& raw) {
    for (AppSurfaceSelection selection : kAllAppSurfaceSelections)
        if (rawValue(selection) == raw) return selection;
    return std::nullopt;
}

std::optional<AppSurfaceMode> appSurfaceModeFromRaw(const QString& raw) {
    for (AppSurfaceMode mode : {AppSurfaceMode::standard, AppSurfaceMode::advanced})
        if (rawValue(mode) == raw) return mode;
    return std::nullopt;
}

std::optional<DashboardWindowVisibility> dashboardWindowVisibilityFromRaw(const QString& raw) {
    for (DashboardWindowVisibility visibility : kAllDashboardWindowVisibilities)
        if (rawValue(visibility) == raw) return visibility;
    return std::nullopt;
}

}  // namespace presentation

}  // namespace kelvo

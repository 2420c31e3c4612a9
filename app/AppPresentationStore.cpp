#include "app/AppPresentationStore.h"

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

namespace {
std::optional<QString> storedString(const QSettings& settings, const char* key) {
    const QVariant value = settings.value(QString::fromLatin1(key));
    if (!value.isValid()) return std::nullopt;
    return value.toString();
}
}  // namespace

AppPresentationStore::AppPresentationStore(QSettings* defaults, QObject* parent)
    : QObject(parent), defaults_(defaults) {
    Q_ASSERT(defaults_);
    std::optional<AppSurfaceSelection> restored;
    if (auto stored = storedString(*defaults_, surfaceSelectionKey))
        restored = presentation::appSurfaceSelectionFromRaw(*stored);
    if (!restored) {
        // Builds before the three-way selection only knew standard/advanced; "standard" never
        // meant the capture surface.
        const auto oldMode = storedString(*defaults_, surfaceModeKey);
        restored = oldMode == rawValue(AppSurfaceMode::advanced) ? AppSurfaceSelection::advanced
                                                                 : AppSurfaceSelection::dashboard;
    }
    selectedSurface_ = *restored;
    persistSelection();
}

void AppPresentationStore::setSelectedSurface(AppSurfaceSelection selection) {
    const bool changed = selectedSurface_ != selection;
    selectedSurface_ = selection;
    persistSelection();
    if (changed) emit selectedSurfaceChanged();
}

void AppPresentationStore::setDashboardWindowVisibility(DashboardWindowVisibility visibility) {
    if (dashboardWindowVisibility_ == visibility) return;
    dashboardWindowVisibility_ = visibility;
    emit dashboardWindowVisibilityChanged();
}

void AppPresentationStore::persistSelection() {
    defaults_->setValue(QString::fromLatin1(surfaceSelectionKey), rawValue(selectedSurface_));
    const AppSurfaceMode mode = selectedSurface_ == AppSurfaceSelection::advanced
                                    ? AppSurfaceMode::advanced
                                    : AppSurfaceMode::standard;
    defaults_->setValue(QString::fromLatin1(surfaceModeKey), rawValue(mode));
    defaults_->sync();
}

}  // namespace kelvo

#include "app/AppPresentationStore.h"

namespace kelvo {

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

#include "desktop/CoolingMenu.h"

#include <array>

#include "app/AppRuntime.h"

namespace kelvo {

namespace {
QString text(std::string_view view) {
    return QString::fromUtf8(view.data(), static_cast<qsizetype>(view.size()));
}

constexpr std::array kModes = {ControlMode::systemAuto, ControlMode::quiet,
                               ControlMode::quietHybrid, ControlMode::performance};
}  // namespace

QString CoolingMenu::describe(ControlMode mode) {
    switch (mode) {
        case ControlMode::systemAuto:
            return QStringLiteral(
                "The firmware drives the fans with its own curve; Kelvo watches "
                "and warns of throttling.");
        case ControlMode::quiet:
            return QStringLiteral(
                "Kelvo keeps the fans as slow as the temperature limits allow "
                "and raises them only as a die nears its limit.");
        case ControlMode::quietHybrid:
            return QStringLiteral(
                "Quiet, and once Kelvo has learned this machine's loads from "
                "captures it starts the fans ahead of a sustained load (the "
                "window's \"Kelvo\").");
        case ControlMode::performance:
            return QStringLiteral(
                "Kelvo keeps the chips cool, towards 70 °C, so that their clocks "
                "never throttle: faster, and louder.");
    }
    return {};
}

CoolingMenu::CoolingMenu(AppRuntime* runtime, QWidget* parent)
    : QMenu(QStringLiteral("Cooling"), parent), runtime_(runtime), group_(new QActionGroup(this)) {
    setToolTipsVisible(true);
    group_->setExclusive(true);
    for (ControlMode mode : kModes) {
        QAction* entry = addAction(text(displayName(mode)));
        entry->setCheckable(true);
        entry->setData(text(rawValue(mode)));
        entry->setToolTip(describe(mode));
        entry->setStatusTip(describe(mode));
        group_->addAction(entry);
        connect(entry, &QAction::triggered, this, [this, mode] {
            if (runtime_ && runtime_->mode() != mode) runtime_->setMode(mode);
        });
    }
    if (runtime_) connect(runtime_, &AppRuntime::modeChanged, this, &CoolingMenu::showMode);
    showMode();
}

QAction* CoolingMenu::action(ControlMode mode) const {
    const QString raw = text(rawValue(mode));
    for (QAction* entry : group_->actions())
        if (entry->data().toString() == raw) return entry;
    return nullptr;
}

void CoolingMenu::showMode() {
    if (!runtime_) return;
    if (QAction* current = action(runtime_->mode()); current && !current->isChecked())
        current->setChecked(true);
}

}  // namespace kelvo

#include "app/ControlModeStore.h"

namespace kelvo {

ControlModeStore::ControlModeStore(QSettings* settings, QObject* parent)
    : QObject(parent), settings_(settings), mode_(restoredMode(*settings)) {}

ControlMode ControlModeStore::restoredMode(QSettings& settings) {
    const QVariant value = settings.value(kSettingsKey);
    if (!value.isValid()) return ControlMode::systemAuto;
    return controlModeFromRaw(value.toString().toStdString()).value_or(ControlMode::systemAuto);
}

QString ControlModeStore::modeRawValue() const {
    return QString::fromUtf8(rawValue(mode_).data());
}

void ControlModeStore::select(ControlMode mode) {
    if (mode_ != mode) {
        mode_ = mode;
        emit modeChanged();
    }
    persist(mode);
}

void ControlModeStore::persist(ControlMode mode) {
    settings_->setValue(kSettingsKey, QString::fromUtf8(rawValue(mode).data()));
    settings_->sync();
}

}  // namespace kelvo

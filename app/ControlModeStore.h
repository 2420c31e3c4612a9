// The user's control mode, kept across launches: read from the settings once at start-up and
// written back on every selection.
#pragma once

#include <QObject>
#include <QSettings>
#include <QString>

#include "foundation/core/Types.h"

namespace kelvo {

class ControlModeStore : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString mode READ modeRawValue NOTIFY modeChanged)
public:
    static constexpr const char* kSettingsKey = "kelvo.control.mode";

    // Starts from the mode `settings` holds; the settings must outlive the store.
    explicit ControlModeStore(QSettings* settings, QObject* parent = nullptr);

    // The persisted mode; System when there is none or it is not a mode this build knows.
    static ControlMode restoredMode(QSettings& settings);

    ControlMode mode() const { return mode_; }
    QString modeRawValue() const;
    // Takes `mode` and writes it through to the settings file, also when it is the current one:
    // the file then always holds the last selection, whoever edited it meanwhile.
    void select(ControlMode mode);

signals:
    void modeChanged();

private:
    void persist(ControlMode mode);

    QSettings* settings_;
    ControlMode mode_;
};

}  // namespace kelvo

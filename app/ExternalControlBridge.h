// Receives external mode and cooldown requests as session-bus signals from any sender and turns
// their a{sv} payloads into typed requests; anything malformed is dropped without effect.
#pragma once

#include <QDBusMessage>
#include <QObject>
#include <QVariant>
#include <optional>

#include "foundation/core/ExternalControl.h"

namespace kelvo {

class ExternalControlBridge : public QObject {
    Q_OBJECT
public:
    explicit ExternalControlBridge(QObject* parent = nullptr);

    // Subscribes to both signals; false when there is no session bus.
    bool install();
    // Subscribes to FanSettingsChanged only; false when there is no session bus.
    bool installFanSettingsWatch();
    bool isInstalled() const { return installed_; }
    // Broadcasts Kelvo's answer to a request ("mode quiet", "cooldown on") for kelvoctl to show.
    void answer(const QString& request, bool applied, const QString& message);

    // Exposed for tests: the conversion of one D-Bus message's arguments.
    static std::optional<ExternalPayload> payloadFrom(const QDBusMessage& message);
    static ExternalValue valueFrom(const QVariant& value);

signals:
    void modeRequested(kelvo::ControlMode mode);
    void cooldownRequested(bool enabled);
    void fanSettingsChanged();

private slots:
    void onSetMode(const QDBusMessage& message);
    void onSetCooldown(const QDBusMessage& message);
    void onFanSettingsChanged(const QDBusMessage& message);

private:
    bool installed_ = false;
};

}  // namespace kelvo

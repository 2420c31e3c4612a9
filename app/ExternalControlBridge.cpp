#include "app/ExternalControlBridge.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMetaType>
#include <QDBusVariant>

namespace kelvo {

ExternalControlBridge::ExternalControlBridge(QObject* parent) : QObject(parent) {}

bool ExternalControlBridge::install() {
    if (installed_) return true;
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return false;
    // Empty service: requests are accepted from any sender on the bus.
    bool mode =
        bus.connect(QString(), ExternalControl::objectPath, ExternalControl::interfaceName,
                    ExternalControl::setModeNotificationName, this, SLOT(onSetMode(QDBusMessage)));
    bool cooldown = bus.connect(
        QString(), ExternalControl::objectPath, ExternalControl::interfaceName,
        ExternalControl::setCooldownNotificationName, this, SLOT(onSetCooldown(QDBusMessage)));
    installed_ = mode && cooldown;
    return installed_;
}

bool ExternalControlBridge::installFanSettingsWatch() {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return false;
    return bus.connect(QString(), ExternalControl::objectPath, ExternalControl::interfaceName,
                       ExternalControl::fanSettingsChangedNotificationName, this,
                       SLOT(onFanSettingsChanged(QDBusMessage)));
}

ExternalValue ExternalControlBridge::valueFrom(const QVariant& raw) {
    QVariant value = raw;
    if (value.metaType() == QMetaType::fromType<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();
    switch (value.metaType().id()) {
        case QMetaType::Bool: return value.toBool();
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::ULongLong:
        case QMetaType::Short:
        case QMetaType::UShort:
        case QMetaType::UChar: return static_cast<std::int64_t>(value.toLongLong());
        case QMetaType::Double: return value.toDouble();
        case QMetaType::QString: {
            // Cut before converting so a huge string costs nothing; the decoder rejects it anyway.
            QString text = value.toString();
            if (text.size() > static_cast<qsizetype>(ExternalControl::maxStringLength) + 1)
                text.truncate(static_cast<qsizetype>(ExternalControl::maxStringLength) + 1);
            return text.toStdString();
        }
        default: return std::monostate{};
    }
}

std::optional<ExternalPayload> ExternalControlBridge::payloadFrom(const QDBusMessage& message) {
    const QVariantList args = message.arguments();
    if (args.size() != 1) return std::nullopt;
    QVariantMap map;
    const QVariant& arg = args.first();
    if (arg.metaType() == QMetaType::fromType<QDBusArgument>()) {
        const auto dbusArg = arg.value<QDBusArgument>();
        if (dbusArg.currentSignature() != QLatin1String("a{sv}")) return std::nullopt;
        dbusArg >> map;
    } else if (arg.metaType().id() == QMetaType::QVariantMap) {
        map = arg.toMap();
    } else {
        return std::nullopt;
    }
    ExternalPayload payload;
    for (auto it = map.cbegin(); it != map.cend(); ++it)
        payload[it.key().toStdString()] = valueFrom(it.value());
    return payload;
}

void ExternalControlBridge::answer(const QString& request, bool applied, const QString& message) {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return;
    auto signal = QDBusMessage::createSignal(
        QString::fromLatin1(ExternalControl::objectPath),
        QString::fromLatin1(ExternalControl::interfaceName),
        QString::fromLatin1(ExternalControl::requestAnsweredNotificationName));
    signal << request << applied << message;
    bus.send(signal);
}

void ExternalControlBridge::onSetMode(const QDBusMessage& message) {
    auto payload = payloadFrom(message);
    if (!payload) return;
    if (auto mode = ExternalControl::requestedMode(*payload)) emit modeRequested(*mode);
}

void ExternalControlBridge::onSetCooldown(const QDBusMessage& message) {
    auto payload = payloadFrom(message);
    if (!payload) return;
    if (auto enabled = ExternalControl::requestedCooldownEnabled(*payload))
        emit cooldownRequested(*enabled);
}

void ExternalControlBridge::onFanSettingsChanged(const QDBusMessage&) {
    emit fanSettingsChanged();
}

}  // namespace kelvo

// kelvoctl: sends external-control requests to a running Kelvo on the session bus.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QStringList>
#include <QVariantMap>
#include <cstdio>

#include "foundation/ExternalControl.h"
#include "foundation/Types.h"

namespace {

constexpr int kUsageError = 2;

QString modeList() {
    QStringList names;
    for (auto mode : kelvo::kAllControlModes)
        names << QString::fromUtf8(kelvo::rawValue(mode).data());
    return names.join(QStringLiteral(", "));
}

int usage() {
    std::fprintf(
        stderr,
        "usage: kelvoctl mode <%s>\n"
        "       kelvoctl cooldown <on|off>\n"
        "Kelvo only accepts these when it was started with --allow-external-control.\n",
        modeList().replace(QStringLiteral(", "), QStringLiteral("|")).toUtf8().constData());
    return kUsageError;
}

int send(const char* signal, const QVariantMap& payload) {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        std::fprintf(stderr, "kelvoctl: no session bus: %s\n",
                     bus.lastError().message().toUtf8().constData());
        return 1;
    }
    auto message = QDBusMessage::createSignal(kelvo::ExternalControl::objectPath,
                                              kelvo::ExternalControl::interfaceName, signal);
    message << payload;
    if (!bus.send(message)) {
        std::fprintf(stderr, "kelvoctl: could not send the request: %s\n",
                     bus.lastError().message().toUtf8().constData());
        return 1;
    }
    // A round trip to the bus guarantees the signal has left this process before it exits.
    bus.call(QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = QCoreApplication::arguments().mid(1);
    if (args.size() != 2) return usage();
    const QString& command = args[0];
    const QString& value = args[1];
    if (command == QLatin1String("mode")) {
        if (!kelvo::controlModeFromRaw(value.toStdString())) {
            std::fprintf(stderr, "kelvoctl: unknown mode '%s'; the modes are: %s\n",
                         value.toUtf8().constData(), modeList().toUtf8().constData());
            return kUsageError;
        }
        return send(kelvo::ExternalControl::setModeNotificationName,
                    {{QString::fromLatin1(kelvo::ExternalControl::modeKey), value}});
    }
    if (command == QLatin1String("cooldown")) {
        if (value != QLatin1String("on") && value != QLatin1String("off")) {
            std::fprintf(stderr, "kelvoctl: cooldown takes 'on' or 'off', not '%s'\n",
                         value.toUtf8().constData());
            return kUsageError;
        }
        return send(kelvo::ExternalControl::setCooldownNotificationName,
                    {{QString::fromLatin1(kelvo::ExternalControl::enabledKey),
                      value == QLatin1String("on")}});
    }
    std::fprintf(stderr, "kelvoctl: unknown command '%s'\n", command.toUtf8().constData());
    return usage();
}

// kelvoctl: sends external-control requests to a running Kelvo on the session bus, reports
// what the privileged helper sees, and checks for and publishes updates.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QStringList>
#include <QVariantMap>
#include <cstdio>

#include "app/AppRuntime.h"
#include "foundation/ExternalControl.h"
#include "foundation/Types.h"
#include "foundation/linux/HelperClient.h"
#include "foundation/linux/HelperStatusReport.h"
#include "foundation/linux/HwmonFanService.h"
#include "tools/UpdateCommand.h"

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
        "       kelvoctl [--helper-socket PATH] [--sysfs-root PATH] helper status\n"
        "Kelvo only accepts mode and cooldown when it was started with --allow-external-control.\n",
        modeList().replace(QStringLiteral(", "), QStringLiteral("|")).toUtf8().constData());
    kelvo::kelvoctl::printUpdateUsage();
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

// Without the helper, say what this machine would offer it, so the user knows whether
// installing it is worth it.
void describeLocalFans(const std::string& sysfsRoot) {
    const auto fans = kelvo::HwmonFanService(sysfsRoot).discover();
    std::size_t controllable = 0;
    for (const auto& fan : fans) controllable += fan.controllable ? 1 : 0;
    std::fprintf(stderr, "This machine's hwmon shows %zu fan(s), %zu with PWM control.\n",
                 fans.size(), controllable);
}

int helperStatus(const kelvo::LaunchPaths& paths) {
    kelvo::HelperClient client(paths.helperSocket);
    const kelvo::HelperStatusResult result = client.status();
    if (result.ok) {
        std::fputs(kelvo::formatHelperStatus(result.status, paths.helperSocket).c_str(), stdout);
        return 0;
    }
    std::fprintf(stderr, "kelvoctl: %s\n", result.error.c_str());
    if (!kelvo::HelperClient::reachable(paths.helperSocket, 250)) {
        std::fprintf(stderr,
                     "Install and enable kelvo-helperd to let Kelvo control the fans (README, "
                     "\"Installing the privileged helper\").\n");
        describeLocalFans(paths.sysfsRoot);
    } else if (result.error.starts_with("not allowed")) {
        std::fprintf(stderr,
                     "Add your user to the kelvo group (sudo usermod -aG kelvo \"$USER\"), then "
                     "log out and in again.\n");
    }
    return 1;
}

// The command words, without the path options (which take a value each).
QStringList commandWords(const QStringList& args) {
    QStringList words;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& arg = args[i];
        if (arg == QLatin1String("--helper-socket") || arg == QLatin1String("--sysfs-root")) {
            ++i;
            continue;
        }
        if (arg.startsWith(QLatin1String("--helper-socket=")) ||
            arg.startsWith(QLatin1String("--sysfs-root=")))
            continue;
        words << arg;
    }
    return words;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList all = QCoreApplication::arguments().mid(1);
    if (!all.isEmpty() && all.front() == QLatin1String("update"))
        return kelvo::kelvoctl::runUpdateCommand(all.mid(1));
    const QStringList args = commandWords(all);
    if (args.size() != 2) return usage();
    if (args[0] == QLatin1String("helper")) {
        if (args[1] != QLatin1String("status")) {
            std::fprintf(stderr, "kelvoctl: unknown helper command '%s'\n",
                         args[1].toUtf8().constData());
            return usage();
        }
        return helperStatus(kelvo::LaunchPaths::fromArguments(all));
    }
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

// kelvoctl: sends external-control requests to a running Kelvo on the session bus, reports
// what the privileged helper sees, and checks for and publishes updates.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QSettings>
#include <QStringList>
#include <QTimer>
#include <QUuid>
#include <QVariantMap>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include <sqlite3.h>

#include "app_common/AppBuildInfo.h"
#include "app_common/FanSettings.h"
#include "app_common/LaunchPaths.h"
#include "foundation/control/UserLimits.h"
#include "foundation/core/ExternalControl.h"
#include "foundation/core/FanChoices.h"
#include "foundation/core/FanCoupling.h"
#include "foundation/core/Types.h"
#include "foundation/fans/HwmonFanService.h"
#include "foundation/helper_protocol/HelperClient.h"
#include "foundation/helper_protocol/HelperStatusReport.h"
#include "foundation/telemetry/DieCriticalTemperatures.h"
#include "tools/CalibrationWatch.h"
#include "tools/TerminalText.h"
#include "tools/TextTable.h"
#include "tools/UpdateCommand.h"

namespace {

using kelvo::kelvoctl::say;

constexpr int kUsageError = 2;
// Kelvo answers a request some 50 ms after it arrives; a busy machine gets far longer.
constexpr int kAnswerWaitMs = 5000;

QString modeList() {
    QStringList names;
    for (auto mode : kelvo::kAllControlModes)
        names << QString::fromUtf8(kelvo::rawValue(mode).data());
    return names.join(QStringLiteral(", "));
}

// The usage on standard error, for a command that makes no sense (exit 2), or on standard output
// when asked for with --help (exit 0).
int usage(std::FILE* stream = stderr) {
    say(stream,
        "usage: kelvoctl mode <%s>\n"
        "       kelvoctl cooldown <on|off>\n"
        "       kelvoctl [--helper-socket PATH] [--sysfs-root PATH] helper status\n"
        "       kelvoctl [--sysfs-root PATH] [--database PATH] fans\n"
        "       kelvoctl fans share <on|off>\n"
        "       kelvoctl fans measure-again\n"
        "       kelvoctl [--sysfs-root PATH] fan IDENTITY <auto|firmware|fixed N|min N|stop "
        "on|off>\n"
        "       kelvoctl [--sysfs-root PATH] [--database PATH] fan IDENTITY calibrate\n"
        "       kelvoctl [--sysfs-root PATH] limits [<cpu|gpu|performance> N]\n"
        "mode and cooldown wait for the running Kelvo's answer and say what it did (exit 0) or\n"
        "why not (exit 1): it takes them only when started with --allow-external-control;\n"
        "fan choices and limits are stored in Kelvo's settings and a running Kelvo re-reads "
        "them.\n"
        "'stop on' lets auto control stop the fan while every temperature is well under its "
        "limit;\nunsaid, a fan stops where the firmware's own curve stops it (never a pump).\n"
        "'fans' shows which die each fan cools (COOLS) and how sure Kelvo is (SURE), from its\n"
        "database, read-only; '-' until measured, and COOLS '-' while SURE is 0%%.\n"
        "'fans share' turns on or off the quiet modes' sharing of the work among the fans by\n"
        "what each cools; off, every fan under auto follows one speed and none is measured.\n"
        "'fans measure-again' asks a running Kelvo to drop what it measured of which die each\n"
        "fan cools and measure it again (after fans or coolers changed).\n"
        "'calibrate' asks a running Kelvo to run the fan from full speed down to its lowest "
        "speed\nand to a stop, and follows it for up to 3 minutes.\n",
        modeList().replace(QStringLiteral(", "), QStringLiteral("|")).toUtf8().constData());
    kelvo::kelvoctl::printUpdateUsage(stream);
    return stream == stderr ? kUsageError : 0;
}

// Kelvo's answer to one request, caught from the bus.
class AnswerCatcher : public QObject {
    Q_OBJECT
public:
    explicit AnswerCatcher(QString request) : request_(std::move(request)) {}
    std::optional<std::pair<bool, QString>> answer;
    QEventLoop loop;
public slots:
    void onAnswer(const QString& request, bool applied, const QString& message) {
        if (request != request_ || answer) return;
        answer = std::make_pair(applied, message.left(kMaxAnswerLength));
        loop.quit();
    }

private:
    // Anyone on the bus may send one: a long one is cut, not shown whole.
    static constexpr qsizetype kMaxAnswerLength = 400;
    QString request_;
};

// Sends the request and waits for Kelvo's answer: 0 when Kelvo applied it, 1 when it refused or
// none answered, each said in a line.
int send(const char* signal, const QVariantMap& payload, const QString& request) {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        say(stderr, "kelvoctl: no session bus: %s\n",
            bus.lastError().message().toUtf8().constData());
        return 1;
    }
    AnswerCatcher catcher(request);
    bus.connect(QString(), QString::fromLatin1(kelvo::ExternalControl::objectPath),
                QString::fromLatin1(kelvo::ExternalControl::interfaceName),
                QString::fromLatin1(kelvo::ExternalControl::requestAnsweredNotificationName),
                &catcher, SLOT(onAnswer(QString, bool, QString)));
    auto message = QDBusMessage::createSignal(kelvo::ExternalControl::objectPath,
                                              kelvo::ExternalControl::interfaceName, signal);
    message << payload;
    if (!bus.send(message)) {
        say(stderr, "kelvoctl: could not send the request: %s\n",
            bus.lastError().message().toUtf8().constData());
        return 1;
    }
    QTimer::singleShot(kAnswerWaitMs, &catcher.loop, &QEventLoop::quit);
    if (!catcher.answer) catcher.loop.exec();
    if (!catcher.answer) {
        say(stderr,
            "kelvoctl: no Kelvo answered within %d s on this session bus: is it running, in "
            "this desktop session?\n",
            kAnswerWaitMs / 1000);
        return 1;
    }
    const auto& [applied, text] = *catcher.answer;
    say(applied ? stdout : stderr, "kelvoctl: %s\n", text.toUtf8().constData());
    return applied ? 0 : 1;
}

// Without the helper, say what this machine would offer it, so the user knows whether
// installing it is worth it.
void describeLocalFans(const std::string& sysfsRoot) {
    const auto fans = kelvo::HwmonFanService(sysfsRoot).discover();
    std::size_t controllable = 0;
    for (const auto& fan : fans) controllable += fan.controllable ? 1 : 0;
    say(stderr, "This machine's hwmon shows %zu fan(s), %zu with PWM control.\n", fans.size(),
        controllable);
}

int helperStatus(const kelvo::LaunchPaths& paths) {
    kelvo::HelperClient client(paths.helperSocket);
    const kelvo::HelperStatusResult result = client.status();
    if (result.ok) {
        say(stdout, "%s", kelvo::formatHelperStatus(result.status, paths.helperSocket).c_str());
        return 0;
    }
    say(stderr, "kelvoctl: %s\n", result.error.c_str());
    if (!kelvo::HelperClient::reachable(paths.helperSocket, 250)) {
        // Installed by the package, the helper only waits for systemd to start it.
        if (QFileInfo(QStringLiteral(KELVO_INSTALLED_HELPERD)).isExecutable())
            say(stderr,
                "kelvo-helperd is installed but not running. Start it, and at every boot, with:\n"
                "  sudo systemctl enable --now kelvo-helperd\n");
        else
            say(stderr,
                "Install and enable kelvo-helperd to let Kelvo control the fans (docs/helper.md, "
                "\"Installing the privileged helper\").\n");
        describeLocalFans(paths.sysfsRoot);
    } else if (result.error.starts_with("not allowed")) {
        say(stderr,
            "Add your user to the kelvo group (sudo usermod -aG kelvo \"$USER\"), then "
            "log out and in again.\n");
    }
    return 1;
}

// Kelvo re-reads its settings on this signal; without a bus it reads them when it next starts.
void announceFanSettings() {
    auto bus = QDBusConnection::sessionBus();
    auto message = QDBusMessage::createSignal(
        kelvo::ExternalControl::objectPath, kelvo::ExternalControl::interfaceName,
        kelvo::ExternalControl::fanSettingsChangedNotificationName);
    if (!bus.isConnected() || !bus.send(message)) {
        say(stderr, "kelvoctl: stored; a running Kelvo applies it when it next starts\n");
        return;
    }
    bus.call(QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
}

struct KnownFan {
    std::string identity;
    std::string label;
    std::optional<double> rpm;
};

// The machine's hwmon fans, then any fan named in the settings that hwmon does not show (a
// simulated one, or one whose driver is not loaded now).
std::vector<KnownFan> knownFans(const std::string& sysfsRoot, const kelvo::FanChoices& stored) {
    std::vector<KnownFan> fans;
    for (const auto& fan : kelvo::HwmonFanService(sysfsRoot).discover())
        fans.push_back({fan.identity, fan.label, fan.currentRPM});
    for (const auto& [identity, choice] : stored) {
        (void)choice;
        if (identity == kelvo::kEveryOtherFan) continue;  // a stand-in, not a fan
        if (std::none_of(fans.begin(), fans.end(),
                         [&](const KnownFan& f) { return f.identity == identity; }))
            fans.push_back({identity, {}, std::nullopt});
    }
    return fans;
}

// The coupling evidence a Kelvo has stored, read without creating, migrating or holding the
// database: kelvoctl may run beside Kelvo, or before it ever ran. None when there is no database
// or it cannot be read (`error` says why; empty when there simply is none yet).
std::optional<std::map<std::string, kelvo::FanCouplingEvidence>> storedCouplingEvidence(
    const QString& databasePath, std::string& error) {
    if (!QFileInfo::exists(databasePath)) return std::nullopt;
    sqlite3* db = nullptr;
    const auto fail = [&](const std::string& why) {
        error = why;
        sqlite3_close(db);
        return std::nullopt;
    };
    if (sqlite3_open_v2(databasePath.toUtf8().constData(), &db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK)
        return fail(db ? sqlite3_errmsg(db) : "out of memory");
    // Kelvo writes a row in a moment; a reader waits that long rather than failing.
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT fan_identity, evidence FROM fan_coupling", -1, &statement,
                           nullptr) != SQLITE_OK)
        return fail(sqlite3_errmsg(db));
    std::map<std::string, kelvo::FanCouplingEvidence> evidence;
    int rc = SQLITE_ROW;
    while ((rc = sqlite3_step(statement)) == SQLITE_ROW) {
        const auto* identity = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
        // As Kelvo reads it: a row it would skip is no evidence here either.
        const auto decoded = text ? kelvo::decodeCouplingEvidence(text) : std::nullopt;
        if (identity && decoded) evidence[identity] = *decoded;
    }
    if (rc != SQLITE_DONE) {
        const std::string why = sqlite3_errmsg(db);
        sqlite3_finalize(statement);
        return fail(why);
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return evidence;
}

int listFans(const std::string& sysfsRoot, const QString& databasePath) {
    QSettings settings(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
    const kelvo::FanChoices stored = kelvo::fan_settings::readChoices(settings);
    const auto fans = knownFans(sysfsRoot, stored);
    if (fans.empty()) {
        say(stdout, "No fans found.\n");
        return 0;
    }
    std::string couplingError;
    const auto evidence = storedCouplingEvidence(databasePath, couplingError);
    if (!couplingError.empty())
        say(stderr, "kelvoctl: which die each fan cools could not be read from %s: %s\n",
            databasePath.toUtf8().constData(), couplingError.c_str());
    // Shares are among the fans under auto control, as Kelvo weighs them: the others' air is the
    // firmware's or a fixed duty's.
    std::vector<std::string> automatic;
    for (const auto& fan : fans) {
        kelvo::FanState state;
        state.name = fan.identity;
        state.label = fan.label;
        if (kelvo::fanUnderAutoControl(state, kelvo::effectiveFanChoice(state, stored)))
            automatic.push_back(fan.identity);
    }
    const std::vector<kelvo::FanCoupling> shares =
        evidence ? kelvo::fanCouplings(*evidence, automatic) : std::vector<kelvo::FanCoupling>{};
    std::vector<kelvo::FanCoupling> couplings(fans.size());
    for (std::size_t i = 0; i < fans.size(); ++i)
        for (const auto& c : shares)
            if (c.identity == fans[i].identity) couplings[i] = c;
    // RPM and SURE are numbers: lined up on the right.
    kelvo::kelvoctl::TextTable table(
        {"IDENTITY", "LABEL", "RPM", "STOP", "COOLS", "SURE", "CHOICE"}, {2, 5});
    for (std::size_t i = 0; i < fans.size(); ++i) {
        const KnownFan& fan = fans[i];
        // Measured but not known (0 % sure): SURE says so, and COOLS names no die.
        const bool measured = !kelvo::coolsMostly(couplings[i]).empty();
        const std::string mostly = kelvo::coolsMostlyKnown(couplings[i]);
        const std::string sure =
            !measured
                ? "-"
                : std::to_string(std::lround(std::clamp(couplings[i].confidence, 0.0, 1.0) * 100)) +
                      "%";
        kelvo::FanState state;
        state.name = fan.identity;
        state.label = fan.label;
        const bool chosen = stored.contains(fan.identity);
        const kelvo::FanChoice effective = kelvo::effectiveFanChoice(state, stored);
        const std::string choice = kelvo::formatFanChoice(effective);
        const std::string rpm = fan.rpm ? std::to_string(static_cast<long long>(*fan.rpm)) : "-";
        // "default": the fan stops where the firmware's own curve stops it.
        const char* stop = kelvo::isPumpChannel(fan.label, kelvo::driverOfIdentity(fan.identity))
                               ? "never"
                           : !effective.stopWhenCool ? "default"
                           : *effective.stopWhenCool ? "on"
                                                     : "off";
        const char* note = !effective.problem.empty()   ? " (stored choice unreadable)"
                           : chosen || choice == "auto" ? ""
                                                        : " (pump default)";
        table.addRow({fan.identity, fan.label.empty() ? "-" : fan.label, rpm, stop,
                      mostly.empty() ? "-" : mostly, sure, choice + note});
    }
    table.print(stdout);
    // Below the table, which stays first for whoever reads it by its headings.
    std::string shareProblem;
    const bool share = kelvo::fan_settings::readShare(settings, &shareProblem);
    say(stdout, "Sharing the work among the fans: %s\n", share ? "on" : "off");
    if (!shareProblem.empty()) say(stderr, "kelvoctl: %s\n", shareProblem.c_str());
    // Why a fan is with the firmware although the user chose otherwise, once per problem.
    std::set<std::string> said;
    for (const auto& [identity, choice] : stored) {
        if (choice.problem.empty() || !said.insert(choice.problem).second) continue;
        if (identity == kelvo::kEveryOtherFan)
            say(stderr, "kelvoctl: %s\n", choice.problem.c_str());
        else
            say(stderr, "kelvoctl: %s: the stored choice %s\n", identity.c_str(),
                choice.problem.c_str());
    }
    return 0;
}

// The fan named on the command line, else nothing after saying which fans there are.
std::optional<KnownFan> findFan(const std::string& sysfsRoot, const kelvo::FanChoices& stored,
                                const std::string& id) {
    const auto fans = knownFans(sysfsRoot, stored);
    const auto fan =
        std::find_if(fans.begin(), fans.end(), [&](const KnownFan& f) { return f.identity == id; });
    if (fan != fans.end()) return *fan;
    std::string names;
    for (const auto& f : fans) names += (names.empty() ? "" : ", ") + f.identity;
    say(stderr, "kelvoctl: unknown fan '%s'; the fans are: %s\n", id.c_str(),
        names.empty() ? "(none found)" : names.c_str());
    return std::nullopt;
}

// A request just written to the settings, and a running Kelvo told to look; false, said, when
// either could not be done.
bool requestLeft(const QSettings& settings, QDBusConnection& bus) {
    if (settings.status() != QSettings::NoError) {
        say(stderr, "kelvoctl: could not write %s\n", settings.fileName().toUtf8().constData());
        return false;
    }
    auto message = QDBusMessage::createSignal(
        kelvo::ExternalControl::objectPath, kelvo::ExternalControl::interfaceName,
        kelvo::ExternalControl::fanSettingsChangedNotificationName);
    if (!bus.send(message)) {
        say(stderr, "kelvoctl: could not send the request: %s\n",
            bus.lastError().message().toUtf8().constData());
        return false;
    }
    return true;
}

// Leaves the request in the settings, tells a running Kelvo to look, and follows what Kelvo
// records in its event table until the calibration ends (or 3 minutes pass).
int calibrateFan(const std::string& sysfsRoot, const QString& identity,
                 const QString& databasePath) {
    QSettings settings(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
    const std::string id = identity.toStdString();
    if (!findFan(sysfsRoot, kelvo::fan_settings::readChoices(settings), id)) return kUsageError;
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        say(stderr, "kelvoctl: no session bus, so no running Kelvo can be asked: %s\n",
            bus.lastError().message().toUtf8().constData());
        return 1;
    }
    kelvo::kelvoctl::CalibrationWatch watch(databasePath.toStdString(), id);
    if (!watch.open()) {
        say(stderr, "kelvoctl: %s\n", watch.error().c_str());
        return 1;
    }
    kelvo::fan_settings::writeCalibrationRequest(
        settings, {QUuid::createUuid().toString(QUuid::WithoutBraces), id});
    if (!requestLeft(settings, bus)) return 1;
    return watch.follow(
        [](const std::string& line) {
            say(stdout, "%s\n", line.c_str());
            std::fflush(stdout);
        },
        [](const std::string& line) { say(stderr, "kelvoctl: %s\n", line.c_str()); });
}

int setFan(const std::string& sysfsRoot, const QString& identity, const QStringList& words) {
    QSettings settings(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
    kelvo::FanChoices stored = kelvo::fan_settings::readChoices(settings);
    const std::string id = identity.toStdString();
    const auto fan = findFan(sysfsRoot, stored, id);
    if (!fan) return kUsageError;
    kelvo::FanState state;
    state.name = fan->identity;
    state.label = fan->label;
    const auto choice = kelvo::parseFanChoice(words.join(QLatin1Char(' ')).toStdString(),
                                              kelvo::effectiveFanChoice(state, stored));
    if (!choice) {
        say(stderr, "kelvoctl: unknown choice '%s'; the choices are: %s\n",
            words.join(QLatin1Char(' ')).toUtf8().constData(), kelvo::fanChoiceWords());
        return kUsageError;
    }
    if (choice->stopWhenCool == true && !kelvo::fanStopWanted(state, *choice)) {
        say(stderr, "kelvoctl: refused: %s is a pump, and a pump never stops\n", id.c_str());
        return 1;
    }
    stored[id] = *choice;
    kelvo::fan_settings::writeChoices(settings, stored);
    if (settings.status() != QSettings::NoError) {
        say(stderr, "kelvoctl: could not write %s\n", settings.fileName().toUtf8().constData());
        return 1;
    }
    say(stdout, "%s: %s\n", id.c_str(), kelvo::formatFanChoice(*choice).c_str());
    const std::string blocker = kelvo::fanStopBlocker(state, *choice);
    if (choice->stopWhenCool == true && !blocker.empty())
        say(stdout, "(no stop while %s)\n", blocker.c_str());
    announceFanSettings();
    return 0;
}

int setShare(const QString& value) {
    if (value != QLatin1String("on") && value != QLatin1String("off")) {
        say(stderr, "kelvoctl: fans share takes 'on' or 'off', not '%s'\n",
            value.toUtf8().constData());
        return kUsageError;
    }
    QSettings settings(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
    const bool share = value == QLatin1String("on");
    kelvo::fan_settings::writeShare(settings, share);
    if (settings.status() != QSettings::NoError) {
        say(stderr, "kelvoctl: could not write %s\n", settings.fileName().toUtf8().constData());
        return 1;
    }
    say(stdout, "Sharing the work among the fans: %s\n", share ? "on" : "off");
    announceFanSettings();
    return 0;
}

// Left in the settings like a calibration request: a running Kelvo acts on it once, one started
// later does not, so without a bus to tell one there is nothing to do.
int measureAgain() {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        say(stderr, "kelvoctl: no session bus, so no running Kelvo can be asked: %s\n",
            bus.lastError().message().toUtf8().constData());
        return 1;
    }
    QSettings settings(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
    kelvo::fan_settings::writeMeasureAgainRequest(
        settings, QUuid::createUuid().toString(QUuid::WithoutBraces));
    if (!requestLeft(settings, bus)) return 1;
    say(stdout,
        "Asked a running Kelvo to measure again which die each fan cools; its events say when "
        "it has dropped what it measured.\n");
    return 0;
}

constexpr kelvo::UserLimitKind kLimitKinds[] = {kelvo::UserLimitKind::cpuQuiet,
                                                kelvo::UserLimitKind::gpuQuiet,
                                                kelvo::UserLimitKind::performanceTarget};
const char* limitWord(kelvo::UserLimitKind kind) {
    switch (kind) {
        case kelvo::UserLimitKind::cpuQuiet: return "cpu";
        case kelvo::UserLimitKind::gpuQuiet: return "gpu";
        case kelvo::UserLimitKind::performanceTarget: return "performance";
    }
    return "cpu";
}

int limits(const std::string& sysfsRoot, const QStringList& words) {
    QSettings settings(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
    const auto critical = kelvo::readDieCriticalTemperatures(sysfsRoot);
    if (words.isEmpty()) {
        const auto current = kelvo::fan_settings::readLimits(settings, critical);
        for (auto kind : kLimitKinds)
            say(stdout, "%-12s %5.1f °C  (%s; accepted %.0f-%.0f °C)\n", limitWord(kind),
                kelvo::userLimit(current, kind), kelvo::userLimitName(kind),
                kelvo::kLowestUserLimitC, kelvo::highestUserLimitC(kind, critical));
        return 0;
    }
    const auto kind = std::find_if(std::begin(kLimitKinds), std::end(kLimitKinds),
                                   [&](auto k) { return words[0] == QLatin1String(limitWord(k)); });
    if (kind == std::end(kLimitKinds)) {
        say(stderr, "kelvoctl: unknown limit '%s'; the limits are: cpu, gpu, performance\n",
            words[0].toUtf8().constData());
        return kUsageError;
    }
    bool ok = false;
    const double value = words.size() == 2 ? words[1].toDouble(&ok) : 0;
    if (!ok) {
        say(stderr, "kelvoctl: limits %s takes one temperature in °C\n", limitWord(*kind));
        return kUsageError;
    }
    const std::string refusal = kelvo::userLimitRefusal(*kind, value, critical);
    if (!refusal.empty()) {
        say(stderr, "kelvoctl: refused: %s\n", refusal.c_str());
        return 1;
    }
    kelvo::fan_settings::writeLimit(settings, *kind, value);
    if (settings.status() != QSettings::NoError) {
        say(stderr, "kelvoctl: could not write %s\n", settings.fileName().toUtf8().constData());
        return 1;
    }
    say(stdout, "%s: %g °C\n", kelvo::userLimitName(*kind), value);
    announceFanSettings();
    return 0;
}

// The command words, without the path options (which take a value each).
QStringList commandWords(const QStringList& args) {
    QStringList words;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& arg = args[i];
        if (arg == QLatin1String("--helper-socket") || arg == QLatin1String("--sysfs-root") ||
            arg == QLatin1String("--database")) {
            ++i;
            continue;
        }
        if (arg.startsWith(QLatin1String("--helper-socket=")) ||
            arg.startsWith(QLatin1String("--sysfs-root=")) ||
            arg.startsWith(QLatin1String("--database=")))
            continue;
        words << arg;
    }
    return words;
}

// --database PATH, else the database a Kelvo of this user writes.
QString databasePath(const QStringList& args) {
    for (qsizetype i = 0; i < args.size(); ++i) {
        if (args[i] == QLatin1String("--database") && i + 1 < args.size()) return args[i + 1];
        if (args[i].startsWith(QLatin1String("--database=")))
            return args[i].mid(static_cast<qsizetype>(std::strlen("--database=")));
    }
    return QDir(kelvo::AppBuildInfo::applicationFolder())
        .filePath(QString::fromLatin1(kelvo::AppBuildInfo::kDefaultDatabaseFileName));
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList all = QCoreApplication::arguments().mid(1);
    if (all == QStringList{QStringLiteral("--help")} || all == QStringList{QStringLiteral("-h")})
        return usage(stdout);
    if (all == QStringList{QStringLiteral("--version")}) {
        say(stdout, "kelvoctl %s (build %s)\n", KELVO_VERSION_STRING, KELVO_BUILD_NUMBER_STRING);
        return 0;
    }
    if (!all.isEmpty() && all.front() == QLatin1String("update"))
        return kelvo::kelvoctl::runUpdateCommand(all.mid(1));
    const QStringList args = commandWords(all);
    const std::string sysfsRoot = kelvo::LaunchPaths::fromArguments(all).sysfsRoot;
    if (args.size() == 1 && args[0] == QLatin1String("fans"))
        return listFans(sysfsRoot, databasePath(all));
    if (args.size() == 2 && args[0] == QLatin1String("fans") &&
        args[1] == QLatin1String("measure-again"))
        return measureAgain();
    if (args.size() >= 2 && args[0] == QLatin1String("fans") && args[1] == QLatin1String("share"))
        return setShare(args.mid(2).join(QLatin1Char(' ')));
    if (args.size() == 3 && args[0] == QLatin1String("fan") &&
        args[2] == QLatin1String("calibrate"))
        return calibrateFan(sysfsRoot, args[1], databasePath(all));
    if (args.size() >= 3 && args[0] == QLatin1String("fan"))
        return setFan(sysfsRoot, args[1], args.mid(2));
    if (!args.isEmpty() && args[0] == QLatin1String("limits") && args.size() <= 3)
        return limits(sysfsRoot, args.mid(1));
    if (args.size() != 2) return usage();
    if (args[0] == QLatin1String("helper")) {
        if (args[1] != QLatin1String("status")) {
            say(stderr, "kelvoctl: unknown helper command '%s'\n", args[1].toUtf8().constData());
            return usage();
        }
        return helperStatus(kelvo::LaunchPaths::fromArguments(all));
    }
    const QString& command = args[0];
    const QString& value = args[1];
    if (command == QLatin1String("mode")) {
        if (!kelvo::controlModeFromRaw(value.toStdString())) {
            say(stderr, "kelvoctl: unknown mode '%s'; the modes are: %s\n",
                value.toUtf8().constData(), modeList().toUtf8().constData());
            return kUsageError;
        }
        return send(kelvo::ExternalControl::setModeNotificationName,
                    {{QString::fromLatin1(kelvo::ExternalControl::modeKey), value}},
                    QStringLiteral("mode ") + value);
    }
    if (command == QLatin1String("cooldown")) {
        if (value != QLatin1String("on") && value != QLatin1String("off")) {
            say(stderr, "kelvoctl: cooldown takes 'on' or 'off', not '%s'\n",
                value.toUtf8().constData());
            return kUsageError;
        }
        return send(kelvo::ExternalControl::setCooldownNotificationName,
                    {{QString::fromLatin1(kelvo::ExternalControl::enabledKey),
                      value == QLatin1String("on")}},
                    QStringLiteral("cooldown ") + value);
    }
    say(stderr, "kelvoctl: unknown command '%s'\n", command.toUtf8().constData());
    return usage();
}

#include "kelvoctl.moc"

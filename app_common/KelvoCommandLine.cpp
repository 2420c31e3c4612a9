#include "app_common/KelvoCommandLine.h"

#include <QCommandLineParser>
#include <array>
#include <vector>

#include "app_common/Legacy.h"

namespace kelvo {

namespace {

struct Flag {
    // The name --help shows first, then the older names still accepted.
    QStringList names;
    // What the rest of the program looks for in the arguments.
    QString internalName;
    QString valueName;  // empty for a flag without a value
    QString help;
    bool hidden = false;
};

const std::vector<Flag>& flags() {
    static const std::vector<Flag> table = {
        {{QStringLiteral("headless")},
         QStringLiteral("--headless"),
         {},
         QStringLiteral("Run without the tray item and the window: one line a second on standard "
                        "output, failures on standard error.")},
        {{QStringLiteral("mode")},
         QStringLiteral("--mode"),
         QStringLiteral("MODE"),
         QStringLiteral(
             "Cool in MODE from now on (kept as the choice, as choosing it in the window "
             "does): system (the firmware's own control), quiet (as quiet as the limits "
             "allow), quietHybrid (quiet, and ready before load comes: the window's "
             "\"Kelvo\"), performance (cool first).")},
        {{QStringLiteral("simulated-fans"), QStringLiteral("harness-simulated-fans")},
         QStringLiteral("--harness-simulated-fans"),
         {},
         QStringLiteral("Run on Kelvo's simulated machine instead of this machine's sensors and "
                        "fans (nothing real is touched).")},
        {{QStringLiteral("helper-only-fans"), QString::fromLatin1(legacy::kHelperOnlyFansFlag + 2)},
         QString::fromLatin1(legacy::kHelperOnlyFansFlag),
         {},
         QStringLiteral("Drive the fans only through kelvo-helperd.")},
        {{QStringLiteral("hwmon-only-fans"), QStringLiteral("local-only-fans")},
         QStringLiteral("--local-only-fans"),
         {},
         QStringLiteral("Drive the fans by writing their hwmon files directly, without "
                        "kelvo-helperd (needs write access to them).")},
        {{QStringLiteral("hwmon-fallback"), QStringLiteral("hybrid-fans")},
         QStringLiteral("--hybrid-fans"),
         {},
         QStringLiteral("Drive the fans through kelvo-helperd, and write hwmon directly while the "
                        "helper is unavailable.")},
        {{QStringLiteral("sysfs-root")},
         QStringLiteral("--sysfs-root"),
         QStringLiteral("PATH"),
         QStringLiteral("Read and write hwmon, thermal and cpufreq under PATH (a kelvo-simhw "
                        "mount, say).")},
        {{QStringLiteral("helper-socket")},
         QStringLiteral("--helper-socket"),
         QStringLiteral("PATH"),
         QStringLiteral("Where kelvo-helperd listens (default /run/kelvo/helper.sock).")},
        {{QStringLiteral("sim-follow-host-load")},
         QStringLiteral("--sim-follow-host-load"),
         {},
         QStringLiteral("Load the simulated machine as much as this machine's CPU is loaded.")},
        {{QStringLiteral("metrics-listen")},
         QStringLiteral("--metrics-listen"),
         QStringLiteral("ADDRESS"),
         QStringLiteral("Serve Prometheus metrics at http://ADDRESS/metrics (127.0.0.1:9464, "
                        "[::1]:9464; a port alone means 127.0.0.1).")},
        {{QStringLiteral("allow-external-control")},
         QStringLiteral("--allow-external-control"),
         {},
         QStringLiteral("Accept mode and cooldown requests from kelvoctl and other programs of "
                        "this session.")},
        {{QStringLiteral("autostart")},
         QStringLiteral("--autostart"),
         QStringLiteral("on|off"),
         QStringLiteral("Start Kelvo with the desktop, or stop doing so, and exit.")},
        {{QStringLiteral("report-first-frame")},
         QStringLiteral("--report-first-frame"),
         {},
         QStringLiteral("Print how long the launch took until the window's first frame.")},
        {{QStringLiteral("capture")},
         QStringLiteral("--capture"),
         {},
         QStringLiteral("Record a capture from launch: the first Ctrl+C stops it and writes the "
                        "bundle, whose path is the last line printed.")},
        {{QStringLiteral("capture-notes")},
         QStringLiteral("--capture-notes"),
         QStringLiteral("TEXT"),
         QStringLiteral("Notes kept with that capture.")},
        // Kept for the capture tests; not something a user needs.
        {{QStringLiteral("adaptive-refresh-after-finalization")},
         QStringLiteral("--adaptive-refresh-after-finalization"),
         {},
         {},
         true},
        {{QStringLiteral("h"), QStringLiteral("help")},
         QStringLiteral("--help"),
         {},
         QStringLiteral("Print this help and exit.")},
        {{QStringLiteral("version")},
         QStringLiteral("--version"),
         {},
         QStringLiteral("Print Kelvo's version and exit.")},
    };
    return table;
}

// QGuiApplication's own options: they reach it through argv and are none of ours to refuse.
struct QtOption {
    const char* name;
    bool takesValue;
};
constexpr std::array<QtOption, 21> kQtOptions = {{
    {"platform", true},      {"platformpluginpath", true},
    {"platformtheme", true}, {"plugin", true},
    {"qmljsdebugger", true}, {"qwindowgeometry", true},
    {"qwindowicon", true},   {"qwindowtitle", true},
    {"session", true},       {"display", true},
    {"geometry", true},      {"style", true},
    {"stylesheet", true},    {"dialogs", true},
    {"fontengine", true},    {"name", true},
    {"title", true},         {"visual", true},
    {"reverse", false},      {"widgetcount", false},
    {"sync", false},
}};

QString flagColumn(const Flag& flag) {
    QString column = flag.names.first().size() == 1
                         ? QStringLiteral("-%1, --%2").arg(flag.names[0], flag.names[1])
                         : QStringLiteral("--") + flag.names.first();
    if (!flag.valueName.isEmpty()) column += QLatin1Char(' ') + flag.valueName;
    return column;
}

QString wrapped(const QString& text, int indent, int width) {
    QString out;
    int column = indent;
    for (const QString& word : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        if (column > indent && column + 1 + word.size() > width) {
            out += QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
            column = indent;
        } else if (column > indent) {
            out += QLatin1Char(' ');
            ++column;
        }
        out += word;
        column += static_cast<int>(word.size());
    }
    return out;
}

KelvoCommandLine failure(const QString& what) {
    KelvoCommandLine result;
    result.outcome = KelvoCommandLine::Outcome::error;
    result.text = what;
    return result;
}

}  // namespace

std::optional<ControlMode> controlModeFromCommandLine(const QString& value) {
    const QString wanted = value.toLower().remove(QLatin1Char('-'));
    if (wanted == QLatin1String("system")) return ControlMode::systemAuto;
    for (ControlMode mode : kAllControlModes)
        if (QString::fromUtf8(rawValue(mode).data()).toLower() == wanted) return mode;
    return std::nullopt;
}

QString KelvoCommandLine::helpText() {
    QString text = QStringLiteral(
        "usage: kelvo [OPTION...]\n"
        "Keeps this computer's fans under an adaptive control loop and shows what it and the\n"
        "hardware do, in the system tray and a dashboard window.\n\n"
        "Options:\n");
    constexpr int kHelpColumn = 30;
    for (const Flag& flag : flags()) {
        if (flag.hidden) continue;
        QString line = QStringLiteral("  ") + flagColumn(flag);
        if (line.size() + 2 > kHelpColumn) {
            line += QLatin1Char('\n') + QString(kHelpColumn, QLatin1Char(' '));
        } else {
            line = line.leftJustified(kHelpColumn);
        }
        text += line + wrapped(flag.help, kHelpColumn, 96) + QLatin1Char('\n');
    }
    text += QStringLiteral("\nSee kelvo(1) and kelvoctl(1).\n");
    return text;
}

QString KelvoCommandLine::versionText() {
    return QStringLiteral("kelvo %1 (build %2)")
        .arg(QStringLiteral(KELVO_VERSION_STRING), QStringLiteral(KELVO_BUILD_NUMBER_STRING));
}

KelvoCommandLine KelvoCommandLine::parse(int argc, char** argv) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i) arguments << QString::fromLocal8Bit(argv[i]);
    return parse(arguments);
}

KelvoCommandLine KelvoCommandLine::parse(const QStringList& arguments) {
    QCommandLineParser parser;
    // Qt's own options are single-dash words (-platform xcb).
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    std::vector<QCommandLineOption> options;
    options.reserve(flags().size());
    for (const Flag& flag : flags()) {
        options.emplace_back(flag.names, flag.help, flag.valueName);
        parser.addOption(options.back());
    }
    for (const QtOption& qt : kQtOptions)
        parser.addOption(QCommandLineOption(QString::fromLatin1(qt.name), QString(),
                                            qt.takesValue ? QStringLiteral("value") : QString()));
    if (!parser.parse(arguments.isEmpty() ? QStringList{QStringLiteral("kelvo")} : arguments))
        return failure(parser.errorText());
    if (!parser.positionalArguments().isEmpty())
        return failure(QStringLiteral("kelvo takes only options, not '%1'.")
                           .arg(parser.positionalArguments().first()));

    KelvoCommandLine result;
    if (parser.isSet(QStringLiteral("help"))) {
        result.outcome = Outcome::help;
        result.text = helpText();
        return result;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        result.outcome = Outcome::version;
        result.text = versionText();
        return result;
    }
    result.arguments << (arguments.isEmpty() ? QStringLiteral("kelvo") : arguments.first());
    for (size_t i = 0; i < flags().size(); ++i) {
        const Flag& flag = flags()[i];
        if (!parser.isSet(options[i])) continue;
        if (flag.valueName.isEmpty()) {
            result.arguments << flag.internalName;
            continue;
        }
        for (const QString& value : parser.values(options[i]))
            result.arguments << flag.internalName << value;
    }
    result.headless = parser.isSet(QStringLiteral("headless"));
    if (parser.isSet(QStringLiteral("mode"))) {
        const QString value = parser.value(QStringLiteral("mode"));
        result.mode = controlModeFromCommandLine(value);
        if (!result.mode)
            return failure(QStringLiteral("--mode takes system, quiet, quietHybrid or "
                                          "performance, not '%1'.")
                               .arg(value));
    }
    if (parser.isSet(QStringLiteral("autostart"))) {
        const QString value = parser.value(QStringLiteral("autostart"));
        if (value != QLatin1String("on") && value != QLatin1String("off"))
            return failure(QStringLiteral("--autostart takes on or off, not '%1'.").arg(value));
    }
    return result;
}

}  // namespace kelvo

// kelvo: runs the thermal-control runtime with its tray item and dashboard window. With
// "--headless" it runs without any window and logs one line per card update; SIGINT/SIGTERM give
// the fans back and exit cleanly either way. `kelvo --help` lists every flag
// (app_common/KelvoCommandLine); a flag it does not know is an error (exit 2).
// "--autostart on|off" adds or removes the desktop's autostart entry and exits.
// "--mode M" starts in mode M and keeps it as the user's choice.
// "--capture [--capture-notes TEXT]" records a beta capture from launch: the first SIGINT stops
// it, finalizes, exports and packages it, and prints the bundle's path as the last line.
#include <sys/socket.h>
#include <unistd.h>
#include <QApplication>
#include <QElapsedTimer>
#include <QQuickWindow>
#include <QSettings>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "app/AppRuntime.h"
#include "app/ControlModeStore.h"
#include "app/HeadlessLog.h"
#include "app/MetricsExporter.h"
#include "app_common/KelvoCommandLine.h"
#include "capture/CaptureCoordinator.h"
#include "desktop/AutostartEntry.h"
#include "desktop/DashboardView.h"
#include "desktop/KelvoApp.h"
#include "desktop/ReopenBridge.h"

namespace {
int signalPipe[2] = {-1, -1};

void onTerminationSignal(int) {
    const char byte = 1;
    // Only async-signal-safe work here: the event loop does the rest.
    [[maybe_unused]] auto written = ::write(signalPipe[1], &byte, 1);
}

bool installSignalHandlers() {
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe) != 0) return false;
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGINT, &action, nullptr) == 0 &&
           ::sigaction(SIGTERM, &action, nullptr) == 0;
}

QString argumentValue(const QStringList& arguments, const QString& name) {
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == name && i + 1 < arguments.size()) return arguments[i + 1];
        if (arguments[i].startsWith(name + QLatin1Char('=')))
            return arguments[i].mid(name.size() + 1);
    }
    return {};
}

void printLine(std::FILE* stream, const QString& line) {
    std::fprintf(stream, "%s\n", line.toUtf8().constData());
    std::fflush(stream);
}

bool nonEmptyEnvironment(const char* name) {
    const char* value = std::getenv(name);
    return value && *value;
}

// An X11 or Wayland session, or a Qt platform chosen explicitly.
bool displayAvailable() {
    return nonEmptyEnvironment("DISPLAY") || nonEmptyEnvironment("WAYLAND_DISPLAY") ||
           nonEmptyEnvironment("QT_QPA_PLATFORM");
}

int applyAutostart(const QStringList& arguments) {
    const QString choice = argumentValue(arguments, QStringLiteral("--autostart"));
    const bool enable = choice == QLatin1String("on");
    if (!kelvo::setAutostartEnabled(enable, QCoreApplication::applicationFilePath())) {
        printLine(stderr, QStringLiteral("kelvo: cannot change ") + kelvo::autostartEntryPath());
        return 1;
    }
    printLine(stdout, (enable ? QStringLiteral("kelvo: starts with the desktop (")
                              : QStringLiteral("kelvo: no longer starts with the desktop (")) +
                          kelvo::autostartEntryPath() + QLatin1Char(')'));
    return 0;
}
}  // namespace

int main(int argc, char** argv) {
    QElapsedTimer launchClock;
    launchClock.start();
    // Read before anything else: --help, --version and a mistyped flag answer without a display,
    // and a mistyped flag never starts Kelvo on the real fans.
    const kelvo::KelvoCommandLine commandLine = kelvo::KelvoCommandLine::parse(argc, argv);
    switch (commandLine.outcome) {
        case kelvo::KelvoCommandLine::Outcome::help:
        case kelvo::KelvoCommandLine::Outcome::version:
            std::fputs(commandLine.text.toUtf8().constData(), stdout);
            std::fputs(commandLine.text.endsWith(QLatin1Char('\n')) ? "" : "\n", stdout);
            return 0;
        case kelvo::KelvoCommandLine::Outcome::error:
            printLine(stderr, QStringLiteral("kelvo: ") + commandLine.text);
            std::fputs(kelvo::KelvoCommandLine::helpText().toUtf8().constData(), stderr);
            return 2;
        case kelvo::KelvoCommandLine::Outcome::run: break;
    }
    const bool headless = commandLine.headless;
    if (!headless && !displayAvailable()) {
        std::fprintf(stderr,
                     "kelvo: no display found (neither X11 nor Wayland: DISPLAY and "
                     "WAYLAND_DISPLAY are unset), so the dashboard cannot open.\n"
                     "kelvo: run `kelvo --headless` to control the fans without a window.\n");
        return 1;
    }
    std::unique_ptr<QCoreApplication> application;
    if (headless)
        application = std::make_unique<QCoreApplication>(argc, argv);
    else
        application = std::make_unique<QApplication>(argc, argv);
    QCoreApplication& app = *application;
    QCoreApplication::setOrganizationName(QStringLiteral("Kelvo"));
    QCoreApplication::setApplicationName(QStringLiteral("Kelvo"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KELVO_VERSION_STRING));

    const QStringList arguments = commandLine.arguments;
    if (arguments.contains(QStringLiteral("--autostart"))) return applyAutostart(arguments);
    QSettings settings(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
    // A second windowed launch shows the running Kelvo's dashboard and leaves.
    if (!headless &&
        kelvo::ReopenBridge::claimOrForward() == kelvo::ReopenBridge::Claim::alreadyRunning) {
        printLine(stdout, QStringLiteral("kelvo: already running; its dashboard is shown"));
        if (commandLine.mode)
            printLine(stderr,
                      QStringLiteral("kelvo: --mode was not applied: choose the mode in the "
                                     "running Kelvo's window, or with `kelvoctl mode` "
                                     "when it runs with --allow-external-control"));
        return commandLine.mode ? 1 : 0;
    }
    if (!headless) kelvo::KelvoApp::willFinishLaunching(settings);
    // The runtime starts in the stored mode: storing the asked-for one first makes it the mode of
    // the very first tick, and the user's choice from then on, as choosing it in the window is.
    if (commandLine.mode) kelvo::ControlModeStore(&settings).select(*commandLine.mode);
    const bool captureMode = arguments.contains(QStringLiteral("--capture"));
    if (!installSignalHandlers()) {
        std::perror("kelvo: cannot install signal handlers");
        return 1;
    }

    kelvo::AppRuntimeOptions options;
    options.arguments = arguments;
    options.settings = &settings;
    // Made by the runtime through the factory, and owned by it; kept typed here for --capture.
    kelvo::CaptureCoordinator* capture = nullptr;
    options.makeCapture = [arguments, headless, &capture](kelvo::ControlLoop& loop,
                                                          kelvo::ProfilingService& service) {
        kelvo::CaptureCoordinatorOptions captureOptions;
        captureOptions.arguments = arguments;
        // Asked to stay without windows: the headless run prints where the export is instead.
        if (headless) captureOptions.reveal = [](const QString&) {};
        auto made =
            std::make_unique<kelvo::CaptureCoordinator>(loop, service, std::move(captureOptions));
        capture = made.get();
        return made;
    };
    // Without a window the failures would go unseen: each one is a line on standard error as it
    // happens, from the start-up ones (a database moved aside, unreadable settings) on.
    if (headless)
        options.eventObserver = [](const kelvo::RuntimeEvent& event) {
            if (event.isFailure)
                printLine(stderr, QStringLiteral("kelvo: failure: ") +
                                      QString::fromStdString(event.message));
        };
    kelvo::AppRuntime runtime(std::move(options));
    // The window shows it among the events; without one, standard error is where users look.
    if (headless)
        QObject::connect(&runtime, &kelvo::AppRuntime::machineExplained, &runtime,
                         [](const QString& sentence) {
                             printLine(stderr, QStringLiteral("kelvo: ") + sentence);
                         });

    std::function<void(int)> finish;
    std::unique_ptr<kelvo::KelvoApp> desktop;
    if (!headless) {
        desktop = std::make_unique<kelvo::KelvoApp>(
            runtime, settings, kelvo::UpdaterConfiguration::fromBuild(), [&finish] { finish(0); });
        desktop->didFinishLaunching();
        auto* window = desktop->lifecycle().dashboardWindow();
        if (arguments.contains(QStringLiteral("--report-first-frame")) && window) {
            auto connection = std::make_shared<QMetaObject::Connection>();
            *connection = QObject::connect(
                window, &QQuickWindow::frameSwapped, window,
                [connection, &launchClock] {
                    // Frames queued before the disconnect still arrive: report the first only.
                    if (!*connection) return;
                    QObject::disconnect(*connection);
                    *connection = {};
                    printLine(stderr, QStringLiteral("kelvo: first dashboard frame after %1 ms")
                                          .arg(launchClock.elapsed()));
                },
                Qt::QueuedConnection);
        }
    }

    // Prometheus metrics, only when asked for; a port that cannot be had costs the metrics only.
    std::unique_ptr<kelvo::MetricsExporter> metrics;
    if (arguments.contains(QStringLiteral("--metrics-listen"))) {
        QString error;
        const auto address = kelvo::parseMetricsListenAddress(
            argumentValue(arguments, QStringLiteral("--metrics-listen")), &error);
        if (address) metrics = kelvo::MetricsExporter::start(*address, &error);
        if (metrics) {
            printLine(
                stderr,
                QStringLiteral("kelvo: metrics at http://%1/metrics").arg(address->bindSpec()));
            QObject::connect(&runtime, &kelvo::AppRuntime::snapshotHandled, &runtime,
                             [&metrics, &runtime](const kelvo::ControlSnapshot& snapshot) {
                                 if (metrics && runtime.live())
                                     metrics->update(snapshot, runtime.live()->benefitSummary());
                             });
        } else {
            printLine(stderr, QStringLiteral("kelvo: metrics: ") + error +
                                  QStringLiteral("; running without metrics"));
        }
    }

    // One line per card update: the card's sample changes at most once a second.
    double lastPrinted = 0;
    auto logConnection = QObject::connect(
        &runtime, &kelvo::AppRuntime::snapshotHandled, &runtime,
        [&runtime, &lastPrinted, headless] {
            if (!headless) return;
            const auto* live = runtime.live();
            const auto& sample = live->latestSample();
            if (!sample || sample->timestamp == lastPrinted) return;
            lastPrinted = sample->timestamp;
            printLine(stdout, kelvo::headlessLine(*sample, runtime.mode(), live->status(),
                                                  live->throttleWarning()));
        });

    finish = [&](int code) {
        QObject::disconnect(logConnection);
        metrics.reset();
        desktop.reset();
        runtime.shutdown();
        printLine(stdout, QStringLiteral("kelvo: stopped; fans released to automatic control"));
        QCoreApplication::exit(code);
    };

    if (captureMode && capture) {
        capture->setBetaCaptureNotes(argumentValue(arguments, QStringLiteral("--capture-notes")));
        QObject::connect(&runtime, &kelvo::AppRuntime::startupCompleted, capture,
                         [capture] { capture->startBetaCapture(); });
        QObject::connect(capture, &kelvo::CaptureCoordinator::startFinished, capture,
                         [capture, &finish](bool started) {
                             if (started) {
                                 printLine(stderr, QStringLiteral("kelvo: capture run %1 started")
                                                       .arg(capture->profilingRunID().value_or(0)));
                                 return;
                             }
                             printLine(stderr,
                                       QStringLiteral("kelvo: ") + capture->profilingMessage());
                             finish(1);
                         });
        QObject::connect(
            capture, &kelvo::CaptureCoordinator::captureResumed, capture, [](qint64 runID) {
                printLine(stderr, QStringLiteral("kelvo: capture run %1 resumed").arg(runID));
            });
        QObject::connect(capture, &kelvo::CaptureCoordinator::resumedNotesHandled, capture,
                         [](qint64, bool, const QString& message) {
                             printLine(stderr, QStringLiteral("kelvo: ") + message);
                         });
        // Stopped by SIGINT or by the run's own plan: either way the bundle ends the process.
        QObject::connect(
            capture, &kelvo::CaptureCoordinator::finalizationFinished, capture,
            [&finish](qint64, const QString&, const QString& bundlePath, const QString& message) {
                printLine(stderr, QStringLiteral("kelvo: ") + message);
                if (bundlePath.isEmpty()) {
                    finish(1);
                    return;
                }
                finish(0);
                printLine(stdout, bundlePath);
            });
    }

    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    bool stopRequested = false;
    QObject::connect(&notifier, &QSocketNotifier::activated, &app, [&] {
        char byte;
        [[maybe_unused]] auto got = ::read(signalPipe[0], &byte, 1);
        // The first signal of a capture run wraps the run up; a second one leaves at once (the
        // run's rows stay in the database for the next launch).
        if (captureMode && capture && !stopRequested && capture->profilingIsRunning()) {
            stopRequested = true;
            printLine(stderr, QStringLiteral("kelvo: stopping the capture..."));
            capture->beginCaptureStop(true);
            return;
        }
        notifier.setEnabled(false);
        finish(stopRequested ? 1 : 0);
    });
    return app.exec();
}

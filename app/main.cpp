// kelvo: runs the thermal-control runtime. Without a window yet, it always runs headless and
// logs one line per card update; SIGINT/SIGTERM give the fans back and exit cleanly.
// "--capture [--capture-notes TEXT]" records a beta capture from launch: the first SIGINT stops
// it, finalizes, exports and packages it, and prints the bundle's path as the last line.
#include <sys/socket.h>
#include <unistd.h>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>

#include "app/AppRuntime.h"
#include "app/HeadlessLog.h"
#include "capture/CaptureCoordinator.h"

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
}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Kelvo"));
    QCoreApplication::setApplicationName(QStringLiteral("Kelvo"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KELVO_VERSION_STRING));

    const QStringList arguments = QCoreApplication::arguments();
    if (!arguments.contains(QStringLiteral("--headless")))
        std::fprintf(stderr, "kelvo: this build has no dashboard window yet; running headless\n");
    const bool captureMode = arguments.contains(QStringLiteral("--capture"));
    if (!installSignalHandlers()) {
        std::perror("kelvo: cannot install signal handlers");
        return 1;
    }

    kelvo::AppRuntimeOptions options;
    options.arguments = arguments;
    const bool headless = arguments.contains(QStringLiteral("--headless"));
    options.makeCapture = [arguments, headless](kelvo::ControlLoop& loop,
                                                kelvo::ProfilingService& service) {
        kelvo::CaptureCoordinatorOptions captureOptions;
        captureOptions.arguments = arguments;
        // Asked to stay without windows: the headless run prints where the export is instead.
        if (headless) captureOptions.reveal = [](const QString&) {};
        return std::make_unique<kelvo::CaptureCoordinator>(loop, service,
                                                           std::move(captureOptions));
    };
    kelvo::AppRuntime runtime(std::move(options));
    auto* capture = dynamic_cast<kelvo::CaptureCoordinator*>(runtime.capture());

    // One line per card update: the card's sample changes at most once a second.
    double lastPrinted = 0;
    auto logConnection = QObject::connect(
        &runtime, &kelvo::AppRuntime::snapshotHandled, &runtime, [&runtime, &lastPrinted] {
            const auto* live = runtime.live();
            const auto& sample = live->latestSample();
            if (!sample || sample->timestamp == lastPrinted) return;
            lastPrinted = sample->timestamp;
            printLine(stdout, kelvo::headlessLine(*sample, runtime.mode(), live->status(),
                                                  live->throttleWarning()));
        });

    auto finish = [&](int code) {
        QObject::disconnect(logConnection);
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

// kelvo: runs the thermal-control runtime. Without a window yet, it always runs headless and
// logs one line per card update; SIGINT/SIGTERM give the fans back and exit cleanly.
#include <sys/socket.h>
#include <unistd.h>
#include <QCoreApplication>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>

#include "app/AppRuntime.h"
#include "app/HeadlessLog.h"

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
}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Kelvo"));
    QCoreApplication::setApplicationName(QStringLiteral("Kelvo"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KELVO_VERSION_STRING));

    const QStringList arguments = QCoreApplication::arguments();
    if (!arguments.contains(QStringLiteral("--headless")))
        std::fprintf(stderr, "kelvo: this build has no dashboard window yet; running headless\n");
    if (!installSignalHandlers()) {
        std::perror("kelvo: cannot install signal handlers");
        return 1;
    }

    kelvo::AppRuntimeOptions options;
    options.arguments = arguments;
    kelvo::AppRuntime runtime(std::move(options));

    // One line per card update: the card's sample changes at most once a second.
    double lastPrinted = 0;
    QObject::connect(&runtime, &kelvo::AppRuntime::snapshotHandled, &runtime,
                     [&runtime, &lastPrinted] {
                         const auto* live = runtime.live();
                         const auto& sample = live->latestSample();
                         if (!sample || sample->timestamp == lastPrinted) return;
                         lastPrinted = sample->timestamp;
                         const QString line = kelvo::headlessLine(
                             *sample, runtime.mode(), live->status(), live->throttleWarning());
                         std::printf("%s\n", line.toUtf8().constData());
                         std::fflush(stdout);
                     });

    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &app, [&] {
        char byte;
        [[maybe_unused]] auto got = ::read(signalPipe[0], &byte, 1);
        notifier.setEnabled(false);
        runtime.shutdown();
        std::printf("kelvo: stopped; fans released to automatic control\n");
        std::fflush(stdout);
        QCoreApplication::exit(0);
    });
    return app.exec();
}

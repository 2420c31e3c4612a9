// kelvo_dashboard_probe: runs the dashboard window on the simulated machine and reports what it
// costs: time to the first frame, CPU use and frames while visible and while hidden, and the
// resident memory after each span. Needs a display (xvfb-run works).
//
//   kelvo_dashboard_probe [--visible-seconds N] [--hidden-seconds N] [--settle-seconds N]
#include <sys/resource.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QQuickWindow>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <atomic>
#include <cstdio>

#include "app/AppRuntime.h"
#include "desktop/AppLifecycleController.h"
#include "desktop/DashboardView.h"
#include "desktop/DashboardViewModel.h"
#include "live/LiveDashboardStore.h"

namespace {

double cpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
           (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long residentKiB() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

// Sleeps in the event loop: the process does only what the application itself asks for.
void runFor(double seconds) {
    QEventLoop loop;
    QTimer::singleShot(static_cast<int>(seconds * 1000), &loop, &QEventLoop::quit);
    loop.exec();
}

double argument(const QStringList& arguments, const QString& name, double fallback) {
    const qsizetype i = arguments.indexOf(name);
    return i >= 0 && i + 1 < arguments.size() ? arguments[i + 1].toDouble() : fallback;
}

struct Span {
    double cpuPerSecond;
    quint64 frames;
    quint64 viewUpdates;
    long residentKiB;
};

}  // namespace

int main(int argc, char** argv) {
    QElapsedTimer launch;
    launch.start();
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    const QStringList arguments = QCoreApplication::arguments();
    const double visibleSeconds = argument(arguments, QStringLiteral("--visible-seconds"), 60);
    const double hiddenSeconds = argument(arguments, QStringLiteral("--hidden-seconds"), 60);
    const double settleSeconds = argument(arguments, QStringLiteral("--settle-seconds"), 5);

    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", home.filePath(QStringLiteral("data")).toUtf8());
    QSettings settings(home.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
    kelvo::AppRuntimeOptions options;
    options.arguments = {QStringLiteral("--harness-simulated-fans")};
    options.settings = &settings;
    kelvo::AppRuntime runtime(std::move(options));
    kelvo::AppLifecycleController controller(&settings);
    controller.configure(&runtime);
    controller.showDashboardWindow();
    kelvo::DashboardView* window = controller.dashboardWindow();
    if (!window) return 1;

    std::atomic<quint64> frames{0};
    QObject::connect(
        window, &QQuickWindow::frameSwapped, window, [&frames] { ++frames; }, Qt::DirectConnection);
    {
        QEventLoop loop;
        QObject::connect(window, &QQuickWindow::frameSwapped, &loop, &QEventLoop::quit,
                         Qt::QueuedConnection);
        if (frames.load() == 0) loop.exec();
    }
    std::printf("first dashboard frame: %lld ms after launch\n",
                static_cast<long long>(launch.elapsed()));

    // Let the chart catch up with its reveal before measuring.
    runFor(settleSeconds);
    auto measure = [&](double seconds) {
        const double cpu = cpuSeconds();
        const quint64 frames0 = frames.load();
        const quint64 updates0 = window->viewModel()->refreshCount();
        runFor(seconds);
        return Span{(cpuSeconds() - cpu) / seconds, frames.load() - frames0,
                    window->viewModel()->refreshCount() - updates0, residentKiB()};
    };
    const Span visible = measure(visibleSeconds);
    window->close();
    const Span hidden = measure(hiddenSeconds);
    const auto print = [](const char* name, double seconds, const Span& span) {
        std::printf(
            "%s for %.0f s: CPU %.1f ms per second, %llu frames, %llu view updates, "
            "resident %ld KiB at the end\n",
            name, seconds, span.cpuPerSecond * 1000, static_cast<unsigned long long>(span.frames),
            static_cast<unsigned long long>(span.viewUpdates), span.residentKiB);
    };
    print("visible", visibleSeconds, visible);
    print("hidden", hiddenSeconds, hidden);
    runtime.shutdown();
    return 0;
}

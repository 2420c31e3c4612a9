// kelvo_dashboard_probe: runs the dashboard window on the simulated machine and reports what it
// costs: time to the first frame, CPU use and frames while visible and while hidden, and the
// resident memory after each span, and how far the chart's content moved between consecutive
// chart frames (in device pixels: more than one is a visible jump). Needs a display (xvfb-run
// works); QT_SCALE_FACTOR=2 gives the 2x figures.
//
//   kelvo_dashboard_probe [--visible-seconds N] [--hidden-seconds N] [--settle-seconds N]
//                         [--trend-window oneMinute|fiveMinutes]
#include <sys/resource.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QMutex>
#include <QOpenGLContext>
#include <QOpenGLFunctions>
#include <QQuickWindow>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#if QT_CONFIG(vulkan)
#include <QVulkanFunctions>
#include <QVulkanInstance>
#endif
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <optional>

#include "app/AppRuntime.h"
#include "dashboard/TrendSectionModel.h"
#include "desktop/AppLifecycleController.h"
#include "desktop/DashboardView.h"
#include "desktop/DashboardViewModel.h"
#include "desktop/KelvoApp.h"
#include "live/LiveDashboardStore.h"
#include "trend_render/FixedViewportTrendHostItem.h"

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
    double largestChartStep;  // device pixels between consecutive chart frames
    quint64 chartFrames;
};

// Read on the render thread while the GUI thread waits for the sync, so the item is still.
struct ChartSteps {
    std::atomic<quint64> chartFrames{0};
    std::atomic<double> largest{0};
    quint64 lastRequest = 0;
    std::optional<double> lastShift;
    void sync(kelvo::FixedViewportTrendHostItem* host, double scale) {
        if (!host || host->requestedFrameCount() == lastRequest) return;
        lastRequest = host->requestedFrameCount();
        const double shift = host->renderer().shiftPixels() * scale;
        // A new snapshot starts the shift again from its own domain: not a step.
        if (lastShift && shift >= *lastShift)
            largest = std::max(largest.load(), shift - *lastShift);
        lastShift = shift;
        ++chartFrames;
    }
};

// The graphics API and the device that draws the window, read once on the render thread, so a
// table row says whether a GPU or a software rasteriser produced it.
struct RendererName {
    QMutex mutex;
    QString text;
    void read(QQuickWindow* window) {
        QString name;
        QSGRendererInterface* rif = window->rendererInterface();
        if (rif->graphicsApi() == QSGRendererInterface::OpenGL) {
            if (QOpenGLContext* context = QOpenGLContext::currentContext()) {
                QOpenGLFunctions* gl = context->functions();
                name = QStringLiteral("OpenGL, %1 (%2)")
                           .arg(QString::fromLatin1(
                                    reinterpret_cast<const char*>(gl->glGetString(GL_RENDERER))),
                                QString::fromLatin1(
                                    reinterpret_cast<const char*>(gl->glGetString(GL_VENDOR))));
            }
#if QT_CONFIG(vulkan)
        } else if (rif->graphicsApi() == QSGRendererInterface::Vulkan) {
            auto* device = static_cast<VkPhysicalDevice*>(
                rif->getResource(window, QSGRendererInterface::PhysicalDeviceResource));
            QVulkanInstance* instance = window->vulkanInstance();
            if (device && instance) {
                VkPhysicalDeviceProperties properties{};
                instance->functions()->vkGetPhysicalDeviceProperties(*device, &properties);
                name = QStringLiteral("Vulkan, %1").arg(QString::fromUtf8(properties.deviceName));
            }
#endif
        }
        if (name.isEmpty()) name = QStringLiteral("graphics API %1").arg(int(rif->graphicsApi()));
        const QMutexLocker lock(&mutex);
        if (text.isEmpty()) text = name;
    }
    QString get() {
        const QMutexLocker lock(&mutex);
        return text;
    }
};

}  // namespace

int main(int argc, char** argv) {
    QElapsedTimer launch;
    launch.start();
    QApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const double visibleSeconds = argument(arguments, QStringLiteral("--visible-seconds"), 60);
    const double hiddenSeconds = argument(arguments, QStringLiteral("--hidden-seconds"), 60);
    const double settleSeconds = argument(arguments, QStringLiteral("--settle-seconds"), 5);
    const qsizetype windowAt = arguments.indexOf(QStringLiteral("--trend-window"));
    const QString trendWindow =
        windowAt >= 0 && windowAt + 1 < arguments.size() ? arguments[windowAt + 1] : QString();

    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", home.filePath(QStringLiteral("data")).toUtf8());
    QSettings settings(home.filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
    // What the application does before its runtime starts (its icon, closing to the tray).
    kelvo::KelvoApp::willFinishLaunching(settings);
    if (!trendWindow.isEmpty())
        settings.setValue(QLatin1String(kelvo::TrendSectionModel::kTrendWindowKey), trendWindow);
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
    RendererName renderer;
    QObject::connect(
        window, &QQuickWindow::beforeRenderPassRecording, window,
        [&renderer, window] {
            if (renderer.get().isEmpty()) renderer.read(window);
        },
        Qt::DirectConnection);
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
    // Work rather than waiting: steadier from run to run than the wall time on a busy machine.
    std::printf("CPU until the first frame: %.0f ms (every thread, from exec)\n",
                cpuSeconds() * 1000);
    std::printf("renderer: %s\n", qPrintable(renderer.get()));
    auto* chart = window->findChild<kelvo::FixedViewportTrendHostItem*>();
    ChartSteps steps;
    const double scale = window->effectiveDevicePixelRatio();
    QObject::connect(
        window, &QQuickWindow::afterSynchronizing, window,
        [&steps, chart, scale] { steps.sync(chart, scale); }, Qt::DirectConnection);

    // Let the chart catch up with its reveal before measuring.
    runFor(settleSeconds);
    auto measure = [&](double seconds) {
        const double cpu = cpuSeconds();
        const quint64 frames0 = frames.load();
        const quint64 updates0 = window->viewModel()->refreshCount();
        const quint64 chartFrames0 = steps.chartFrames.load();
        steps.largest = 0;
        runFor(seconds);
        return Span{(cpuSeconds() - cpu) / seconds,
                    frames.load() - frames0,
                    window->viewModel()->refreshCount() - updates0,
                    residentKiB(),
                    steps.largest.load(),
                    steps.chartFrames.load() - chartFrames0};
    };
    const Span visible = measure(visibleSeconds);
    window->close();
    const Span hidden = measure(hiddenSeconds);
    const auto print = [](const char* name, double seconds, const Span& span) {
        std::printf(
            "%s for %.0f s: CPU %.1f ms per second, %llu frames (%.1f a second), %llu chart "
            "frames, largest chart step %.2f device px, %llu view updates, resident %ld KiB at "
            "the end\n",
            name, seconds, span.cpuPerSecond * 1000, static_cast<unsigned long long>(span.frames),
            span.frames / seconds, static_cast<unsigned long long>(span.chartFrames),
            span.largestChartStep, static_cast<unsigned long long>(span.viewUpdates),
            span.residentKiB);
    };
    print("visible", visibleSeconds, visible);
    print("hidden", hiddenSeconds, hidden);
    runtime.shutdown();
    return 0;
}

// kelvo_dashboard_screenshots: the dashboard as a new user first sees it on this display: fresh
// settings, the window placed and sized by the application itself, the simulated machine running
// for a while. Saves every surface in the light and the dark palette, a picture of the whole
// screen for the light one, and a line per shot with the window's and the screen's geometry.
//
//   kelvo_dashboard_screenshots --out DIR --tag NAME [--warmup-seconds N]
#include <QApplication>
#include <QCursor>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QQuickWindow>
#include <QScreen>
#include <QSettings>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>
#include <cstdio>

#include "app/AppPresentationStore.h"
#include "app/AppRuntime.h"
#include "app_common/AppBuildInfo.h"
#include "capture/CaptureCoordinator.h"
#include "desktop/AppLifecycleController.h"
#include "desktop/DashboardView.h"
#include "desktop/KelvoApp.h"
#include "foundation/core/FanCoupling.h"
#include "foundation/sim/ThermalPlant.h"
#include "foundation/store/SQLiteStore.h"
#include "tools/screenshots/ScreenshotPalettes.h"

namespace {

using kelvo::presentation::AppSurfaceSelection;

constexpr int kFrameDeadlineMs = 30000;

void runFor(int milliseconds) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

// Two frames on screen since now: the layouts follow the latest change by then.
bool waitForFrames(QQuickWindow* window, int count) {
    int swapped = 0;
    QEventLoop loop;
    auto connection = QObject::connect(
        window, &QQuickWindow::frameSwapped, &loop,
        [&] {
            if (++swapped >= count) loop.quit();
        },
        Qt::QueuedConnection);
    QTimer::singleShot(kFrameDeadlineMs, &loop, &QEventLoop::quit);
    window->update();
    loop.exec();
    QObject::disconnect(connection);
    return swapped >= count;
}

QString argument(const QStringList& arguments, const QString& name, const QString& fallback) {
    const qsizetype i = arguments.indexOf(name);
    return i >= 0 && i + 1 < arguments.size() ? arguments[i + 1] : fallback;
}

QString rectText(const QRect& r) {
    return QStringLiteral("%1,%2 %3x%4").arg(r.x()).arg(r.y()).arg(r.width()).arg(r.height());
}

}  // namespace

int main(int argc, char** argv) {
    // A fresh user: nothing saved, before anything reads the settings.
    QTemporaryDir home;
    if (!home.isValid()) return 1;
    qputenv("XDG_DATA_HOME", home.filePath(QStringLiteral("data")).toUtf8());
    qputenv("XDG_CONFIG_HOME", home.filePath(QStringLiteral("config")).toUtf8());
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    // The pointer away from the chart (at the top of the window): a readout under it would make
    // every run's pictures differ.
    if (const QScreen* screen = QGuiApplication::primaryScreen())
        QCursor::setPos(screen->geometry().bottomRight());
    const QStringList arguments = QCoreApplication::arguments();
    const QString out = argument(arguments, QStringLiteral("--out"), QString());
    const QString tag = argument(arguments, QStringLiteral("--tag"), QStringLiteral("screen"));
    bool ok = false;
    const int warmup =
        argument(arguments, QStringLiteral("--warmup-seconds"), QStringLiteral("60")).toInt(&ok);
    if (out.isEmpty() || !ok || warmup < 0 || !QDir().mkpath(out)) {
        std::fprintf(stderr,
                     "usage: kelvo_dashboard_screenshots --out DIR --tag NAME "
                     "[--warmup-seconds N] [--known-fans]\n");
        return 2;
    }

    // Put together as the kelvo program does, with the capture card and the update settings.
    QSettings settings(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                       QSettings::IniFormat);
    // --known-fans: a user whose Kelvo has already measured what its fans cool, in quiet mode,
    // as the Fans pane shows it once the work is shared among them.
    if (arguments.contains(QStringLiteral("--known-fans"))) {
        settings.setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("quiet"));
        kelvo::SQLiteStore store(kelvo::AppBuildInfo::defaultDatabasePath().toStdString());
        const kelvo::sim::PlantConfig plant;
        for (std::size_t i = 0; i < plant.fans.size(); ++i) {
            // The first fan mostly on the CPU, the others mostly on the GPU.
            const double cpu = i == 0 ? 1.0 : 0.2;
            kelvo::FanCouplingEvidence evidence;
            for (int probe = 0; probe < kelvo::kCouplingProbesForConfidence; ++probe)
                for (std::size_t lag = 0; lag < kelvo::kCouplingLagsS.size(); ++lag) {
                    evidence.cpu.byLag[lag].add(cpu, 1);
                    evidence.gpu.byLag[lag].add(1.2 - cpu, 1);
                }
            if (!store.saveFanCoupling(plant.fans[i].name, evidence)) return 1;
        }
    }
    kelvo::KelvoApp::willFinishLaunching(settings);
    kelvo::AppRuntimeOptions options;
    options.arguments = {QStringLiteral("--harness-simulated-fans")};
    options.settings = &settings;
    options.makeCapture = [](kelvo::ControlLoop& loop, kelvo::ProfilingService& service) {
        kelvo::CaptureCoordinatorOptions captureOptions;
        captureOptions.reveal = [](const QString&) {};
        return std::make_unique<kelvo::CaptureCoordinator>(loop, service,
                                                           std::move(captureOptions));
    };
    kelvo::AppRuntime runtime(std::move(options));
    kelvo::KelvoApp desktop(runtime, settings, kelvo::UpdaterConfiguration::fromBuild(),
                            [] { QCoreApplication::quit(); });
    desktop.didFinishLaunching();
    kelvo::DashboardView* window = desktop.lifecycle().dashboardWindow();
    if (!window || !waitForFrames(window, 1)) {
        std::fprintf(stderr, "kelvo_dashboard_screenshots: the dashboard never drew a frame\n");
        return 1;
    }
    runFor(warmup * 1000);

    QFile geometry(QDir(out).filePath(QStringLiteral("geometry.txt")));
    if (!geometry.open(QIODevice::Append | QIODevice::Text)) return 1;
    QTextStream lines(&geometry);
    const QPalette light = QGuiApplication::palette();
    int failures = 0;
    for (const auto& [paletteName, palette] :
         {std::pair{QStringLiteral("light"), light},
          std::pair{QStringLiteral("dark"), kelvo::darkDesktopPalette()}}) {
        QGuiApplication::setPalette(palette);
        for (const AppSurfaceSelection surface :
             {AppSurfaceSelection::dashboard, AppSurfaceSelection::advanced,
              AppSurfaceSelection::capture}) {
            runtime.presentation()->setSelectedSurface(surface);
            if (!waitForFrames(window, 2)) ++failures;
            const QString name = kelvo::presentation::rawValue(surface) + QLatin1Char('-') +
                                 paletteName + QLatin1Char('-') + tag + QStringLiteral(".png");
            if (!window->grabWindow().save(QDir(out).filePath(name))) ++failures;
            if (paletteName == QLatin1String("light")) {
                const QPixmap screen = window->screen()->grabWindow(0);
                if (!screen.save(QDir(out).filePath(QStringLiteral("screen-") + name))) ++failures;
            }
            lines << name << ": window " << rectText(window->frameGeometry()) << " on screen "
                  << rectText(window->screen()->availableGeometry()) << " (logical pixels, "
                  << window->devicePixelRatio() << "x)\n";
            std::printf("%s\n", qPrintable(QDir(out).filePath(name)));
        }
        // The Fans pane, opened as the tray menu does, on the Advanced surface.
        if (auto* fans = runtime.fanSettings()) {
            fans->setPaneOpen(true);
            if (!waitForFrames(window, 2)) ++failures;
            const QString name = QStringLiteral("fans-") + paletteName + QLatin1Char('-') + tag +
                                 QStringLiteral(".png");
            if (!window->grabWindow().save(QDir(out).filePath(name))) ++failures;
            lines << name << ": window " << rectText(window->frameGeometry()) << "\n";
            std::printf("%s\n", qPrintable(QDir(out).filePath(name)));
            fans->setPaneOpen(false);
        }
    }
    QGuiApplication::setPalette(light);
    runtime.shutdown();
    return failures == 0 ? 0 : 1;
}

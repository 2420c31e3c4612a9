// kelvo-chart-demo: the trend chart alone, live, on the simulated machine. Useful to watch the
// scroll, the reveal and the labels without the rest of the dashboard.
//
//   kelvo-chart-demo [--one-minute] [--report-frames] [--screenshot PATH]
//
// --report-frames prints, once a second, how many frames the window rendered and whether the
// chart's frame source is running. --screenshot saves the window after twenty seconds and quits.
#include <QGuiApplication>
#include <QQuickWindow>
#include <QTimer>
#include <cstdio>
#include <memory>

#include "app/AppRuntime.h"
#include "dashboard/TrendSectionModel.h"
#include "desktop/RuntimeTrendModel.h"
#include "trend_render/FixedViewportTrendHostItem.h"
#include "trend_render/FixedViewportTrendView.h"

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Kelvo"));
    QCoreApplication::setApplicationName(QStringLiteral("Kelvo"));
    const QStringList arguments = QCoreApplication::arguments();

    kelvo::AppRuntimeOptions options;
    options.arguments = arguments;
    options.arguments << QStringLiteral("--harness-simulated-fans");
    kelvo::AppRuntime runtime(std::move(options));
    runtime.presentation()->setDashboardWindowVisibility(
        kelvo::presentation::DashboardWindowVisibility::visible);

    std::unique_ptr<kelvo::TrendSectionModel> owned(
        kelvo::makeRuntimeTrendModel(&runtime, nullptr, nullptr));
    kelvo::TrendSectionModel& model = *owned;
    if (arguments.contains(QStringLiteral("--one-minute")))
        model.setTrendWindow(QStringLiteral("oneMinute"));

    QQuickWindow window;
    window.setTitle(QStringLiteral("Kelvo trend chart"));
    window.setColor(QGuiApplication::palette().color(QPalette::Window));
    window.resize(720, 260);
    auto* view = new kelvo::FixedViewportTrendView(window.contentItem());
    auto layout = [&] {
        view->setSize(window.size());
        view->setPlotFrame(QRectF(16, 12, window.width() - 32, window.height() - 48));
    };
    QObject::connect(&window, &QWindow::widthChanged, view, layout);
    QObject::connect(&window, &QWindow::heightChanged, view, layout);
    layout();
    view->setModel(&model);
    window.show();

    quint64 frames = 0;
    QObject::connect(
        &window, &QQuickWindow::frameSwapped, &window, [&frames] { ++frames; },
        Qt::DirectConnection);
    QTimer report;
    if (arguments.contains(QStringLiteral("--report-frames"))) {
        QObject::connect(&report, &QTimer::timeout, &window, [&] {
            std::printf("frames/s %llu  frame source %s\n", static_cast<unsigned long long>(frames),
                        view->host()->displayLinkRunning() ? "running" : "stopped");
            std::fflush(stdout);
            frames = 0;
        });
        report.start(1000);
    }
    const qsizetype shotIndex = arguments.indexOf(QStringLiteral("--screenshot"));
    if (shotIndex >= 0 && shotIndex + 1 < arguments.size()) {
        const QString path = arguments.at(shotIndex + 1);
        QTimer::singleShot(20000, &window, [&window, path] {
            const bool saved = window.grabWindow().save(path);
            std::printf("screenshot %s: %s\n", saved ? "saved" : "failed", qPrintable(path));
            QCoreApplication::quit();
        });
    }
    const int code = app.exec();
    runtime.shutdown();
    return code;
}

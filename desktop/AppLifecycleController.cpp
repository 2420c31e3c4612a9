#include "desktop/AppLifecycleController.h"

#include <QGuiApplication>
#include <QIcon>
#include <QQuickWindow>
#include <QScreen>
#include <QTimer>
#include <array>
#include <cstdio>

#include "app/AppRuntime.h"
#include "app_common/Legacy.h"
#include "desktop/DashboardLayout.h"
#include "desktop/DashboardView.h"
#include "desktop/DashboardWindowPlacement.h"
#include "desktop/KelvoIcon.h"
#include "desktop/WindowChromeAccessor.h"

namespace kelvo {

namespace {
QPointer<AppLifecycleController> sharedController;

QList<QRectF> availableGeometries() {
    QList<QRectF> result;
    for (const QScreen* screen : QGuiApplication::screens())
        result << QRectF(screen->availableGeometry());
    return result;
}

QRectF primaryAvailableGeometry() {
    const QScreen* primary = QGuiApplication::primaryScreen();
    return primary ? QRectF(primary->availableGeometry()) : QRectF();
}

// Decorations around the content; zero until a window manager framed the window.
QMargins frameMargins(const QWindow* window) {
    return window->frameMargins();
}

void setFrameGeometry(QWindow* window, const QRectF& frame, const QMargins& margins) {
    window->setGeometry(qRound(frame.x() + margins.left()), qRound(frame.y() + margins.top()),
                        qRound(frame.width() - margins.left() - margins.right()),
                        qRound(frame.height() - margins.top() - margins.bottom()));
}
}  // namespace

AppLifecycleController::AppLifecycleController(QSettings* defaults, QObject* parent)
    : QObject(parent), defaults_(defaults) {
    if (!sharedController) sharedController = this;
}

AppLifecycleController::~AppLifecycleController() {
    if (dashboardWindow_) dashboardWindow_->removeEventFilter(this);
}

AppLifecycleController* AppLifecycleController::shared() {
    return sharedController.data();
}

void AppLifecycleController::clearLegacyWindowFrameDefaults(QSettings& defaults) {
    for (const QString& key : defaults.allKeys())
        for (const char* prefix : legacy::kWindowFramePrefixes)
            if (key.startsWith(QLatin1String(prefix))) {
                defaults.remove(key);
                break;
            }
}

void AppLifecycleController::configure(AppRuntime* runtime) {
    runtime_ = runtime;
    presentation_ = runtime ? runtime->presentation() : nullptr;
    if (dashboardWindow_) updateWindowVisibility(dashboardWindow_);
}

void AppLifecycleController::installStatusItem() {
    if (statusItem_) return;
    statusItem_ = new QSystemTrayIcon(this);
    const QIcon icon = kelvoTrayIcon();
    statusItem_->setIcon(icon);
    statusItem_->setToolTip(QStringLiteral("Kelvo"));
    // Left click shows the dashboard; the context menu, when set, comes with right click.
    connect(statusItem_, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger) showDashboardWindow();
            });
    statusItem_->show();
}

void AppLifecycleController::setStatusItemMenu(QMenu* menu) {
    if (statusItem_) statusItem_->setContextMenu(menu);
}

void AppLifecycleController::setAppCommands(QObject* commands) {
    appCommands_ = commands;
    if (dashboardWindow_) dashboardWindow_->setAppCommands(commands);
}

void AppLifecycleController::showDashboardWindow() {
    pendingShowRequest_ = true;
    DashboardView* window = ensureDashboardWindow();
    if (!window) return;
    // A window whose QML did not load would never show: each request says why instead.
    if (!window->loadProblem().isEmpty()) {
        pendingShowRequest_ = false;
        reportDashboardProblem(window->loadProblem());
        return;
    }
    // The placement step shows the window when it finishes.
    if (!hasAppliedInitialWindowPlacement_) return;
    pendingShowRequest_ = false;
    bringWindowForward();
}

void AppLifecycleController::bringWindowForward() {
    QQuickWindow* window = dashboardWindow_;
    if (window->windowStates().testFlag(Qt::WindowMinimized))
        window->setWindowStates(window->windowStates() & ~Qt::WindowMinimized);
    window->show();
    window->raise();
    window->requestActivate();
    updateWindowVisibility(window);
}

void AppLifecycleController::handleReopen(bool hasVisibleWindows) {
    if (hasVisibleWindows) {
        if (dashboardWindow_) updateWindowVisibility(dashboardWindow_);
        return;
    }
    showDashboardWindow();
}

DashboardView* AppLifecycleController::ensureDashboardWindow() {
    if (dashboardWindow_) return dashboardWindow_;
    if (!runtime_) return nullptr;
    CaptureSeam* capture = runtime_->capture();
    ownedWindow_ = std::make_unique<DashboardView>(
        runtime_, capture ? capture->viewModel() : nullptr, defaults_,
        dashboardSource_.isEmpty() ? DashboardView::defaultSource() : dashboardSource_);
    if (appCommands_) ownedWindow_->setAppCommands(appCommands_);
    DashboardView* window = ownedWindow_.get();
    window->setIcon(kelvoDecodedIcon());
    // The chrome accessor hands the window back to us and applies the first placement.
    WindowChromeAccessor::attach(window, dashboard_layout::minimumContentWidth, this);
    return window;
}

// The control loop runs on without its window: the user hears why from a notification each time
// they ask for the window, and once in the event list and on standard error.
void AppLifecycleController::reportDashboardProblem(const QString& problem) {
    if (!runtime_) return;
    if (runtime_->notifications())
        runtime_->notifications()->post(QStringLiteral("Kelvo's window cannot open"), problem);
    if (!dashboardLoadProblem_.isEmpty()) return;
    dashboardLoadProblem_ = problem;
    runtime_->eventRing().append(RuntimeEvent::make(problem.toStdString(), true));
    std::fprintf(stderr, "kelvo: %s Kelvo keeps controlling the fans.\n",
                 problem.toLocal8Bit().constData());
}

void AppLifecycleController::attachDashboardWindow(QQuickWindow* window) {
    if (window == dashboardWindow_.data()) {
        updateWindowVisibility(window);
        if (pendingShowRequest_ && hasAppliedInitialWindowPlacement_) showDashboardWindow();
        return;
    }
    if (dashboardWindow_) dashboardWindow_->removeEventFilter(this);
    dashboardWindow_ = qobject_cast<DashboardView*>(window);
    hasAppliedInitialWindowPlacement_ = false;
    isApplyingInitialWindowPlacement_ = false;
    frameFitted_ = false;
    if (!dashboardWindow_) return;
    window->installEventFilter(this);
    updateWindowVisibility(window);
    if (pendingShowRequest_ && hasAppliedInitialWindowPlacement_) showDashboardWindow();
}

void AppLifecycleController::applyInitialWindowPlacement(QQuickWindow* window,
                                                         double minimumContentWidth,
                                                         double fittingContentHeight) {
    isApplyingInitialWindowPlacement_ = true;
    const QVariant persistedWidth = defaults_->value(kContentWidthKey);
    const QVariant x = defaults_->value(kTopLeftXKey);
    const QVariant y = defaults_->value(kTopLeftYKey);
    double width = minimumContentWidth;
    bool ok = false;
    const double stored = persistedWidth.toDouble(&ok);
    if (ok && stored >= minimumContentWidth) width = stored;
    const double height = fittingContentHeight > 1 ? fittingContentHeight : window->height();
    bool okX = false;
    bool okY = false;
    const QPointF topLeft(x.toDouble(&okX), y.toDouble(&okY));
    const QMargins margins = frameMargins(window);
    QSizeF frameSize(width + margins.left() + margins.right(),
                     height + margins.top() + margins.bottom());
    if (persistedWidth.isValid() && okX && okY) {
        setFrameGeometry(window,
                         constrainedDashboardFrame(frameSize, topLeft, availableGeometries(),
                                                   primaryAvailableGeometry()),
                         margins);
    } else {
        // Centred on the primary screen, the frame (decorations included) shrunk to fit it.
        const QRectF area = primaryAvailableGeometry();
        if (!area.isNull()) frameSize = frameSize.boundedTo(area.size());
        QRectF frame(QPointF(), frameSize);
        if (!area.isNull()) frame.moveCenter(area.center());
        setFrameGeometry(window, frame, margins);
    }
    QTimer::singleShot(
        0, this, [this, guard = QPointer<QQuickWindow>(window)] { finishInitialPlacement(guard); });
}

// The first placement happens before the window is shown, when no window manager has framed it
// yet: the title bar and borders it adds afterwards can push the frame past the work area (off
// the top of the screen, under a panel). Once the frame is known, it is brought back inside.
void AppLifecycleController::fitFrameOnScreen(QQuickWindow* window) {
    if (frameFitted_ || window != dashboardWindow_.data() || !window->isExposed()) return;
    const QMargins margins = frameMargins(window);
    if (margins.isNull()) return;  // no decorations (yet): nothing can stick out
    frameFitted_ = true;
    const QRectF frame = window->frameGeometry();
    const QRectF fitted = constrainedDashboardFrame(
        frame.size(), frame.topLeft(), availableGeometries(), primaryAvailableGeometry());
    if (fitted.toAlignedRect() != frame.toAlignedRect()) setFrameGeometry(window, fitted, margins);
}

void AppLifecycleController::finishInitialPlacement(QPointer<QQuickWindow> window) {
    if (!window || window.data() != dashboardWindow_.data()) return;
    isApplyingInitialWindowPlacement_ = false;
    hasAppliedInitialWindowPlacement_ = true;
    persistDashboardWindowPlacement(window);
    if (pendingShowRequest_) showDashboardWindow();
    emit initialPlacementFinished();
}

void AppLifecycleController::persistDashboardWindowPlacement(QQuickWindow* window) {
    if (window != dashboardWindow_.data() || !hasAppliedInitialWindowPlacement_ ||
        isApplyingInitialWindowPlacement_ || (window->windowStates().testFlag(Qt::WindowMinimized)))
        return;
    const QRect frame = window->frameGeometry();
    defaults_->setValue(kContentWidthKey, static_cast<double>(window->width()));
    defaults_->setValue(kTopLeftXKey, static_cast<double>(frame.x()));
    defaults_->setValue(kTopLeftYKey, static_cast<double>(frame.y()));
}

void AppLifecycleController::updateWindowVisibility(QQuickWindow* window) {
    if (window != dashboardWindow_.data()) return;
    DashboardWindowVisibility visibility = DashboardWindowVisibility::offscreen;
    if (!window->isVisible())
        visibility = DashboardWindowVisibility::hidden;
    else if (window->windowStates().testFlag(Qt::WindowMinimized))
        visibility = DashboardWindowVisibility::minimized;
    else if (window->isExposed())
        visibility = DashboardWindowVisibility::visible;
    setVisibility(visibility);
}

void AppLifecycleController::setVisibility(DashboardWindowVisibility visibility) {
    if (presentation_ && presentation_->dashboardWindowVisibility() != visibility)
        presentation_->setDashboardWindowVisibility(visibility);
}

bool AppLifecycleController::windowShouldClose(QQuickWindow* window) {
    window->hide();
    setVisibility(DashboardWindowVisibility::hidden);
    return false;
}

bool AppLifecycleController::eventFilter(QObject* watched, QEvent* event) {
    auto* window = qobject_cast<QQuickWindow*>(watched);
    if (!window || window != dashboardWindow_.data()) return QObject::eventFilter(watched, event);
    switch (event->type()) {
        case QEvent::Close:
            if (!windowShouldClose(window)) {
                event->ignore();
                return true;
            }
            break;
        case QEvent::Move:
        case QEvent::Resize:
            // After the window has handled it, so the geometry is the new one.
            QTimer::singleShot(0, this, [this, guard = QPointer<QQuickWindow>(window)] {
                if (guard) persistDashboardWindowPlacement(guard);
            });
            break;
        case QEvent::WindowStateChange:
            if (window->windowStates().testFlag(Qt::WindowMinimized))
                setVisibility(DashboardWindowVisibility::minimized);
            else
                updateWindowVisibility(window);
            break;
        case QEvent::Expose:
            if (!frameFitted_)
                QTimer::singleShot(0, this, [this, guard = QPointer<QQuickWindow>(window)] {
                    if (guard) fitFrameOnScreen(guard);
                });
            [[fallthrough]];
        case QEvent::Show:
        case QEvent::Hide:
        case QEvent::FocusIn:
        case QEvent::ScreenChangeInternal:
            QTimer::singleShot(0, this, [this, guard = QPointer<QQuickWindow>(window)] {
                if (guard) updateWindowVisibility(guard);
            });
            break;
        default: break;
    }
    return QObject::eventFilter(watched, event);
}

}  // namespace kelvo

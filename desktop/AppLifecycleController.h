// Owns the one dashboard window and the tray item for the life of the process. The window is
// created on the first show, placed once from the persisted placement, hidden (never destroyed)
// when closed, and its visibility is written to the presentation store.
#pragma once

#include <QObject>
#include <QPointer>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QUrl>
#include <memory>

#include "app/AppPresentationStore.h"
#include "desktop/DashboardView.h"

class QMenu;
class QQuickWindow;

namespace kelvo {

class AppRuntime;

class AppLifecycleController : public QObject {
    Q_OBJECT
public:
    static constexpr const char* kContentWidthKey = "kelvo.dashboard.window.content_width";
    static constexpr const char* kTopLeftXKey = "kelvo.dashboard.window.top_left_x";
    static constexpr const char* kTopLeftYKey = "kelvo.dashboard.window.top_left_y";

    // `defaults` must outlive the controller. The first controller made is the shared one.
    explicit AppLifecycleController(QSettings* defaults, QObject* parent = nullptr);
    ~AppLifecycleController() override;
    static AppLifecycleController* shared();

    // Removes window-frame keys that older builds wrote.
    static void clearLegacyWindowFrameDefaults(QSettings& defaults);

    void configure(AppRuntime* runtime);
    void installStatusItem();
    // The tray item's context menu (right click); the controller does not own it.
    void setStatusItemMenu(QMenu* menu);
    // Commands the dashboard's top bar offers; applied to the window now or when it is made.
    void setAppCommands(QObject* commands);
    void showDashboardWindow();
    // A second launch (or the desktop's activation) while running.
    void handleReopen(bool hasVisibleWindows);
    void attachDashboardWindow(QQuickWindow* window);
    void applyInitialWindowPlacement(QQuickWindow* window, double minimumContentWidth,
                                     double fittingContentHeight);

    DashboardView* dashboardWindow() const { return dashboardWindow_.data(); }
    // The dashboard's QML, before the window is made (tests load a broken one).
    void setDashboardSource(const QUrl& source) { dashboardSource_ = source; }
    // Why the dashboard window cannot open (its QML did not load); empty while it can.
    const QString& dashboardLoadProblem() const { return dashboardLoadProblem_; }
    QSystemTrayIcon* statusItem() const { return statusItem_; }
    bool pendingShowRequest() const { return pendingShowRequest_; }
    bool hasAppliedInitialWindowPlacement() const { return hasAppliedInitialWindowPlacement_; }

signals:
    // After the first placement of a window finished (and any pending show was carried out).
    void initialPlacementFinished();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    DashboardView* ensureDashboardWindow();
    void reportDashboardProblem(const QString& problem);
    void finishInitialPlacement(QPointer<QQuickWindow> window);
    void bringWindowForward();
    void fitFrameOnScreen(QQuickWindow* window);
    void persistDashboardWindowPlacement(QQuickWindow* window);
    void updateWindowVisibility(QQuickWindow* window);
    void setVisibility(DashboardWindowVisibility visibility);
    bool windowShouldClose(QQuickWindow* window);

    QSettings* defaults_;
    QPointer<AppRuntime> runtime_;
    QPointer<AppPresentationStore> presentation_;
    QPointer<DashboardView> dashboardWindow_;
    QUrl dashboardSource_;  // empty: the dashboard's own
    QString dashboardLoadProblem_;
    std::unique_ptr<DashboardView> ownedWindow_;
    QSystemTrayIcon* statusItem_ = nullptr;
    QPointer<QObject> appCommands_;
    bool pendingShowRequest_ = false;
    bool hasAppliedInitialWindowPlacement_ = false;
    bool isApplyingInitialWindowPlacement_ = false;
    bool frameFitted_ = false;
};

}  // namespace kelvo

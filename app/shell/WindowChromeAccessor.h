// Connects the dashboard's content to its window: hands the window to the lifecycle controller,
// keeps the window's minimum width at the layout's minimum, widens a narrower window once, and
// starts the window's first placement.
#pragma once

#include <QObject>
#include <QPointer>

class QQuickView;

namespace kelvo {

class AppLifecycleController;

class WindowChromeAccessor : public QObject {
    Q_OBJECT
public:
    // Lives as long as `window` (its child).
    static WindowChromeAccessor* attach(QQuickView* window, double targetContentWidth,
                                        AppLifecycleController* controller);

    double targetContentWidth() const { return targetContentWidth_; }
    bool appliedInitialContentFit() const { return appliedInitialContentFit_; }
    double lastAppliedContentWidth() const { return lastAppliedContentWidth_; }

    void update();

private:
    WindowChromeAccessor(QQuickView* window, double targetContentWidth,
                         AppLifecycleController* controller);

    QQuickView* window_;
    double targetContentWidth_;
    QPointer<AppLifecycleController> controller_;
    QPointer<QQuickView> resolvedWindow_;
    bool appliedInitialContentFit_ = false;
    double lastAppliedContentWidth_ = 0;
    bool placementStarted_ = false;
};

}  // namespace kelvo

// Connects the dashboard's content to its window: hands the window to the lifecycle controller,
// keeps the window's minimum width at the content's minimum (never wider than the screen),
// widens a narrower window once, and starts the window's first placement.
#pragma once

#include <QObject>
#include <QPointer>

class QQuickView;

namespace kelvo {

class AppLifecycleController;

class WindowChromeAccessor : public QObject {
    Q_OBJECT
public:
    // Lives as long as `window` (its child). `minimumContentWidth` is a floor; the content's own
    // "minimumContentWidth" property, where its root item has one, raises it.
    static WindowChromeAccessor* attach(QQuickView* window, double minimumContentWidth,
                                        AppLifecycleController* controller);

    // The content's minimum width: the floor, or the content's own minimum when that is wider.
    double targetContentWidth() const;
    bool appliedInitialContentFit() const { return appliedInitialContentFit_; }
    double lastAppliedContentWidth() const { return lastAppliedContentWidth_; }

public slots:
    void update();

private:
    WindowChromeAccessor(QQuickView* window, double minimumContentWidth,
                         AppLifecycleController* controller);
    void watchContentMinimum();
    void settleContentLayout();
    double fittingHeightAt(int width);
    // The screen area the window may use; null before the window has a screen.
    QRect availableArea() const;

    QQuickView* window_;
    double minimumContentWidthFloor_;
    QPointer<AppLifecycleController> controller_;
    QPointer<QQuickView> resolvedWindow_;
    bool appliedInitialContentFit_ = false;
    double lastAppliedContentWidth_ = 0;
    bool placementStarted_ = false;
    bool watchingContentMinimum_ = false;
};

}  // namespace kelvo

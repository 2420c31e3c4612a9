#include "app/shell/WindowChromeAccessor.h"

#include <QQuickItem>
#include <QQuickView>
#include <cmath>

#include "app/shell/AppLifecycleController.h"

namespace kelvo {

WindowChromeAccessor* WindowChromeAccessor::attach(QQuickView* window, double targetContentWidth,
                                                   AppLifecycleController* controller) {
    auto* accessor = new WindowChromeAccessor(window, targetContentWidth, controller);
    accessor->update();
    return accessor;
}

WindowChromeAccessor::WindowChromeAccessor(QQuickView* window, double targetContentWidth,
                                           AppLifecycleController* controller)
    : QObject(window),
      window_(window),
      targetContentWidth_(targetContentWidth),
      controller_(controller) {
    connect(window, &QQuickView::statusChanged, this, &WindowChromeAccessor::update);
}

void WindowChromeAccessor::update() {
    if (!window_->rootObject() || !controller_) return;
    if (resolvedWindow_.data() != window_) {
        resolvedWindow_ = window_;
        controller_->attachDashboardWindow(window_);
    }
    if (targetContentWidth_ <= 0) return;
    const double fittingHeight = window_->rootObject()->implicitHeight();
    if (std::abs(window_->minimumWidth() - targetContentWidth_) > 0.5)
        window_->setMinimumSize(QSize(static_cast<int>(std::ceil(targetContentWidth_)), 0));
    if (window_->width() < targetContentWidth_ - 0.5) {
        const int height = fittingHeight > 1 ? static_cast<int>(fittingHeight) : window_->height();
        window_->resize(static_cast<int>(std::ceil(targetContentWidth_)), height);
        appliedInitialContentFit_ = true;
        lastAppliedContentWidth_ = targetContentWidth_;
    }
    if (placementStarted_) return;
    placementStarted_ = true;
    controller_->applyInitialWindowPlacement(window_, targetContentWidth_, fittingHeight);
}

}  // namespace kelvo

#include "desktop/WindowChromeAccessor.h"

#include <QMetaMethod>
#include <QQuickItem>
#include <QQuickView>
#include <QScreen>
#include <algorithm>
#include <cmath>
#include <functional>

#include "desktop/AppLifecycleController.h"

namespace kelvo {

namespace {
constexpr char kContentMinimumProperty[] = "minimumContentWidth";
}

WindowChromeAccessor* WindowChromeAccessor::attach(QQuickView* window, double minimumContentWidth,
                                                   AppLifecycleController* controller) {
    auto* accessor = new WindowChromeAccessor(window, minimumContentWidth, controller);
    accessor->update();
    return accessor;
}

WindowChromeAccessor::WindowChromeAccessor(QQuickView* window, double minimumContentWidth,
                                           AppLifecycleController* controller)
    : QObject(window),
      window_(window),
      minimumContentWidthFloor_(minimumContentWidth),
      controller_(controller) {
    connect(window, &QQuickView::statusChanged, this, &WindowChromeAccessor::update);
    connect(window, &QWindow::screenChanged, this, &WindowChromeAccessor::update);
}

double WindowChromeAccessor::targetContentWidth() const {
    double target = minimumContentWidthFloor_;
    if (const QQuickItem* root = window_->rootObject()) {
        bool ok = false;
        const double content = root->property(kContentMinimumProperty).toDouble(&ok);
        if (ok && std::isfinite(content)) target = std::max(target, content);
    }
    return target;
}

QRect WindowChromeAccessor::availableArea() const {
    const QScreen* screen = window_->screen();
    return screen ? screen->availableGeometry() : QRect();
}

// The content's minimum follows its fonts and texts; keep the window's minimum with it.
void WindowChromeAccessor::watchContentMinimum() {
    QQuickItem* root = window_->rootObject();
    if (watchingContentMinimum_ || !root) return;
    const QMetaObject* meta = root->metaObject();
    const int index = meta->indexOfProperty(kContentMinimumProperty);
    if (index < 0 || !meta->property(index).hasNotifySignal()) return;
    const QMetaMethod updateSlot = metaObject()->method(metaObject()->indexOfSlot("update()"));
    connect(root, meta->property(index).notifySignal(), this, updateSlot);
    watchingContentMinimum_ = true;
}

// Layouts and positioners work out their natural sizes when they are polished, which happens
// frame by frame once the window shows; nested ones take a frame per level. The first placement
// needs the final minimum width, so polish the whole content now, innermost items first, until
// the minimum stops changing.
void WindowChromeAccessor::settleContentLayout() {
    QQuickItem* root = window_->rootObject();
    if (!root) return;
    const std::function<void(QQuickItem*)> polishTree = [&](QQuickItem* item) {
        for (QQuickItem* child : item->childItems()) polishTree(child);
        item->ensurePolished();
    };
    constexpr int kMaxPasses = 8;  // one per nesting level is plenty
    double before = targetContentWidth();
    for (int pass = 0; pass < kMaxPasses; ++pass) {
        polishTree(root);
        const double after = targetContentWidth();
        if (after == before) break;
        before = after;
    }
}

// The content's natural height when laid out at `width`: texts wrap and grids reflow with the
// width, so measuring at the window's initial width would misjudge the first placement's height.
// The narrowest width gives the tallest layout, so a wider saved width only leaves some room.
double WindowChromeAccessor::fittingHeightAt(int width) {
    QQuickItem* root = window_->rootObject();
    if (!root) return 0;
    if (root->width() != width) {
        root->setWidth(width);
        settleContentLayout();
    }
    return root->implicitHeight();
}

void WindowChromeAccessor::update() {
    if (!window_->rootObject() || !controller_) return;
    if (resolvedWindow_.data() != window_) {
        resolvedWindow_ = window_;
        controller_->attachDashboardWindow(window_);
    }
    watchContentMinimum();
    if (!placementStarted_) settleContentLayout();
    const double target = targetContentWidth();
    if (target <= 0) return;
    // A screen narrower than the content's minimum still gets a window that fits on it; the
    // content scrolls sideways there.
    const QRect area = availableArea();
    const int minimumWidth = static_cast<int>(
        std::ceil(area.isEmpty() ? target : std::min<double>(target, area.width())));
    const double fittingHeight =
        placementStarted_ ? window_->rootObject()->implicitHeight() : fittingHeightAt(minimumWidth);
    if (window_->minimumWidth() != minimumWidth) window_->setMinimumSize(QSize(minimumWidth, 0));
    if (window_->width() < minimumWidth) {
        int height =
            fittingHeight > 1 ? static_cast<int>(std::ceil(fittingHeight)) : window_->height();
        if (!area.isEmpty()) height = std::min(height, area.height());
        window_->resize(minimumWidth, height);
        appliedInitialContentFit_ = true;
        lastAppliedContentWidth_ = minimumWidth;
    }
    if (placementStarted_) return;
    placementStarted_ = true;
    controller_->applyInitialWindowPlacement(window_, minimumWidth, fittingHeight);
}

}  // namespace kelvo

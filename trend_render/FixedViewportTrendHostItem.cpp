#include "trend_render/FixedViewportTrendHostItem.h"

#include <QFontMetricsF>
#include <QGuiApplication>
#include <QQuickWindow>
#include <QScreen>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "foundation/chart/FixedViewportXAxisLabelLayout.h"
#include "foundation/chart/TrendAnalysis.h"
#include "trend_render/TrendPaletteWatcher.h"

namespace kelvo {

namespace {
double steadySeconds() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// The snapshot's end on the data timeline: the newest time its series reach.
Timestamp domainEndDate(const FixedViewportTrendSnapshot& snapshot) {
    return snapshot.viewportDomain.referenceUpperBound;
}

double revealSeconds(const FixedViewportTrendSnapshot& snapshot) {
    return std::max(FixedViewportTrendHostItem::kMinimumRevealSeconds,
                    snapshot.liveRevealDurationSeconds);
}
}  // namespace

FixedViewportTrendHostItem::FixedViewportTrendHostItem(QQuickItem* parent)
    : QQuickItem(parent),
      appearance_(TrendChartAppearance::current()),
      wallClock_(wallClockNow),
      mediaClock_(steadySeconds) {
    setFlag(ItemHasContents);
    labelAscent_ = QFontMetricsF(TrendChartAppearance::labelFont()).ascent();
    // Made inside a window already: the scene change happened before our override existed.
    if (window()) attachToWindow(window());
    connect(TrendPaletteWatcher::instance(), &TrendPaletteWatcher::paletteChanged, this,
            &FixedViewportTrendHostItem::viewDidChangeEffectiveAppearance);
}

FixedViewportTrendHostItem::~FixedViewportTrendHostItem() {
    stopDisplayLink(true);
}

void FixedViewportTrendHostItem::setClocks(WallClock wall, MediaClock media) {
    wallClock_ = std::move(wall);
    mediaClock_ = std::move(media);
}

void FixedViewportTrendHostItem::update(const FixedViewportTrendSnapshot& snapshot,
                                        std::optional<Timestamp> latestSampleTimestamp,
                                        const QRectF& plotFrame,
                                        std::vector<FixedViewportTrendReferenceLabel> xLabels) {
    const Timestamp now = wallClock_();
    if (!snapshot_ || snapshot_->viewportDomain.visibleWindowSeconds !=
                          snapshot.viewportDomain.visibleWindowSeconds) {
        // A new trend window: the old timeline and its labels mean nothing any more.
        cachedLiveXAxisLabelDisplayDate_.reset();
        cachedLiveXAxisLabelVisibleWindowSeconds_.reset();
        scrollingLabelStates_.clear();
        continuousDisplayUpperBound_ = domainEndDate(snapshot);
        lastDisplayUpperBoundUpdateAt_ = now;
        lastXAxisLabelUpdateAt_.reset();
        lastXAxisLabelShiftPixels_.reset();
    } else if (domainEndDate(snapshot) < domainEndDate(*snapshot_)) {
        continuousDisplayUpperBound_ = domainEndDate(snapshot);
        lastDisplayUpperBoundUpdateAt_ = now;
    }
    snapshot_ = snapshot;
    latestSampleTimestamp_ = latestSampleTimestamp;
    plotFrame_ = plotFrame;
    xLabels_ = std::move(xLabels);
    if (windowIsShown() && !wasWindowVisible_) {
        resetXAxisLabelState(now);
        wasWindowVisible_ = true;
    }
    renderer_.update(*snapshot_, plotFrame_, appearance_);
    renderer_.setLiveRevealProgress(
        currentLiveRevealProgress(currentDisplayUpperBound(now, false)));
    syncScrollingXAxisLabels();
    const double shift = wholeDevicePixels(currentShiftPixels());
    renderer_.setShiftPixels(shift);
    updateXAxisLabels(shift);
    lastXAxisLabelUpdateAt_ = mediaClock_();
    lastXAxisLabelShiftPixels_ = shift;
    if (shouldRunDisplayLink(now))
        startDisplayLinkIfNeeded();
    else
        stopDisplayLink(false);
    queueTick(true);
}

Timestamp FixedViewportTrendHostItem::liveAnimationUpperBound(
    const FixedViewportTrendSnapshot& snapshot) const {
    const Timestamp end = domainEndDate(snapshot);
    return std::max(end, latestSampleTimestamp_.value_or(end)) + revealSeconds(snapshot);
}

Timestamp FixedViewportTrendHostItem::currentDisplayUpperBound(Timestamp now, bool advance) {
    if (!snapshot_) return now;
    const Timestamp floor = now - revealSeconds(*snapshot_);
    const Timestamp target = liveAnimationUpperBound(*snapshot_);
    if (!continuousDisplayUpperBound_) continuousDisplayUpperBound_ = target;
    if (advance && lastDisplayUpperBoundUpdateAt_) {
        const double elapsed = std::max(0.0, now - *lastDisplayUpperBoundUpdateAt_);
        if (elapsed > 0) *continuousDisplayUpperBound_ += elapsed;
    }
    lastDisplayUpperBoundUpdateAt_ = now;
    const Timestamp result = std::min(target, std::max(floor, *continuousDisplayUpperBound_));
    continuousDisplayUpperBound_ = result;
    return result;
}

double FixedViewportTrendHostItem::currentShiftPixels(std::optional<Timestamp> upper) {
    if (!snapshot_ || snapshot_->viewportDomain.visibleWindowSeconds <= 0) return 0;
    const Timestamp bound = upper ? *upper : currentDisplayUpperBound(wallClock_(), false);
    return (bound - domainEndDate(*snapshot_)) / snapshot_->viewportDomain.visibleWindowSeconds *
           plotFrame_.width();
}

double FixedViewportTrendHostItem::timeAtX(double x) const {
    if (!snapshot_ || snapshot_->viewportDomain.visibleWindowSeconds <= 0 ||
        plotFrame_.width() <= 0)
        return std::numeric_limits<double>::quiet_NaN();
    const auto& domain = snapshot_->viewportDomain;
    return domain.visibleLowerBound() + (x - plotFrame_.left() + renderer_.shiftPixels()) /
                                            plotFrame_.width() * domain.visibleWindowSeconds;
}

double FixedViewportTrendHostItem::xAtTime(Timestamp time) const {
    if (!snapshot_ || snapshot_->viewportDomain.visibleWindowSeconds <= 0)
        return std::numeric_limits<double>::quiet_NaN();
    const auto& domain = snapshot_->viewportDomain;
    return plotFrame_.left() +
           (time - domain.visibleLowerBound()) / domain.visibleWindowSeconds * plotFrame_.width() -
           renderer_.shiftPixels();
}

double FixedViewportTrendHostItem::wholeDevicePixels(double shiftPixels) const {
    // Drawn on whole device pixels, the content moves exactly one pixel from frame to frame;
    // a shift in between would only blur the step the next frame makes anyway.
    const double scale = backingScale();
    return std::round(shiftPixels * scale) / scale;
}

double FixedViewportTrendHostItem::currentLiveRevealProgress(std::optional<Timestamp> upper) {
    if (!snapshot_) return 1.0;
    const Timestamp bound = upper ? *upper : currentDisplayUpperBound(wallClock_(), false);
    const double progress = std::max(0.0, bound - domainEndDate(*snapshot_)) /
                            std::max(0.001, snapshot_->liveRevealDurationSeconds);
    return std::min(1.0, progress);
}

bool FixedViewportTrendHostItem::windowIsShown() const {
    const QQuickWindow* w = window();
    return w && w->isVisible() && w->visibility() != QWindow::Minimized &&
           !(w->windowStates() & Qt::WindowMinimized);
}

bool FixedViewportTrendHostItem::windowIsOnScreen() const {
    // An X11 window that is unmapped or fully covered is reported as not exposed.
    return windowIsShown() && window()->isExposed();
}

bool FixedViewportTrendHostItem::viewCanDraw() const {
    return windowIsOnScreen() && isVisible() && parentItem() && width() > 0 && height() > 0;
}

bool FixedViewportTrendHostItem::shouldRunDisplayLink(Timestamp now) {
    if (!snapshot_ || !viewCanDraw()) return false;
    return currentDisplayUpperBound(now, false) < liveAnimationUpperBound(*snapshot_);
}

void FixedViewportTrendHostItem::setDisplayLinkRunning(bool running) {
    if (displayLinkRunning_ == running) return;
    displayLinkRunning_ = running;
    emit displayLinkRunningChanged();
}

void FixedViewportTrendHostItem::startDisplayLinkIfNeeded() {
    if (displayLinkRunning_) return;
    if (!displayLink_) {
        displayLink_ = new QTimer(this);
        displayLink_->setTimerType(Qt::PreciseTimer);
        connect(displayLink_, &QTimer::timeout, this, [this] { queueTick(false); });
    }
    const QScreen* screen = window() ? window()->screen() : QGuiApplication::primaryScreen();
    const double rate = screen && screen->refreshRate() > 1 ? screen->refreshRate() : 60.0;
    // Rounded up, so that the tick throttle (at most 60 a second) never drops a regular tick.
    displayPeriodMs_ = static_cast<int>(std::ceil(1000.0 / rate));
    displayLink_->start(pacedTickMilliseconds());
    setDisplayLinkRunning(displayLink_->isActive());
}

// A tick wakes the GUI thread, and on the 5-minute window the plot moves a device pixel only
// every 15th or so; the waking cost more than the frames. Between two steps nothing on the chart
// changes unless a label fades, so the tick waits for the step, still in whole display periods.
int FixedViewportTrendHostItem::pacedTickMilliseconds() const {
    const auto fades = [](const FixedViewportTrendLabelSprite& sprite) {
        return sprite.opacity > 0 && sprite.opacity < 1;
    };
    const bool fading = std::any_of(scrollingLabelSpritesScratch_.begin(),
                                    scrollingLabelSpritesScratch_.end(), fades) ||
                        (liveLabelSprite_ && fades(*liveLabelSprite_));
    const double window = snapshot_ ? snapshot_->viewportDomain.visibleWindowSeconds : 0;
    const double devicePixelsPerSecond =
        window > 0 ? plotFrame_.width() / window * backingScale() : 0;
    if (fading || devicePixelsPerSecond <= 0) return displayPeriodMs_;
    // The rounded shift steps where the raw one crosses the next half pixel.
    const double shift = rawShiftPixels_ * backingScale();
    const double untilStep = (std::floor(shift + 0.5) + 0.5 - shift) / devicePixelsPerSecond;
    const int periods =
        std::max(1, static_cast<int>(std::ceil(untilStep * 1000 / displayPeriodMs_)));
    return std::min(kLongestPacedTickMs, periods * displayPeriodMs_);
}

void FixedViewportTrendHostItem::stopDisplayLink(bool release) {
    if (displayLink_) displayLink_->stop();
    setDisplayLinkRunning(false);
    if (release && displayLink_) {
        displayLink_->deleteLater();
        displayLink_ = nullptr;
    }
}

void FixedViewportTrendHostItem::queueTick(bool force) {
    if (force) inputsChanged_ = true;
    if (!window() || tickQueued_) return;
    const double t = mediaClock_();
    if (!force && lastTickEnqueueAt_ > 0 && t - lastTickEnqueueAt_ < kMinimumTickInterval) return;
    lastTickEnqueueAt_ = t;
    tickQueued_ = true;
    QMetaObject::invokeMethod(
        this,
        [self = QPointer<FixedViewportTrendHostItem>(this)] {
            if (!self) return;
            self->tickQueued_ = false;
            self->tick();
        },
        Qt::QueuedConnection);
}

void FixedViewportTrendHostItem::refreshWindowVisibility(Timestamp now) {
    if (windowIsShown()) {
        if (!wasWindowVisible_) {
            resetXAxisLabelState(now);
            wasWindowVisible_ = true;
        }
    } else {
        wasWindowVisible_ = false;
    }
}

void FixedViewportTrendHostItem::advanceFrame(Timestamp now) {
    const Timestamp upper = currentDisplayUpperBound(now, true);
    rawShiftPixels_ = currentShiftPixels(upper);
    const double shift = wholeDevicePixels(rawShiftPixels_);
    renderer_.setShiftPixels(shift);
    renderer_.setLiveRevealProgress(currentLiveRevealProgress(upper));
    updateXAxisLabelsIfNeeded(now, shift, false);
}

void FixedViewportTrendHostItem::tick() {
    if (!window()) {
        stopDisplayLink(true);
        return;
    }
    const Timestamp now = wallClock_();
    refreshWindowVisibility(now);
    if (viewCanDraw()) {
        advanceFrame(now);
        if (inputsChanged_ || currentFrameContent() != lastRequestedContent_) {
            if (renderer_.frameInFlight())
                redrawPending_ = true;
            else
                requestFrame();
        }
    }
    if (!shouldRunDisplayLink(now)) {
        if (displayLinkRunning_) stopDisplayLink(false);
    } else if (!displayLinkRunning_) {
        startDisplayLinkIfNeeded();
    } else {
        displayLink_->start(pacedTickMilliseconds());
    }
}

FixedViewportTrendHostItem::FrameContent FixedViewportTrendHostItem::currentFrameContent() const {
    const double scale = backingScale();
    const auto device = [scale](double points) { return std::llround(points * scale); };
    FrameContent content;
    content.shift = device(renderer_.shiftPixels());
    // A scrolling label moves with the chart, so its place is kept relative to the shift: it
    // asks for no frame of its own as it crosses a pixel at another moment than the plot does.
    const auto add = [&](const FixedViewportTrendLabelSprite& sprite, double scrolledBy) {
        content.labels.push_back({sprite.text, device(sprite.frame.x() + scrolledBy),
                                  device(sprite.frame.y()),
                                  static_cast<int>(std::lround(sprite.opacity * 255.0f))});
    };
    const double laidOutAt = lastXAxisLabelShiftPixels_.value_or(renderer_.shiftPixels());
    for (const auto& sprite : scrollingLabelSpritesScratch_) add(sprite, laidOutAt);
    if (liveLabelSprite_) add(*liveLabelSprite_, 0);
    return content;
}

void FixedViewportTrendHostItem::requestFrame() {
    redrawPending_ = false;
    inputsChanged_ = false;
    lastRequestedContent_ = currentFrameContent();
    ++requestedFrameCount_;
    QQuickItem::update();
}

void FixedViewportTrendHostItem::frameSwapped() {
    renderer_.frameCompleted();
    // A tick that found the previous frame still on its way left its frame to us.
    if (redrawPending_ && viewCanDraw()) requestFrame();
}

QSGNode* FixedViewportTrendHostItem::updatePaintNode(QSGNode* oldNode, UpdatePaintNodeData*) {
    QRectF clip = visibleContentPlotFrame();
    // The axis ticks hang just below the plot; the clip keeps them.
    clip.setBottom(std::min(clip.bottom() + 4.0, height()));
    if (clip.isEmpty()) clip = QRectF(0, 0, 1, 1);
    return renderer_.draw(oldNode, window(), size(), clip);
}

QRectF FixedViewportTrendHostItem::visibleContentPlotFrame() const {
    return plotFrame_.intersected(boundingRect());
}

double FixedViewportTrendHostItem::backingScale() const {
    if (window()) return window()->effectiveDevicePixelRatio();
    if (const QScreen* screen = QGuiApplication::primaryScreen()) return screen->devicePixelRatio();
    return 2.0;
}

double FixedViewportTrendHostItem::visibleWindowSeconds() const {
    if (!snapshot_ || snapshot_->viewportDomain.visibleWindowSeconds <= 0)
        return kUnknownWindowSeconds;
    return snapshot_->viewportDomain.visibleWindowSeconds;
}

QSizeF FixedViewportTrendHostItem::measuredLabelSize(const std::string& text) const {
    const QFontMetricsF metrics(TrendChartAppearance::labelFont());
    return {metrics.horizontalAdvance(QString::fromStdString(text)), metrics.height()};
}

void FixedViewportTrendHostItem::updateXAxisLabelsIfNeeded(Timestamp, double shiftPixels,
                                                           bool force) {
    const double t = mediaClock_();
    if (!force && lastXAxisLabelUpdateAt_ && lastXAxisLabelShiftPixels_ &&
        t - *lastXAxisLabelUpdateAt_ < kLabelRelayoutInterval &&
        std::abs(shiftPixels - *lastXAxisLabelShiftPixels_) < kLabelRelayoutShiftPixels)
        return;
    updateXAxisLabels(shiftPixels);
    lastXAxisLabelUpdateAt_ = t;
    lastXAxisLabelShiftPixels_ = shiftPixels;
}

void FixedViewportTrendHostItem::updateLiveXAxisLabel(double y, Timestamp displayUpperBound) {
    const double window = visibleWindowSeconds();
    const Timestamp date =
        FixedViewportTrendAxisLabels::liveTimestampDisplayDate(displayUpperBound);
    if (!cachedLiveXAxisLabelText_ || cachedLiveXAxisLabelDisplayDate_ != date ||
        cachedLiveXAxisLabelVisibleWindowSeconds_ != window) {
        cachedLiveXAxisLabelText_ = FixedViewportTrendAxisLabels::text(date, window);
        cachedLiveXAxisLabelSize_ = measuredLabelSize(*cachedLiveXAxisLabelText_);
        cachedLiveXAxisLabelDisplayDate_ = date;
        cachedLiveXAxisLabelVisibleWindowSeconds_ = window;
    }
    // The live label sits flush with the plot's right edge.
    const QSizeF size = cachedLiveXAxisLabelSize_;
    liveLabelSprite_ = FixedViewportTrendLabelSprite{
        *cachedLiveXAxisLabelText_,
        QRectF(plotFrame_.right() - size.width(), y - labelAscent_, size.width(), size.height()),
        1.0f};
}

void FixedViewportTrendHostItem::updateXAxisLabels(double shiftPixels) {
    if (!snapshot_) return;
    const double y = plotFrame_.bottom() + kLabelBaselineOffset;
    const double window = visibleWindowSeconds();
    const Timestamp upper = currentDisplayUpperBound(wallClock_(), false);
    updateLiveXAxisLabel(y, upper);
    const Timestamp cutoff = upper - 2 * window;
    const double t = mediaClock_();
    const HorizontalExtent live{liveLabelSprite_->frame.left(), liveLabelSprite_->frame.right()};

    scrollingLabelSpritesScratch_.clear();
    retiringLabelDatesScratch_.clear();
    for (auto& state : scrollingLabelStates_) {
        ScrollingLabelPlacementInput input{state.x,
                                           state.rawX,
                                           state.size.width(),
                                           shiftPixels,
                                           {plotFrame_.left(), plotFrame_.right()},
                                           width(),
                                           live,
                                           state.text == *cachedLiveXAxisLabelText_,
                                           std::nullopt};
        if (FixedViewportXAxisLabelLayout::reachesPastLeftEdge(input)) {
            if (!state.leftFadeStartTime) state.leftFadeStartTime = t;
        } else {
            state.leftFadeStartTime.reset();
        }
        if (state.leftFadeStartTime)
            input.retirementFadeProgress =
                std::min(1.0, (t - *state.leftFadeStartTime) / kLabelFadeSeconds);
        const bool faded = input.retirementFadeProgress && *input.retirementFadeProgress >= 1.0;
        if (!state.isDesired && (faded || state.date < cutoff))
            retiringLabelDatesScratch_.push_back(state.date);
        const auto placement = FixedViewportXAxisLabelLayout::scrollingLabelPlacement(input);
        if (!placement) continue;
        const QSizeF& size = state.size;
        scrollingLabelSpritesScratch_.push_back(
            {state.text,
             QRectF(placement->x - size.width() / 2, y - labelAscent_, size.width(), size.height()),
             placement->opacity});
    }
    // A label that has left the axis and is not wanted any more is gone for good.
    if (!retiringLabelDatesScratch_.empty())
        std::erase_if(scrollingLabelStates_, [this](const ScrollingXAxisLabelState& state) {
            return std::find(retiringLabelDatesScratch_.begin(), retiringLabelDatesScratch_.end(),
                             state.date) != retiringLabelDatesScratch_.end();
        });
    renderer_.updateXAxisLabelSprites(scrollingLabelSpritesScratch_, liveLabelSprite_, appearance_,
                                      backingScale());
}

void FixedViewportTrendHostItem::syncScrollingXAxisLabels() {
    for (auto& state : scrollingLabelStates_) state.isDesired = false;
    for (const auto& label : xLabels_) {
        auto it = std::find_if(scrollingLabelStates_.begin(), scrollingLabelStates_.end(),
                               [&](const auto& state) { return state.date == label.date; });
        if (it != scrollingLabelStates_.end()) {
            it->text = label.text;
            it->x = label.x;
            it->rawX = label.rawX;
            it->isDesired = true;
            continue;
        }
        ScrollingXAxisLabelState state;
        state.date = label.date;
        state.text = label.text;
        state.size = measuredLabelSize(label.text);
        state.x = label.x;
        state.rawX = label.rawX;
        state.isDesired = true;
        scrollingLabelStates_.push_back(std::move(state));
    }
    // Labels that are no longer reference labels keep moving with the timeline of the new
    // snapshot: their positions are recomputed from their dates.
    if (snapshot_ && snapshot_->viewportDomain.visibleWindowSeconds > 0) {
        const auto& domain = snapshot_->viewportDomain;
        for (auto& state : scrollingLabelStates_) {
            if (state.isDesired) continue;
            const double rawX = plotFrame_.left() + (state.date - domain.visibleLowerBound()) /
                                                        domain.visibleWindowSeconds *
                                                        plotFrame_.width();
            state.x += rawX - state.rawX;
            state.rawX = rawX;
        }
    }
    std::stable_sort(scrollingLabelStates_.begin(), scrollingLabelStates_.end(),
                     [](const auto& a, const auto& b) { return a.date < b.date; });
    trimScrollingLabelStateBacklog();
}

void FixedViewportTrendHostItem::trimScrollingLabelStateBacklog() {
    auto& states = scrollingLabelStates_;
    if (states.size() <= kMaxScrollingLabelStates) return;
    std::size_t excess = states.size() - kMaxScrollingLabelStates;
    std::erase_if(states, [&excess](const ScrollingXAxisLabelState& state) {
        if (excess == 0 || state.isDesired) return false;
        --excess;
        return true;
    });
    if (states.size() > kMaxScrollingLabelStates)
        states.erase(
            states.begin(),
            states.begin() + static_cast<std::ptrdiff_t>(states.size() - kMaxScrollingLabelStates));
}

void FixedViewportTrendHostItem::resetXAxisLabelState(Timestamp now) {
    scrollingLabelStates_.clear();
    scrollingLabelSpritesScratch_.clear();
    retiringLabelDatesScratch_.clear();
    liveLabelSprite_.reset();
    cachedLiveXAxisLabelDisplayDate_.reset();
    cachedLiveXAxisLabelText_.reset();
    cachedLiveXAxisLabelVisibleWindowSeconds_.reset();
    cachedLiveXAxisLabelSize_ = {};
    lastXAxisLabelUpdateAt_.reset();
    lastXAxisLabelShiftPixels_.reset();
    continuousDisplayUpperBound_ =
        snapshot_ ? std::optional<Timestamp>(domainEndDate(*snapshot_)) : std::nullopt;
    lastDisplayUpperBoundUpdateAt_ = now;
    renderer_.clearLabels(appearance_, backingScale());
    // A frame that was on its way when the window went away will not report back.
    renderer_.frameCompleted();
}

void FixedViewportTrendHostItem::viewDidChangeEffectiveAppearance() {
    const TrendChartAppearance appearance = TrendChartAppearance::current();
    appearance_ = appearance;
    cachedLiveXAxisLabelDisplayDate_.reset();
    cachedLiveXAxisLabelText_.reset();
    cachedLiveXAxisLabelVisibleWindowSeconds_.reset();
    for (auto& state : scrollingLabelStates_) state.size = measuredLabelSize(state.text);
    renderer_.clearLabelTextureCache();
    // Grid and tick colours follow the palette too.
    if (snapshot_) renderer_.update(*snapshot_, plotFrame_, appearance_);
    lastXAxisLabelUpdateAt_.reset();
    queueTick(true);
}

void FixedViewportTrendHostItem::attachToWindow(QQuickWindow* w) {
    if (attachedWindow_ == w) return;
    if (attachedWindow_) {
        attachedWindow_->removeEventFilter(this);
        disconnect(frameSwappedConnection_);
    }
    attachedWindow_ = w;
    if (!w) return;
    w->installEventFilter(this);
    // Emitted on the render thread with the threaded loop; the connection hops to ours.
    frameSwappedConnection_ =
        connect(w, &QQuickWindow::frameSwapped, this, &FixedViewportTrendHostItem::frameSwapped);
}

void FixedViewportTrendHostItem::itemChange(ItemChange change, const ItemChangeData& value) {
    QQuickItem::itemChange(change, value);
    switch (change) {
        case ItemSceneChange:
            attachToWindow(value.window);
            if (!value.window) {
                stopDisplayLink(true);
                wasWindowVisible_ = false;
                renderer_.frameCompleted();
                break;
            }
            refreshWindowVisibility(wallClock_());
            if (shouldRunDisplayLink(wallClock_()))
                startDisplayLinkIfNeeded();
            else
                stopDisplayLink(false);
            queueTick(true);
            break;
        case ItemParentHasChanged:
            if (!value.item) stopDisplayLink(true);
            break;
        case ItemVisibleHasChanged: queueTick(true); break;
        default: break;
    }
}

void FixedViewportTrendHostItem::geometryChange(const QRectF& newGeometry,
                                                const QRectF& oldGeometry) {
    QQuickItem::geometryChange(newGeometry, oldGeometry);
    const Timestamp now = wallClock_();
    refreshWindowVisibility(now);
    const double shift =
        wholeDevicePixels(currentShiftPixels(currentDisplayUpperBound(now, false)));
    updateXAxisLabels(shift);
    lastXAxisLabelUpdateAt_ = mediaClock_();
    lastXAxisLabelShiftPixels_ = shift;
    queueTick(true);
}

bool FixedViewportTrendHostItem::eventFilter(QObject* watched, QEvent* event) {
    if (watched == attachedWindow_) {
        switch (event->type()) {
            case QEvent::Expose:
            case QEvent::Show:
            case QEvent::Hide:
            case QEvent::WindowStateChange: queueTick(true); break;
            default: break;
        }
    }
    return QQuickItem::eventFilter(watched, event);
}

}  // namespace kelvo

// The item that carries the trend chart. Between snapshots it animates the chart itself: the
// right edge follows a display upper bound that advances with the wall clock, the newest
// stretch of each series is revealed, and the x-axis labels scroll and fade out on the left.
//
// Frames are requested only while there is motion left: a frame source (a precise timer at the
// screen's refresh interval, standing in for a display link) runs while the display has not
// caught up with the newest sample plus the reveal time and the window can be seen; each of
// its ticks computes a date, a shift and a progress and asks the scene graph for one frame.
// A caught-up, hidden, minimised or obscured chart requests nothing.
#pragma once

#include <QPointer>
#include <QQuickItem>
#include <QTimer>
#include <functional>
#include <optional>
#include <vector>

#include "dashboard/FixedViewportTrendSnapshot.h"
#include "trend_render/FixedViewportTrendLabelSprite.h"
#include "trend_render/FixedViewportTrendRenderer.h"
#include "trend_render/ScrollingXAxisLabelState.h"

namespace kelvo {

class FixedViewportTrendHostItem : public QQuickItem {
    Q_OBJECT
    Q_PROPERTY(bool displayLinkRunning READ displayLinkRunning NOTIFY displayLinkRunningChanged)
public:
    using WallClock = std::function<Timestamp()>;
    using MediaClock = std::function<double()>;  // monotonic seconds

    static constexpr double kMinimumRevealSeconds = 0.25;
    static constexpr double kMinimumTickInterval = 1.0 / 60.0;
    static constexpr double kLabelRelayoutInterval = 1.0 / 30.0;
    static constexpr double kLabelRelayoutShiftPixels = 0.75;
    static constexpr double kLabelFadeSeconds = 1.0 / 30.0;
    static constexpr double kLabelBaselineOffset = 14.0;
    static constexpr double kUnknownWindowSeconds = 60.0;
    static constexpr std::size_t kMaxScrollingLabelStates = 96;

    explicit FixedViewportTrendHostItem(QQuickItem* parent = nullptr);
    ~FixedViewportTrendHostItem() override;

    using QQuickItem::update;
    // Called whenever the dashboard's inputs change.
    void update(const FixedViewportTrendSnapshot& snapshot,
                std::optional<Timestamp> latestSampleTimestamp, const QRectF& plotFrame,
                std::vector<FixedViewportTrendReferenceLabel> xLabels);

    Timestamp currentDisplayUpperBound(Timestamp now, bool advance);
    Timestamp liveAnimationUpperBound(const FixedViewportTrendSnapshot& snapshot) const;
    double currentShiftPixels(std::optional<Timestamp> displayUpperBound = std::nullopt);
    double wholeDevicePixels(double shiftPixels) const;
    double currentLiveRevealProgress(std::optional<Timestamp> displayUpperBound = std::nullopt);
    bool shouldRunDisplayLink(Timestamp now);
    void queueTick(bool force);
    void tick();
    // The per-frame work of a tick on a visible chart: advance, shift, reveal, labels.
    void advanceFrame(Timestamp now);
    void updateXAxisLabelsIfNeeded(Timestamp now, double shiftPixels, bool force);
    void updateXAxisLabels(double shiftPixels);
    void syncScrollingXAxisLabels();
    void trimScrollingLabelStateBacklog();
    void resetXAxisLabelState(Timestamp now);
    QRectF visibleContentPlotFrame() const;
    // The palette changed: labels are measured and rasterised again.
    void viewDidChangeEffectiveAppearance();

    // The time drawn at x (view points) in the frame last asked for, and back; NaN without a
    // snapshot. The pointer's readout reads the chart through these.
    double timeAtX(double x) const;
    double xAtTime(Timestamp time) const;

    // For tests and benchmarks: the clocks every algorithm reads.
    void setClocks(WallClock wall, MediaClock media);

    bool displayLinkRunning() const { return displayLinkRunning_; }
    // How long the running frame source waits before its next tick, and the display's period.
    int displayLinkIntervalMs() const { return displayLink_ ? displayLink_->interval() : 0; }
    int displayPeriodMs() const { return displayPeriodMs_; }
    bool tickQueued() const { return tickQueued_; }
    double lastTickEnqueueAt() const { return lastTickEnqueueAt_; }
    const std::optional<FixedViewportTrendSnapshot>& snapshot() const { return snapshot_; }
    const std::optional<Timestamp>& continuousDisplayUpperBound() const {
        return continuousDisplayUpperBound_;
    }
    std::vector<ScrollingXAxisLabelState>& scrollingLabelStates() { return scrollingLabelStates_; }
    const std::vector<FixedViewportTrendLabelSprite>& scrollingLabelSprites() const {
        return scrollingLabelSpritesScratch_;
    }
    const std::optional<FixedViewportTrendLabelSprite>& liveLabelSprite() const {
        return liveLabelSprite_;
    }
    FixedViewportTrendRenderer& renderer() { return renderer_; }
    // Frames asked of the scene graph so far.
    quint64 requestedFrameCount() const { return requestedFrameCount_; }

    // What a frame would show, rounded to device pixels. A display-link tick asks for a frame
    // only when this differs from the last frame's: on a slow window the chart moves a pixel
    // every few ticks, and a frame in between would look the same at the cost of a full one.
    struct FrameLabel {
        std::string text;
        long long x = 0;
        long long y = 0;
        int alpha = 0;  // of 255
        bool operator==(const FrameLabel&) const = default;
    };
    struct FrameContent {
        long long shift = 0;
        std::vector<FrameLabel> labels;
        bool operator==(const FrameContent&) const = default;
    };
    FrameContent currentFrameContent() const;

signals:
    void displayLinkRunningChanged();

protected:
    QSGNode* updatePaintNode(QSGNode* oldNode, UpdatePaintNodeData*) override;
    void itemChange(ItemChange change, const ItemChangeData& value) override;
    void geometryChange(const QRectF& newGeometry, const QRectF& oldGeometry) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    bool windowIsShown() const;     // visible and not minimised
    bool windowIsOnScreen() const;  // shown and exposed (not obscured)
    bool viewCanDraw() const;       // on screen, shown item with a parent and a size
    void refreshWindowVisibility(Timestamp now);
    void startDisplayLinkIfNeeded();
    // The next tick's delay: the display's period while a label fades, otherwise the whole
    // periods until the plot's shift reaches its next device pixel.
    int pacedTickMilliseconds() const;
    void stopDisplayLink(bool release);
    void setDisplayLinkRunning(bool running);
    void requestFrame();
    void frameSwapped();
    void attachToWindow(QQuickWindow* window);
    void updateLiveXAxisLabel(double y, Timestamp displayUpperBound);
    double backingScale() const;
    double visibleWindowSeconds() const;
    QSizeF measuredLabelSize(const std::string& text) const;

    FixedViewportTrendRenderer renderer_;
    std::optional<FixedViewportTrendSnapshot> snapshot_;
    std::optional<Timestamp> latestSampleTimestamp_;
    QRectF plotFrame_;
    std::vector<FixedViewportTrendReferenceLabel> xLabels_;
    std::vector<ScrollingXAxisLabelState> scrollingLabelStates_;
    std::vector<FixedViewportTrendLabelSprite> scrollingLabelSpritesScratch_;
    std::vector<Timestamp> retiringLabelDatesScratch_;
    std::optional<FixedViewportTrendLabelSprite> liveLabelSprite_;
    std::optional<Timestamp> cachedLiveXAxisLabelDisplayDate_;
    std::optional<std::string> cachedLiveXAxisLabelText_;
    std::optional<double> cachedLiveXAxisLabelVisibleWindowSeconds_;
    QSizeF cachedLiveXAxisLabelSize_;
    std::optional<Timestamp> continuousDisplayUpperBound_;
    std::optional<Timestamp> lastDisplayUpperBoundUpdateAt_;
    std::optional<double> lastXAxisLabelUpdateAt_;
    std::optional<double> lastXAxisLabelShiftPixels_;
    QTimer* displayLink_ = nullptr;
    int displayPeriodMs_ = 17;
    double rawShiftPixels_ = 0;  // the shift before rounding to device pixels, at the last tick
    static constexpr int kLongestPacedTickMs = 1000;
    bool displayLinkRunning_ = false;
    bool tickQueued_ = false;
    double lastTickEnqueueAt_ = 0;
    bool wasWindowVisible_ = false;

    TrendChartAppearance appearance_;
    double labelAscent_ = 0;
    bool redrawPending_ = false;
    quint64 requestedFrameCount_ = 0;
    // What the last frame asked for shows, in device pixels, and whether an input changed since.
    std::optional<FrameContent> lastRequestedContent_;
    bool inputsChanged_ = true;
    QPointer<QQuickWindow> attachedWindow_;
    QMetaObject::Connection frameSwappedConnection_;
    WallClock wallClock_;
    MediaClock mediaClock_;
};

}  // namespace kelvo

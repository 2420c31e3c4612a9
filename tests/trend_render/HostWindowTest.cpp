#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QQuickWindow>
#include <atomic>
#include <cstdio>
#include <memory>

#include "TrendTestSupport.h"
#include "dashboard/TrendReferenceLabels.h"
#include "trend_render/FixedViewportTrendHostItem.h"
#include "trend_render/TrendRootNode.h"

namespace kelvo {
namespace {

const QRectF kPlot{20, 20, 360, 210};

// Counts the window events that make the chart ask for a frame whatever it shows.
struct WindowEventCounter : QObject {
    explicit WindowEventCounter(QObject* window) { window->installEventFilter(this); }
    bool eventFilter(QObject*, QEvent* event) override {
        switch (event->type()) {
            case QEvent::Expose:
            case QEvent::Show:
            case QEvent::Hide:
            case QEvent::WindowStateChange: ++count; break;
            default: break;
        }
        return false;
    }
    int count = 0;
};

class HostWindow : public ::testing::Test {
protected:
    void SetUp() override {
        window = std::make_unique<QQuickWindow>();
        window->setColor(Qt::white);
        window->resize(400, 300);
        host = new FixedViewportTrendHostItem(window->contentItem());
        QObject::connect(window.get(), &QQuickWindow::frameSwapped, window.get(),
                         [this] { ++frames; });
        // On the render thread while ours waits for the sync: the requests this sync answers.
        QObject::connect(
            window.get(), &QQuickWindow::afterSynchronizing, window.get(),
            [this] { syncedRequests = host->requestedFrameCount(); }, Qt::DirectConnection);
    }
    // A fake wall clock; media time runs for real so the frame source's ticks pass the
    // tick throttle.
    void useFakeWallClock() {
        QElapsedTimer* media = &mediaTimer;
        media->start();
        host->setClocks([this] { return clocks.wall; },
                        [media] { return 100 + media->nsecsElapsed() * 1e-9; });
    }
    // Both clocks fake: the frame source's ticks are all throttled, the test ticks itself.
    void useFakeClocks() {
        host->setClocks([this] { return clocks.wall; }, [this] { return clocks.media; });
    }
    void showWindow() {
        host->setSize(QSizeF(400, 300));
        window->show();
        ASSERT_TRUE(test::waitFor([this] { return window->isExposed() && frames > 0; }));
    }
    void give(const FixedViewportTrendSnapshot& snapshot, std::optional<Timestamp> latest) {
        host->update(snapshot, latest, kPlot,
                     fixedViewportTrendReferenceXAxisLabels(snapshot.xAxisTicks, kPlot));
    }
    int framesDuring(int ms) {
        const int before = frames;
        test::processFor(ms);
        return frames - before;
    }
    // Whether `count` more frames reach the screen; the deadline only matters when they never
    // come, so a loaded machine is no reason to fail.
    bool framesArrive(int count) {
        const int before = frames;
        return test::waitFor([&] { return frames - before >= count; }, 10000);
    }
    // The frame source has stopped and no drawn frame is still on its way to the screen.
    bool frameSourceStopped() {
        return test::waitFor(
            [this] { return !host->displayLinkRunning() && !host->renderer().frameInFlight(); },
            10000);
    }
    // The same on a window that stays visible, where the last frame the source asked for may not
    // have been drawn yet: that one must be on screen too.
    bool lastRequestedFrameShown() {
        return test::waitFor(
            [this] {
                return !host->displayLinkRunning() &&
                       syncedRequests == host->requestedFrameCount() &&
                       !host->renderer().frameInFlight();
            },
            10000);
    }

    test::FakeClocks clocks;
    QElapsedTimer mediaTimer;
    std::unique_ptr<QQuickWindow> window;
    FixedViewportTrendHostItem* host = nullptr;
    int frames = 0;
    std::atomic<quint64> syncedRequests{0};
};

TEST_F(HostWindow, AnAnimatingChartAsksForAFrameOnlyWhenItsContentMovesAPixel) {
    useFakeWallClock();
    showWindow();
    // The fake wall clock stands still: the display has not caught up, and the frame source
    // keeps ticking, but nothing on the chart moves.
    give(test::snapshotEndingAt(clocks.wall), clocks.wall);
    EXPECT_TRUE(host->displayLinkRunning());
    // An Expose or Show the X server sends late (a loaded machine) asks for a frame on purpose;
    // the claim is about a stretch in which nothing at all happened to the window.
    WindowEventCounter windowEvents(window.get());
    bool quietStretch = false;
    for (int attempt = 0; attempt < 5 && !quietStretch; ++attempt) {
        ASSERT_TRUE(test::waitFor([this] {
            return syncedRequests == host->requestedFrameCount() &&
                   !host->renderer().frameInFlight() && !host->tickQueued();
        }));
        const quint64 still = host->requestedFrameCount();
        const int eventsBefore = windowEvents.count;
        test::processFor(300);
        if (windowEvents.count != eventsBefore) continue;
        quietStretch = true;
        EXPECT_TRUE(host->displayLinkRunning());
        EXPECT_EQ(host->requestedFrameCount(), still);
    }
    EXPECT_TRUE(quietStretch) << "the window kept receiving events";

    // A 60 s window over a 360 px plot moves 6 px a second: each third of a second is two
    // pixels, and a frame comes for each.
    for (int step = 1; step <= 2; ++step) {
        const double shiftBefore = host->renderer().shiftPixels();
        const quint64 before = host->requestedFrameCount();
        clocks.wall += 1.0 / 3.0;
        ASSERT_TRUE(test::waitFor([&] { return host->requestedFrameCount() > before; })) << step;
        EXPECT_GT(host->renderer().shiftPixels() - shiftBefore, 1.0) << step;
        EXPECT_TRUE(framesArrive(1)) << step;
    }
}

TEST_F(HostWindow, ATickWhileAFrameIsInFlightAsksForNoFrame) {
    useFakeClocks();
    showWindow();
    give(test::snapshotEndingAt(clocks.wall), clocks.wall);
    ASSERT_TRUE(test::waitFor([this] { return !host->renderer().frameInFlight(); }));
    // A frame of our own, never swapped: the renderer now has one in flight.
    std::unique_ptr<QSGNode> inFlight(
        host->renderer().draw(nullptr, nullptr, QSizeF(400, 300), kPlot));
    ASSERT_TRUE(host->renderer().frameInFlight());
    const quint64 requested = host->requestedFrameCount();
    // The chart moves two pixels: a frame is wanted, but one is still on its way.
    clocks.wall += 1.0 / 3.0;
    host->tick();
    EXPECT_EQ(host->requestedFrameCount(), requested);
    host->renderer().frameCompleted();
    host->tick();
    EXPECT_EQ(host->requestedFrameCount(), requested + 1);
}

TEST_F(HostWindow, AHiddenWindowGetsNoFrames) {
    useFakeWallClock();
    showWindow();
    give(test::snapshotEndingAt(clocks.wall), clocks.wall);
    ASSERT_TRUE(test::waitFor([this] {
        return syncedRequests == host->requestedFrameCount() && !host->renderer().frameInFlight();
    }));
    window->hide();
    ASSERT_TRUE(frameSourceStopped());
    const quint64 requested = host->requestedFrameCount();
    // Nothing may come while hidden: load can delay a frame, never make one.
    EXPECT_EQ(framesDuring(500), 0);
    EXPECT_EQ(host->requestedFrameCount(), requested);
    EXPECT_FALSE(host->displayLinkRunning());
    EXPECT_FALSE(host->shouldRunDisplayLink(clocks.wall));
}

TEST_F(HostWindow, AMinimisedWindowGetsNoFrames) {
    useFakeWallClock();
    showWindow();
    give(test::snapshotEndingAt(clocks.wall), clocks.wall);
    window->showMinimized();
    ASSERT_TRUE(test::waitFor([this] { return !host->displayLinkRunning(); }));
    const quint64 requested = host->requestedFrameCount();
    test::processFor(300);
    EXPECT_EQ(host->requestedFrameCount(), requested);
}

TEST_F(HostWindow, AHiddenItemOrOneWithoutSizeRequestsNoFrames) {
    useFakeClocks();
    showWindow();
    give(test::snapshotEndingAt(clocks.wall), clocks.wall);
    ASSERT_TRUE(host->shouldRunDisplayLink(clocks.wall));
    window->contentItem()->setVisible(false);
    EXPECT_FALSE(host->shouldRunDisplayLink(clocks.wall)) << "a hidden ancestor";
    window->contentItem()->setVisible(true);
    host->setWidth(0);
    EXPECT_FALSE(host->shouldRunDisplayLink(clocks.wall)) << "no width";
}

TEST_F(HostWindow, ACaughtUpChartRequestsZeroFramesPerSecond) {
    showWindow();  // real clocks
    const Timestamp now = wallClockNow();
    give(test::snapshotEndingAt(now), now);
    EXPECT_TRUE(host->displayLinkRunning());
    // The display catches up with the newest sample plus the 1 s reveal.
    ASSERT_TRUE(lastRequestedFrameShown());
    // An Expose or Show the X server sends late (a loaded machine) draws the window again,
    // whatever it shows: the claim is about a second in which nothing at all happened to it.
    WindowEventCounter windowEvents(window.get());
    bool quietSecond = false;
    for (int attempt = 0; attempt < 5 && !quietSecond; ++attempt) {
        ASSERT_TRUE(lastRequestedFrameShown());
        const quint64 requested = host->requestedFrameCount();
        const int eventsBefore = windowEvents.count;
        const int rendered = framesDuring(1000);
        if (windowEvents.count != eventsBefore) continue;
        quietSecond = true;
        std::printf("[ measured ] caught up: %d frames rendered, %llu requested in 1 s\n", rendered,
                    static_cast<unsigned long long>(host->requestedFrameCount() - requested));
        EXPECT_EQ(rendered, 0);
        EXPECT_EQ(host->requestedFrameCount(), requested);
    }
    EXPECT_TRUE(quietSecond) << "the window kept receiving events";
    // A new sample starts it again.
    const Timestamp later = wallClockNow();
    give(test::snapshotEndingAt(later), later);
    EXPECT_TRUE(host->displayLinkRunning());
    EXPECT_TRUE(framesArrive(1));
}

// Darkness of the darkest pixel in `area`: 0 for blank paper.
int inkIn(const QImage& image, const QRect& area) {
    int darkest = 255;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x)
            darkest = std::min(darkest, qGray(image.pixel(x, y)));
    return 255 - darkest;
}

// Between two steps of a slow chart nothing changes, so the frame source sleeps until the next
// device pixel is due (in whole display periods) rather than waking on every display refresh.
TEST_F(HostWindow, ASlowChartTicksWhenItsNextPixelIsDue) {
    useFakeClocks();
    showWindow();
    // Five minutes over the 360 px plot: 1.2 px a second, a step every 833 ms.
    give(test::snapshotEndingAt(clocks.wall - 10, 300), clocks.wall);
    ASSERT_TRUE(host->displayLinkRunning());
    const int period = host->displayPeriodMs();
    ASSERT_GT(period, 0);
    const int slow = host->displayLinkIntervalMs();
    EXPECT_EQ(slow % period, 0) << slow << " ms is not whole display periods of " << period;
    EXPECT_GT(slow, period);
    EXPECT_LE(slow, 1000);
    // One minute over the same plot moves five times as fast: the wait is shorter, and never
    // longer than one pixel's time rounded up to the display's period.
    give(test::snapshotEndingAt(clocks.wall - 10, 60), clocks.wall);
    ASSERT_TRUE(test::waitFor([this] { return !host->tickQueued(); }));
    const int fast = host->displayLinkIntervalMs();
    EXPECT_EQ(fast % period, 0);
    EXPECT_LE(fast, (1000 / 6 / period + 1) * period);
    EXPECT_LT(fast, slow);
}

TEST_F(HostWindow, LabelsFadeOutAtThePlotsLeftEdge) {
    useFakeClocks();
    showWindow();
    const Timestamp r = std::floor(clocks.wall / 60) * 60 + 59;  // a tick 2 s into the window
    clocks.wall = r;
    FixedViewportTrendSnapshot snapshot = test::snapshotEndingAt(r);
    const Timestamp tickDate = r - 59;
    snapshot.xAxisTicks.push_back(
        {tickDate, FixedViewportTrendAxisLabels::text(tickDate, 60), 2.0 / 60});
    // Newer samples let the display run 3 s past this snapshot.
    give(snapshot, r + 3);
    // The frame this tick asked for (later, when one was still in flight), once it is on screen.
    auto shownFrame = [&] {
        const auto drawn = host->renderer().drawnFrameCount();
        host->tick();
        EXPECT_TRUE(test::waitFor([&] { return host->renderer().drawnFrameCount() > drawn; }));
        test::waitFor([&] { return !host->renderer().frameInFlight(); });
        return window->grabWindow().convertToFormat(QImage::Format_RGB32);
    };
    // The label area: below the plot, from its left edge to well before the live label.
    const QRect labelArea(0, 236, 160, 20);
    const QImage inside = shownFrame();
    EXPECT_GT(inkIn(inside, labelArea), 60) << "the label is drawn";

    clocks.wall = r + 3;  // 18 px of scroll: the tick is 6 px past the left edge
    const QImage starting = shownFrame();
    // One display frame later, and 0.9 px further, so the label relayout is due.
    clocks.media += 0.017;
    clocks.wall += 0.15;
    const QImage halfway = shownFrame();
    clocks.media += 0.017;
    clocks.wall += 0.15;
    const QImage gone = shownFrame();
    EXPECT_GT(inkIn(starting, labelArea), 60);
    EXPECT_LT(inkIn(halfway, labelArea), inkIn(starting, labelArea) * 3 / 4);
    EXPECT_GT(inkIn(halfway, labelArea), 10);
    EXPECT_EQ(inkIn(gone, labelArea), 0);
    test::keepFrameIfFailed(inside, QStringLiteral("label_inside"));
    test::keepFrameIfFailed(starting, QStringLiteral("label_fade_start"));
    test::keepFrameIfFailed(halfway, QStringLiteral("label_fade_half"));
    test::keepFrameIfFailed(gone, QStringLiteral("label_fade_gone"));
}

TEST_F(HostWindow, ShowingTheWindowAgainResetsTheLabelsAndTheBound) {
    useFakeClocks();
    showWindow();
    const Timestamp r = clocks.wall;
    FixedViewportTrendSnapshot snapshot = test::snapshotEndingAt(r);
    snapshot.xAxisTicks.push_back({r - 31, FixedViewportTrendAxisLabels::text(r - 31, 60), 0.5});
    give(snapshot, r);
    ASSERT_FALSE(host->scrollingLabelStates().empty());
    ASSERT_TRUE(host->displayLinkRunning());
    window->hide();
    // The tick that sees the window hidden also stops the frame source.
    ASSERT_TRUE(test::waitFor([this] { return !host->displayLinkRunning(); }));
    clocks.wall += 100;
    window->show();
    ASSERT_TRUE(test::waitFor([this] { return host->scrollingLabelStates().empty(); }));
    EXPECT_TRUE(host->renderer().labelDrawCalls().empty() || host->scrollingLabelSprites().empty());
    EXPECT_LE(*host->continuousDisplayUpperBound(), host->liveAnimationUpperBound(snapshot));
}

TEST_F(HostWindow, APaletteChangeDropsLabelTexturesAndRemakesThemInTheNewColour) {
    showWindow();
    const QPalette original = QGuiApplication::palette();
    QGuiApplication::setPalette(QPalette(Qt::black, Qt::white));
    test::processFor(50);
    const Timestamp now = wallClockNow();
    FixedViewportTrendSnapshot snapshot = test::snapshotEndingAt(now);
    snapshot.xAxisTicks.push_back(
        {now - 31, FixedViewportTrendAxisLabels::text(now - 31, 60), 0.5});
    give(snapshot, now);
    ASSERT_TRUE(
        test::waitFor([this] { return !host->renderer().labelTextureCacheOrder().empty(); }));
    EXPECT_EQ(host->renderer().labelTextureCacheOrder().front().style.red, 0);

    QGuiApplication::setPalette(QPalette(Qt::white, QColor(30, 30, 30)));
    EXPECT_TRUE(host->renderer().labelTextureCacheOrder().empty())
        << "emptied as soon as the palette changes";
    give(snapshot, now);
    ASSERT_TRUE(
        test::waitFor([this] { return !host->renderer().labelTextureCacheOrder().empty(); }));
    for (const auto& key : host->renderer().labelTextureCacheOrder())
        EXPECT_EQ(key.style.red, 255) << key.text;
    QGuiApplication::setPalette(original);
}

}  // namespace
}  // namespace kelvo

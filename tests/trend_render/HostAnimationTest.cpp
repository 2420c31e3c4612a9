#include <gtest/gtest.h>

#include <QQuickWindow>
#include <cmath>
#include <memory>

#include "TrendTestSupport.h"
#include "trend_render/FixedViewportTrendHostItem.h"

namespace kelvo {
namespace {

using test::FakeClocks;
using test::snapshotEndingAt;

class HostAnimation : public ::testing::Test {
protected:
    void SetUp() override {
        window = std::make_unique<QQuickWindow>();
        window->resize(400, 300);
        host = new FixedViewportTrendHostItem(window->contentItem());
        host->setClocks([this] { return clocks.wall; }, [this] { return clocks.media; });
        host->setSize(QSizeF(400, 300));
    }
    void give(const FixedViewportTrendSnapshot& snapshot, std::optional<Timestamp> latest,
              std::vector<FixedViewportTrendReferenceLabel> labels = {}) {
        host->update(snapshot, latest, plot, std::move(labels));
    }
    // Lets the queued tick run; the window is never shown, so that tick queues no other.
    bool queuedTickRan() {
        return test::waitFor([this] { return !host->tickQueued(); });
    }

    FakeClocks clocks;
    QRectF plot{20, 20, 360, 210};
    std::unique_ptr<QQuickWindow> window;
    FixedViewportTrendHostItem* host = nullptr;
};

TEST_F(HostAnimation, WithoutASnapshotTheBoundIsNowWithNoShiftFullRevealAndNoFrameSource) {
    EXPECT_EQ(host->currentDisplayUpperBound(clocks.wall, true), clocks.wall);
    EXPECT_EQ(host->currentShiftPixels(), 0.0);
    EXPECT_EQ(host->currentLiveRevealProgress(), 1.0);
    EXPECT_FALSE(host->shouldRunDisplayLink(clocks.wall));
    EXPECT_FALSE(host->displayLinkRunning());
}

TEST_F(HostAnimation, TheBoundAdvancesInRealTimeAndStopsAtTheTarget) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r), r);
    EXPECT_DOUBLE_EQ(*host->continuousDisplayUpperBound(), r);
    clocks.wall += 0.4;
    // Dates near 1.7e9 s carry about a microsecond of precision.
    EXPECT_NEAR(host->currentDisplayUpperBound(clocks.wall, true), r + 0.4, 1e-5);
    EXPECT_NEAR(host->currentShiftPixels(r + 0.4), 0.4 / 60 * 360, 1e-4);
    EXPECT_NEAR(host->currentLiveRevealProgress(r + 0.4), 0.4, 1e-5);
    clocks.wall += 5;
    EXPECT_NEAR(host->currentDisplayUpperBound(clocks.wall, true), r + 1, 1e-5)
        << "stops at the newest sample plus the reveal time";
    EXPECT_NEAR(host->currentLiveRevealProgress(r + 1), 1.0, 1e-12);
}

TEST_F(HostAnimation, ANewSampleMovesTheTargetAndTheBoundCatchesUpFromWhereItStands) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r), r);
    clocks.wall += 0.5;
    host->currentDisplayUpperBound(clocks.wall, true);
    give(snapshotEndingAt(r + 0.25), r + 0.25);
    EXPECT_NEAR(*host->continuousDisplayUpperBound(), r + 0.5, 1e-5)
        << "a later snapshot does not restart the bound";
    EXPECT_NEAR(host->currentShiftPixels(r + 0.5), 0.25 / 60 * 360, 1e-4);
}

TEST_F(HostAnimation, SwitchingTheTrendWindowRestartsTheBoundAndDropsEveryScrollingLabel) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r, 300), r, {{r - 120, "a", 100, 100}, {r - 60, "b", 200, 200}});
    clocks.wall += 0.8;
    host->currentDisplayUpperBound(clocks.wall, true);
    EXPECT_EQ(host->scrollingLabelStates().size(), 2u);
    give(snapshotEndingAt(r + 0.5, 60), r + 0.5);
    EXPECT_DOUBLE_EQ(*host->continuousDisplayUpperBound(), r + 0.5);
    EXPECT_TRUE(host->scrollingLabelStates().empty());
}

TEST_F(HostAnimation, ATimelineGoingBackwardsRestartsTheBoundAtTheNewEnd) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r), r);
    clocks.wall += 0.8;
    host->currentDisplayUpperBound(clocks.wall, true);
    give(snapshotEndingAt(r - 10), r - 10);
    // Restarted at the new end, r − 10; the same update then holds it to the floor (now − 1 s)
    // and the new target (r − 10 + 1 s), which is the lower of the two.
    EXPECT_DOUBLE_EQ(*host->continuousDisplayUpperBound(), r - 9);
    EXPECT_DOUBLE_EQ(host->currentShiftPixels(), 1.0 / 60 * 360);
}

TEST_F(HostAnimation, AZeroRevealDurationStillAnimatesAQuarterSecondWithProgressAtOnceFull) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r, 60, 0), r);
    EXPECT_DOUBLE_EQ(host->liveAnimationUpperBound(*host->snapshot()), r + 0.25);
    clocks.wall += 0.002;
    const Timestamp upper = host->currentDisplayUpperBound(clocks.wall, true);
    EXPECT_LT(upper, r + 0.25);
    EXPECT_DOUBLE_EQ(host->currentLiveRevealProgress(upper), 1.0) << "2 ms over a 1 ms divisor";
    clocks.wall += 1;
    EXPECT_DOUBLE_EQ(host->currentDisplayUpperBound(clocks.wall, true), r + 0.25);
}

TEST_F(HostAnimation, AfterALongPauseTheFirstAdvanceJumpsToAtMostTheRevealBehindNow) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r), r);
    // Samples kept arriving while the window was hidden; the bound was not advanced.
    clocks.wall += 600;
    give(snapshotEndingAt(clocks.wall - 0.5), clocks.wall - 0.5);
    const Timestamp upper = host->currentDisplayUpperBound(clocks.wall, true);
    EXPECT_GE(upper, clocks.wall - 1.0);
    EXPECT_LE(upper, host->liveAnimationUpperBound(*host->snapshot()));
    // Without newer samples the target caps the jump.
    clocks.wall += 600;
    EXPECT_DOUBLE_EQ(host->currentDisplayUpperBound(clocks.wall, true),
                     host->liveAnimationUpperBound(*host->snapshot()));
}

TEST_F(HostAnimation, ASecondUnforcedTickWithinASixtiethIsDroppedAndAForcedOneIsNot) {
    give(snapshotEndingAt(clocks.wall), clocks.wall);
    ASSERT_TRUE(queuedTickRan());  // the forced tick of update()
    clocks.media += 1;
    host->queueTick(false);
    EXPECT_TRUE(host->tickQueued());
    EXPECT_DOUBLE_EQ(host->lastTickEnqueueAt(), clocks.media);
    ASSERT_TRUE(queuedTickRan());
    clocks.media += 0.010;
    host->queueTick(false);
    EXPECT_FALSE(host->tickQueued()) << "10 ms after the previous one";
    host->queueTick(true);
    EXPECT_TRUE(host->tickQueued());
    EXPECT_DOUBLE_EQ(host->lastTickEnqueueAt(), clocks.media);
    ASSERT_TRUE(queuedTickRan());
    clocks.media += 0.017;
    host->queueTick(false);
    EXPECT_TRUE(host->tickQueued()) << "17 ms is past the throttle";
}

TEST_F(HostAnimation, OnlyOneTickIsQueuedAtATime) {
    give(snapshotEndingAt(clocks.wall), clocks.wall);
    ASSERT_TRUE(queuedTickRan());
    clocks.media += 1;
    host->queueTick(false);
    const double first = host->lastTickEnqueueAt();
    clocks.media += 1;
    host->queueTick(true);
    EXPECT_DOUBLE_EQ(host->lastTickEnqueueAt(), first);
}

TEST_F(HostAnimation, TicksNeedAWindow) {
    FixedViewportTrendHostItem orphan;
    orphan.setClocks([this] { return clocks.wall; }, [this] { return clocks.media; });
    orphan.queueTick(true);
    EXPECT_FALSE(orphan.tickQueued());
}

ScrollingXAxisLabelState labelState(Timestamp date, bool desired) {
    ScrollingXAxisLabelState state;
    state.date = date;
    state.text = std::to_string(static_cast<long long>(date));
    state.isDesired = desired;
    return state;
}

TEST_F(HostAnimation, BacklogTrimRemovesTheOldestNotDesiredStatesFirst) {
    auto& states = host->scrollingLabelStates();
    for (int i = 0; i < 97; ++i) states.push_back(labelState(i, i != 40));
    host->trimScrollingLabelStateBacklog();
    ASSERT_EQ(states.size(), 96u);
    for (const auto& state : states) {
        EXPECT_NE(state.date, 40);
        EXPECT_TRUE(state.isDesired);
    }
    EXPECT_EQ(states.front().date, 0);
}

TEST_F(HostAnimation, BacklogTrimOfDesiredStatesRemovesTheOldest) {
    auto& states = host->scrollingLabelStates();
    for (int i = 0; i < 100; ++i) states.push_back(labelState(i, true));
    host->trimScrollingLabelStateBacklog();
    ASSERT_EQ(states.size(), 96u);
    EXPECT_EQ(states.front().date, 4);
    EXPECT_EQ(states.back().date, 99);
}

TEST_F(HostAnimation, ReferenceLabelsMergeByDateAndStaleOnesStayUntilTheyRetire) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r), r, {{r - 45, "a", 100, 100}, {r - 30, "b", 200, 200}});
    ASSERT_EQ(host->scrollingLabelStates().size(), 2u);
    give(snapshotEndingAt(r + 0.25), r + 0.25, {{r - 30, "b2", 198.5, 198.5}});
    const auto& states = host->scrollingLabelStates();
    ASSERT_EQ(states.size(), 2u);
    EXPECT_FALSE(states[0].isDesired);
    EXPECT_NEAR(states[0].rawX, 20 + (r - 45 - (r + 0.25 - 61)) / 60 * 360, 1e-6)
        << "a stale label moves with the new snapshot's timeline";
    EXPECT_TRUE(states[1].isDesired);
    EXPECT_EQ(states[1].text, "b2");
    EXPECT_DOUBLE_EQ(states[1].x, 198.5);
}

TEST_F(HostAnimation, LabelRelayoutIsThrottledUnlessTheContentMovedOrItIsForced) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r), r, {{r - 30, "a", 200, 200}});
    const auto generation = host->renderer().labelDrawCalls().size();
    ASSERT_GT(generation, 0u);
    // Remove the sprite list so that a relayout is visible.
    host->renderer().clearLabels(TrendChartAppearance::current(), 1);
    clocks.media += 0.01;
    host->updateXAxisLabelsIfNeeded(clocks.wall, host->currentShiftPixels() + 0.5, false);
    EXPECT_TRUE(host->renderer().labelDrawCalls().empty()) << "10 ms and half a pixel later";
    host->updateXAxisLabelsIfNeeded(clocks.wall, host->currentShiftPixels() + 0.8, false);
    EXPECT_FALSE(host->renderer().labelDrawCalls().empty()) << "moved 0.8 px";
    host->renderer().clearLabels(TrendChartAppearance::current(), 1);
    clocks.media += 0.04;
    host->updateXAxisLabelsIfNeeded(clocks.wall, host->currentShiftPixels() + 0.8, false);
    EXPECT_FALSE(host->renderer().labelDrawCalls().empty()) << "40 ms later";
    host->renderer().clearLabels(TrendChartAppearance::current(), 1);
    host->updateXAxisLabelsIfNeeded(clocks.wall, host->currentShiftPixels() + 0.8, true);
    EXPECT_FALSE(host->renderer().labelDrawCalls().empty()) << "forced";
}

TEST_F(HostAnimation, ALabelFadesOutWithinTwoFramesOnceItsTickPassesTheLeftEdge) {
    const Timestamp r = clocks.wall;
    // Tick 2 s after the visible lower bound: 12 px inside the plot.
    const Timestamp date = r - 61 + 2;
    give(snapshotEndingAt(r), r, {{date, "12:00:00", 20 + 30, 20 + 12}});
    auto opacityOfLabel = [&]() -> std::optional<float> {
        for (const auto& sprite : host->scrollingLabelSprites())
            if (sprite.text == "12:00:00") return sprite.opacity;
        return std::nullopt;
    };
    ASSERT_EQ(opacityOfLabel(), 1.0f);
    // Scroll 18 px (3 s of a 60 s window over 360 px): the tick is 6 px past the edge.
    host->updateXAxisLabels(18);
    ASSERT_TRUE(host->scrollingLabelStates().front().leftFadeStartTime.has_value());
    EXPECT_EQ(opacityOfLabel(), 1.0f) << "the fade has just begun";
    clocks.media += 0.017;  // one display frame
    host->updateXAxisLabels(18.3);
    ASSERT_TRUE(opacityOfLabel().has_value());
    EXPECT_NEAR(*opacityOfLabel(), 1.0 - 0.017 * 30, 1e-3);
    clocks.media += 0.017;
    host->updateXAxisLabels(18.6);
    EXPECT_FALSE(opacityOfLabel().has_value()) << "gone after two frames";
    host->updateXAxisLabels(5);
    EXPECT_FALSE(host->scrollingLabelStates().front().leftFadeStartTime.has_value())
        << "back inside: the fade is cleared";
    EXPECT_EQ(opacityOfLabel(), 1.0f);
}

TEST_F(HostAnimation, TheLiveLabelShowsTheBoundToTheSecondFlushWithThePlotsRightEdge) {
    const Timestamp r = 1'700'000'000.6;
    clocks.wall = r;
    give(snapshotEndingAt(r), r);
    const auto& live = host->liveLabelSprite();
    ASSERT_TRUE(live.has_value());
    EXPECT_EQ(live->text, FixedViewportTrendAxisLabels::text(1'700'000'000, 60));
    EXPECT_DOUBLE_EQ(live->frame.right(), plot.right());
    EXPECT_FLOAT_EQ(live->opacity, 1.0f);
}

TEST_F(HostAnimation, OnTheFiveMinuteWindowTheCurrentMinuteIsNotLabelledTwice) {
    // 20 s into a minute: the newest tick (the minute itself) reads what the live label reads.
    const Timestamp r = 1'700'000'040.0 + 20;
    clocks.wall = r;
    const Timestamp minute = 1'700'000'040.0;
    const std::string now = FixedViewportTrendAxisLabels::text(minute, 300);
    const std::string before = FixedViewportTrendAxisLabels::text(minute - 60, 300);
    ASSERT_NE(now, before);
    give(snapshotEndingAt(r, 300), r, {{minute - 60, before, 130, 130}, {minute, now, 200, 200}});
    ASSERT_TRUE(host->liveLabelSprite().has_value());
    EXPECT_EQ(host->liveLabelSprite()->text, now);
    std::vector<std::string> texts;
    for (const auto& sprite : host->scrollingLabelSprites()) texts.push_back(sprite.text);
    EXPECT_EQ(texts, std::vector<std::string>{before});
}

TEST_F(HostAnimation, ThePointersTimeAndTheChartsXAreInverseAndFollowTheShift) {
    const Timestamp r = 1'700'000'000.0;
    clocks.wall = r;
    EXPECT_TRUE(std::isnan(host->timeAtX(100)));
    give(snapshotEndingAt(r), r);
    // No shift yet: the plot's right edge shows the visible upper bound (r − 1 s of reveal).
    EXPECT_NEAR(host->timeAtX(plot.right()), r - 1, 1e-5);
    EXPECT_NEAR(host->timeAtX(plot.left()), r - 61, 1e-5);
    EXPECT_NEAR(host->xAtTime(host->timeAtX(123.5)), 123.5, 1e-4);
    // Half a second later the content has moved 3 px left: the same x shows a later time.
    clocks.wall += 0.5;
    host->advanceFrame(clocks.wall);
    ASSERT_NEAR(host->renderer().shiftPixels(), 3, 1e-9);
    EXPECT_NEAR(host->timeAtX(plot.right()), r - 0.5, 1e-5);
    EXPECT_NEAR(host->xAtTime(r - 31), plot.left() + 180 - 3, 1e-4);
}

TEST_F(HostAnimation, ResetClearsLabelsAndRestartsTheBoundForTheCurrentSnapshot) {
    const Timestamp r = clocks.wall;
    give(snapshotEndingAt(r), r, {{r - 30, "a", 200, 200}});
    clocks.wall += 0.7;
    host->currentDisplayUpperBound(clocks.wall, true);
    host->resetXAxisLabelState(clocks.wall);
    EXPECT_TRUE(host->scrollingLabelStates().empty());
    EXPECT_TRUE(host->scrollingLabelSprites().empty());
    EXPECT_FALSE(host->liveLabelSprite().has_value());
    EXPECT_TRUE(host->renderer().labelDrawCalls().empty());
    EXPECT_DOUBLE_EQ(*host->continuousDisplayUpperBound(), r);
}

}  // namespace
}  // namespace kelvo

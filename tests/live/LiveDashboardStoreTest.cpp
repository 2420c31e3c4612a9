#include "live/LiveDashboardStore.h"

#include <gtest/gtest.h>
#include <QDir>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <memory>
#include <string>

#include "app_common/AppBuildInfo.h"
#include "tests/QtTestPrinters.h"
#include "tests/live/LiveTestSamples.h"

namespace kelvo {
namespace {

using namespace live_test;

template <typename T>
void expectOrderedWithoutRepeats(const std::vector<T>& history) {
    for (std::size_t i = 1; i < history.size(); ++i)
        EXPECT_LT(history[i - 1].timestamp, history[i].timestamp) << "at index " << i;
}

// ----- Initial state -------------------------------------------------------------------------

TEST(LiveDashboardStoreTest, StartsEmptyWithPendingBuildIdentity) {
    LiveDashboardStore store;
    EXPECT_FALSE(store.latestSample());
    EXPECT_FALSE(store.latestDecision());
    EXPECT_FALSE(store.latestPreviewDecision());
    EXPECT_TRUE(store.events().empty());
    EXPECT_TRUE(store.sampleHistory().empty());
    EXPECT_TRUE(store.previewHistory().empty());
    EXPECT_TRUE(store.throttleHistory().empty());
    EXPECT_EQ(store.trendRevision(), 0u);
    EXPECT_EQ(store.status(), ControlStatus::starting);
    EXPECT_EQ(store.controlAuthorityState(), ControlAuthorityState::system);
    EXPECT_FALSE(store.throttleWarning());
    EXPECT_EQ(store.throttleAssessment(), ThrottleAssessment{});
    EXPECT_EQ(store.gpuClockWindowAnalysisConfig(), GPUClockWindowAnalysisConfig{});
    EXPECT_EQ(store.benefitSummary().windowDisplayName, "24 Hours");
    EXPECT_EQ(store.benefitSummary().windowSeconds, 86400);
    EXPECT_EQ(store.benefitSummary().kelvoAuthoritySeconds, 0);
    EXPECT_EQ(store.benefitSummary().interventionCount, 0);
    EXPECT_EQ(store.benefitSummary().throttleWarningAvoidedSeconds, 0);
    EXPECT_EQ(store.benefitSummary().throttleWarningEventCount, 0);
    EXPECT_EQ(store.benefitSummary().fallbackEventCount, 0);
    EXPECT_EQ(store.buildVersionLabel(), AppBuildInfo::initialBuildVersionLabel());
    EXPECT_TRUE(store.buildVersionLabel().startsWith(QStringLiteral("Build ")));
    EXPECT_EQ(store.buildVersionDetail(), QStringLiteral("Build identity pending"));
    EXPECT_TRUE(store.dashboardIsUserVisible());
    EXPECT_LT(store.lastTrendRefreshAt(), -6e10);
    EXPECT_LT(store.lastCardRefreshAt(), -6e10);
    EXPECT_EQ(store.changeNotificationCount(), 0u);
}

TEST(LiveDashboardStoreTest, FixedIntervalsAndCounts) {
    EXPECT_EQ(LiveDashboardStore::kHistoryWindowSeconds, 300.0);
    EXPECT_EQ(LiveDashboardStore::kTrendRefreshIntervalSeconds, 0.25);
    EXPECT_EQ(LiveDashboardStore::kCardRefreshIntervalSeconds, 1.0);
    EXPECT_EQ(LiveDashboardStore::kRuntimeEventHistoryCount, 160);
    EXPECT_EQ(LiveDashboardStore::kMaxHistoryCount, 1202);
}

TEST(LiveDashboardStoreTest, OwnsAThrottleOverlayThatNothingWrites) {
    LiveDashboardStore store;
    LiveThrottleOverlayStore* overlay = store.liveThrottleOverlay();
    ASSERT_NE(overlay, nullptr);
    EXPECT_EQ(overlay->parent(), &store);
    EXPECT_EQ(overlay->historyWindowSeconds(), 300.0);
    QSignalSpy spy(overlay, &LiveThrottleOverlayStore::warningHistoryChanged);
    for (int i = 0; i < 5; ++i) {
        LiveSnapshot snapshot = snapshotAt(t0 + i);
        snapshot.assessment = assessment(true);
        store.ingest(snapshot);
    }
    EXPECT_EQ(store.throttleHistory().size(), 5u);
    EXPECT_TRUE(overlay->warningHistory().empty());
    EXPECT_EQ(spy.count(), 0);
    EXPECT_EQ(store.liveThrottleOverlay(), overlay);
}

// ----- Refresh gating ------------------------------------------------------------------------

TEST(LiveDashboardStoreTest, ShouldRefreshFollowsTrendAndCardSpacing) {
    LiveDashboardStore store;
    EXPECT_TRUE(store.shouldRefresh(t0));
    store.ingest(snapshotAt(t0));
    EXPECT_FALSE(store.shouldRefresh(t0));
    EXPECT_FALSE(store.shouldRefresh(t0 + 0.1));
    EXPECT_FALSE(store.shouldRefresh(t0 + 0.249));
    EXPECT_TRUE(store.shouldRefresh(t0 + 0.25));
    store.ingest(snapshotAt(t0 + 0.5));  // trend only: the card waits for a full second
    EXPECT_FALSE(store.shouldRefresh(t0 + 0.6));
    EXPECT_TRUE(store.shouldRefresh(t0 + 0.75));
    EXPECT_EQ(store.lastTrendRefreshAt(), t0 + 0.5);
    EXPECT_EQ(store.lastCardRefreshAt(), t0);
}

TEST(LiveDashboardStoreTest, EmptyPublishedHistoryKeepsTheTrendDue) {
    LiveDashboardStore store;
    store.setDashboardIsUserVisible(false);
    store.ingest(snapshotAt(t0));
    // Nothing has been published yet, so the next snapshot is due however close it is.
    EXPECT_TRUE(store.shouldRefresh(t0 + 0.01));
    store.ingest(snapshotAt(t0 + 0.01));
    EXPECT_EQ(store.bufferedSampleHistory().size(), 2u);
    EXPECT_TRUE(store.sampleHistory().empty());
}

TEST(LiveDashboardStoreTest, FirstSnapshotUpdatesCardsAndTrend) {
    LiveDashboardStore store;
    LiveSnapshot snapshot = snapshotAt(t0);
    snapshot.previewActive = true;
    snapshot.previewDecision = decisionWithTargets({1800, 2200});
    snapshot.assessment = assessment(true);
    snapshot.gpuConfig.referenceClockMHz = 1398;
    snapshot.events = eventsFrom(t0 - 10, 3);
    QSignalSpy revision(&store, &LiveDashboardStore::trendRevisionChanged);
    QSignalSpy sample(&store, &LiveDashboardStore::latestSampleChanged);

    store.ingest(snapshot);

    EXPECT_EQ(store.latestSample(), snapshot.sample);
    EXPECT_EQ(store.latestDecision(), snapshot.decision);
    EXPECT_EQ(store.latestPreviewDecision(), snapshot.previewDecision);
    EXPECT_EQ(store.status(), ControlStatus::controlling);
    EXPECT_EQ(store.statusRawValue(), QStringLiteral("controlling"));
    EXPECT_EQ(store.controlAuthorityState(), ControlAuthorityState::kelvo);
    EXPECT_EQ(store.throttleAssessment(), assessment(true));
    EXPECT_TRUE(store.throttleWarning());
    EXPECT_EQ(store.gpuClockWindowAnalysisConfig().referenceClockMHz, 1398);
    ASSERT_EQ(store.events().size(), 3u);
    EXPECT_EQ(store.events().front(), snapshot.events.back());
    ASSERT_EQ(store.sampleHistory().size(), 1u);
    ASSERT_EQ(store.previewHistory().size(), 1u);
    EXPECT_EQ(store.previewHistory().front(), (PreviewFanTrendPoint{t0, 2000}));
    ASSERT_EQ(store.throttleHistory().size(), 1u);
    EXPECT_EQ(store.throttleHistory().front(), (ThrottleWarningTrendPoint{t0, true}));
    EXPECT_EQ(store.trendRevision(), 1u);
    EXPECT_EQ(revision.count(), 1);
    EXPECT_EQ(sample.count(), 1);
    EXPECT_EQ(store.lastTrendRefreshAt(), t0);
    EXPECT_EQ(store.lastCardRefreshAt(), t0);
}

TEST(LiveDashboardStoreTest, AStoppedFanCountsAsZeroInThePreviewNotAsMinusOne) {
    LiveDashboardStore store;
    LiveSnapshot snapshot = snapshotAt(t0);
    snapshot.previewActive = true;
    snapshot.previewDecision = decisionWithTargets({kFanStopRPM, 2000, 0});
    store.ingest(snapshot);
    ASSERT_EQ(store.previewHistory().size(), 1u);
    EXPECT_EQ(store.previewHistory().front(), (PreviewFanTrendPoint{t0, 1000}));
}

TEST(LiveDashboardStoreTest, TrendUpdateAloneLeavesCardsAndEventsAsTheyWere) {
    LiveDashboardStore store;
    LiveSnapshot first = snapshotAt(t0, 60);
    first.events = eventsFrom(t0 - 5, 2);
    store.ingest(first);

    LiveSnapshot second = snapshotAt(t0 + 0.3, 75);
    second.status = ControlStatus::fallback;
    second.events = eventsFrom(t0 - 5, 4);
    store.ingest(second);

    EXPECT_EQ(store.latestSample(), first.sample);
    EXPECT_EQ(store.status(), ControlStatus::controlling);
    EXPECT_EQ(store.events().size(), 2u);
    ASSERT_EQ(store.sampleHistory().size(), 2u);
    EXPECT_EQ(store.sampleHistory().back().cpuTemperatureC, 75);
    EXPECT_EQ(store.trendRevision(), 2u);
    EXPECT_EQ(store.lastCardRefreshAt(), t0);
}

TEST(LiveDashboardStoreTest, SnapshotWithNeitherUpdateDueChangesNothing) {
    LiveDashboardStore store;
    store.ingest(snapshotAt(t0));
    const auto summary = store.benefitSummary();
    const quint64 before = store.changeNotificationCount();
    QSignalSpy any(&store, &LiveDashboardStore::publishedFieldChanged);

    LiveSnapshot early = snapshotAt(t0 + 0.1, 90);
    early.status = ControlStatus::fallback;
    early.authority = ControlAuthorityState::unavailable;
    early.events = {eventAt(t0, "Kelvo entered monitor+alert fallback (helper unavailable)")};
    early.assessment = assessment(true);
    store.ingest(early);

    EXPECT_EQ(any.count(), 0);
    EXPECT_EQ(store.changeNotificationCount(), before);
    EXPECT_EQ(store.benefitSummary(), summary);
    EXPECT_EQ(store.bufferedSampleHistory().size(), 1u);
    EXPECT_TRUE(store.bufferedEvents().empty());
    EXPECT_EQ(store.lastTrendRefreshAt(), t0);
    // The skipped fallback event is still counted once a due snapshot brings it.
    early.sample.timestamp = t0 + 1;
    store.ingest(early);
    EXPECT_EQ(store.benefitSummary().fallbackEventCount, 1);
}

TEST(LiveDashboardStoreTest, UnchangedCardValuesCauseNoNotification) {
    LiveDashboardStore store;
    LiveSnapshot snapshot = snapshotAt(t0);
    snapshot.assessment = assessment(true);
    snapshot.gpuConfig.deficitThresholdPct = 9;
    store.ingest(snapshot);

    QSignalSpy assessmentSpy(&store, &LiveDashboardStore::throttleAssessmentChanged);
    QSignalSpy warningSpy(&store, &LiveDashboardStore::throttleWarningChanged);
    QSignalSpy configSpy(&store, &LiveDashboardStore::gpuClockWindowAnalysisConfigChanged);
    QSignalSpy statusSpy(&store, &LiveDashboardStore::statusChanged);
    QSignalSpy authoritySpy(&store, &LiveDashboardStore::controlAuthorityStateChanged);
    QSignalSpy sampleSpy(&store, &LiveDashboardStore::latestSampleChanged);

    snapshot.sample = sampleAt(t0 + 1);
    snapshot.decision = decisionWithTargets({2500, 2500}, t0);
    store.ingest(snapshot);
    EXPECT_EQ(sampleSpy.count(), 1);
    EXPECT_EQ(assessmentSpy.count(), 0);
    EXPECT_EQ(warningSpy.count(), 0);
    EXPECT_EQ(configSpy.count(), 0);
    EXPECT_EQ(statusSpy.count(), 0);
    EXPECT_EQ(authoritySpy.count(), 0);

    snapshot.sample = sampleAt(t0 + 2);
    snapshot.assessment = assessment(false);
    store.ingest(snapshot);
    EXPECT_EQ(assessmentSpy.count(), 1);
    EXPECT_EQ(warningSpy.count(), 1);
    EXPECT_FALSE(store.throttleWarning());
}

TEST(LiveDashboardStoreTest, WarningFlagComesFromTheAssessment) {
    LiveDashboardStore store;
    LiveSnapshot snapshot = snapshotAt(t0);
    snapshot.assessment = assessment(true);
    snapshot.throttleWarning = false;
    store.ingest(snapshot);
    EXPECT_TRUE(store.throttleWarning());
}

TEST(LiveDashboardStoreTest, BenefitSummaryCountsKelvoAuthorityOverTheSnapshots) {
    LiveDashboardStore store;
    QSignalSpy spy(&store, &LiveDashboardStore::benefitSummaryChanged);
    for (int i = 0; i <= 3; ++i) store.ingest(snapshotAt(t0 + i));
    EXPECT_EQ(store.benefitSummary().windowDisplayName, "24 Hours");
    EXPECT_DOUBLE_EQ(store.benefitSummary().kelvoAuthoritySeconds, 3.0);
    EXPECT_DOUBLE_EQ(store.benefitSummary().throttleWarningAvoidedSeconds, 3.0);
    EXPECT_EQ(store.benefitSummary().interventionCount, 1);
    EXPECT_GE(spy.count(), 1);

    // A silence longer than the 45 s episode gap is not credited and starts a new episode.
    store.ingest(snapshotAt(t0 + 3 + 46));
    EXPECT_DOUBLE_EQ(store.benefitSummary().kelvoAuthoritySeconds, 3.0);
    EXPECT_EQ(store.benefitSummary().interventionCount, 2);
}

// ----- Histories -----------------------------------------------------------------------------

TEST(LiveDashboardStoreTest, SameTimestampTwiceLeavesOneEntryWithTheLaterValues) {
    LiveDashboardStore store;
    store.appendHistory(sampleAt(t0, 60), decisionWithTargets({2000}), true, assessment(false));
    store.appendHistory(sampleAt(t0, 81), decisionWithTargets({3000}), true, assessment(true));

    ASSERT_EQ(store.sampleHistory().size(), 1u);
    EXPECT_EQ(store.sampleHistory().front().cpuTemperatureC, 81);
    ASSERT_EQ(store.previewHistory().size(), 1u);
    EXPECT_EQ(store.previewHistory().front().averageRPM, 3000);
    ASSERT_EQ(store.throttleHistory().size(), 1u);
    EXPECT_TRUE(store.throttleHistory().front().isWarning);
    EXPECT_EQ(store.bufferedSampleHistory().size(), 1u);
}

TEST(LiveDashboardStoreTest, HistoryKeepsCompactedSamplesWhileCardsKeepTheFullSample) {
    LiveDashboardStore store;
    const LiveSnapshot snapshot = snapshotAt(t0);
    store.ingest(snapshot);
    ASSERT_EQ(store.sampleHistory().size(), 1u);
    EXPECT_EQ(store.sampleHistory().front(), snapshot.sample.compactedForTrendHistory());
    EXPECT_TRUE(store.sampleHistory().front().fanNames.empty());
    EXPECT_EQ(store.latestSample()->fanNames, snapshot.sample.fanNames);
}

TEST(LiveDashboardStoreTest, SampleMoreThan300sNewerLeavesOnlyTheNewEntry) {
    LiveDashboardStore store;
    for (int i = 0; i < 20; ++i)
        store.appendHistory(sampleAt(t0 + i * 0.5), decisionWithTargets({2000}), true,
                            assessment(i % 2 == 0));
    ASSERT_EQ(store.sampleHistory().size(), 20u);
    const Timestamp newest = t0 + 19 * 0.5;

    store.appendHistory(sampleAt(newest + 301), decisionWithTargets({2400}), true,
                        assessment(true));

    for (const auto* history : {&store.sampleHistory(), &store.bufferedSampleHistory()}) {
        ASSERT_EQ(history->size(), 1u);
        EXPECT_EQ(history->front().timestamp, newest + 301);
    }
    ASSERT_EQ(store.previewHistory().size(), 1u);
    EXPECT_EQ(store.previewHistory().front(), (PreviewFanTrendPoint{newest + 301, 2400}));
    ASSERT_EQ(store.throttleHistory().size(), 1u);
    EXPECT_EQ(store.throttleHistory().front(), (ThrottleWarningTrendPoint{newest + 301, true}));
}

TEST(LiveDashboardStoreTest, EntriesExactly300sOldAreKept) {
    LiveDashboardStore store;
    store.appendHistory(sampleAt(t0), std::nullopt, false, assessment(false));
    store.appendHistory(sampleAt(t0 + 100), std::nullopt, false, assessment(false));
    store.appendHistory(sampleAt(t0 + 300), std::nullopt, false, assessment(false));
    ASSERT_EQ(store.sampleHistory().size(), 3u);
    store.appendHistory(sampleAt(t0 + 300.5), std::nullopt, false, assessment(false));
    ASSERT_EQ(store.sampleHistory().size(), 3u);
    EXPECT_EQ(store.sampleHistory().front().timestamp, t0 + 100);
    EXPECT_EQ(store.throttleHistory().front().timestamp, t0 + 100);
}

TEST(LiveDashboardStoreTest, ThirteenHundredCloseUpdatesAreCappedAt1202Entries) {
    LiveDashboardStore store;
    for (int i = 0; i < 1300; ++i)
        store.appendHistory(sampleAt(t0 + i * 0.1), decisionWithTargets({2000 + double(i)}), true,
                            assessment(false));
    // 130 s is well inside the age limit: only the entry cap trims.
    for (const auto* history : {&store.sampleHistory(), &store.bufferedSampleHistory()}) {
        ASSERT_EQ(history->size(), 1202u);
        EXPECT_DOUBLE_EQ(history->front().timestamp, t0 + 98 * 0.1);
        EXPECT_DOUBLE_EQ(history->back().timestamp, t0 + 1299 * 0.1);
        expectOrderedWithoutRepeats(*history);
    }
    EXPECT_EQ(store.previewHistory().size(), 1202u);
    EXPECT_EQ(store.previewHistory().front().averageRPM, 2098);
    EXPECT_EQ(store.throttleHistory().size(), 1202u);
    expectOrderedWithoutRepeats(store.previewHistory());
    expectOrderedWithoutRepeats(store.throttleHistory());
    EXPECT_EQ(store.trendRevision(), 1300u);
}

TEST(LiveDashboardStoreTest, EachVisibleTrendUpdateBumpsTheRevisionOnce) {
    LiveDashboardStore store;
    QSignalSpy spy(&store, &LiveDashboardStore::trendRevisionChanged);
    store.appendHistory(sampleAt(t0), std::nullopt, false, assessment(false));
    store.appendHistory(sampleAt(t0 + 1), std::nullopt, false, assessment(false));
    store.recordThrottleAssessment(t0 + 2, assessment(true));
    EXPECT_EQ(store.trendRevision(), 2u);
    EXPECT_EQ(spy.count(), 2);
    ASSERT_EQ(store.throttleHistory().size(), 3u);
    EXPECT_EQ(store.throttleHistory().back(), (ThrottleWarningTrendPoint{t0 + 2, true}));
}

// ----- Preview -------------------------------------------------------------------------------

TEST(LiveDashboardStoreTest, PreviewPointAveragesTheDrivenTargets) {
    const auto point = LiveDashboardStore::previewPoint(t0, decisionWithTargets({0, 2000, 3000}));
    ASSERT_TRUE(point);
    EXPECT_EQ(point->timestamp, t0);
    EXPECT_EQ(point->averageRPM, 2500);
    // A negative target is a stop: a fan held at 0 rpm, not one left out.
    EXPECT_EQ(LiveDashboardStore::previewPoint(t0, decisionWithTargets({-100, 1000}))->averageRPM,
              500);
    EXPECT_FALSE(LiveDashboardStore::previewPoint(t0, std::nullopt));
    EXPECT_FALSE(LiveDashboardStore::previewPoint(t0, decisionWithTargets({0, 0, 0})));
    EXPECT_FALSE(LiveDashboardStore::previewPoint(t0, decisionWithTargets({})));
}

TEST(LiveDashboardStoreTest, ClearPreviewWithoutPreviewStateSendsNoNotification) {
    LiveDashboardStore store;
    QSignalSpy any(&store, &LiveDashboardStore::publishedFieldChanged);
    store.clearPreview();
    EXPECT_EQ(any.count(), 0);

    // The same holds inside a trend update with the preview inactive.
    QSignalSpy preview(&store, &LiveDashboardStore::previewHistoryChanged);
    QSignalSpy previewDecision(&store, &LiveDashboardStore::latestPreviewDecisionChanged);
    store.appendHistory(sampleAt(t0), std::nullopt, false, assessment(false));
    EXPECT_EQ(preview.count(), 0);
    EXPECT_EQ(previewDecision.count(), 0);
    EXPECT_TRUE(store.previewHistory().empty());
}

TEST(LiveDashboardStoreTest, ActivePreviewWithAllZeroTargetsNeitherExtendsNorClears) {
    LiveDashboardStore store;
    store.appendHistory(sampleAt(t0), decisionWithTargets({2000, 2200}), true, assessment(false));
    ASSERT_EQ(store.previewHistory().size(), 1u);
    QSignalSpy preview(&store, &LiveDashboardStore::previewHistoryChanged);

    store.appendHistory(sampleAt(t0 + 1), decisionWithTargets({0, 0}), true, assessment(false));
    store.appendHistory(sampleAt(t0 + 2), std::nullopt, true, assessment(false));

    ASSERT_EQ(store.previewHistory().size(), 1u);
    EXPECT_EQ(store.previewHistory().front(), (PreviewFanTrendPoint{t0, 2100}));
    EXPECT_EQ(store.bufferedPreviewHistory().size(), 1u);
    EXPECT_EQ(preview.count(), 0);
    EXPECT_EQ(store.sampleHistory().size(), 3u);
}

TEST(LiveDashboardStoreTest, InactivePreviewClearsDecisionAndTraceWithoutRevision) {
    LiveDashboardStore store;
    LiveSnapshot snapshot = snapshotAt(t0);
    snapshot.previewActive = true;
    snapshot.previewDecision = decisionWithTargets({2600});
    store.ingest(snapshot);
    ASSERT_TRUE(store.latestPreviewDecision());
    ASSERT_EQ(store.previewHistory().size(), 1u);
    const quint64 revision = store.trendRevision();
    QSignalSpy preview(&store, &LiveDashboardStore::previewHistoryChanged);
    QSignalSpy previewDecision(&store, &LiveDashboardStore::latestPreviewDecisionChanged);

    store.clearPreview();

    EXPECT_FALSE(store.latestPreviewDecision());
    EXPECT_TRUE(store.previewHistory().empty());
    EXPECT_TRUE(store.bufferedPreviewHistory().empty());
    EXPECT_EQ(store.trendRevision(), revision);
    EXPECT_EQ(preview.count(), 1);
    EXPECT_EQ(previewDecision.count(), 1);

    // A second clear has nothing left to do.
    QSignalSpy any(&store, &LiveDashboardStore::publishedFieldChanged);
    store.clearPreview();
    EXPECT_EQ(any.count(), 0);
}

TEST(LiveDashboardStoreTest, TrendUpdateWithPreviewOffClearsTheTrace) {
    LiveDashboardStore store;
    store.appendHistory(sampleAt(t0), decisionWithTargets({2000}), true, assessment(false));
    store.appendHistory(sampleAt(t0 + 1), decisionWithTargets({2000}), false, assessment(false));
    EXPECT_TRUE(store.previewHistory().empty());
    EXPECT_TRUE(store.bufferedPreviewHistory().empty());
}

TEST(LiveDashboardStoreTest, ClearPreviewWhileHiddenLeavesThePublishedTraceForLater) {
    LiveDashboardStore store;
    store.appendHistory(sampleAt(t0), decisionWithTargets({2000}), true, assessment(false));
    store.setDashboardIsUserVisible(false);
    store.clearPreview();
    EXPECT_TRUE(store.bufferedPreviewHistory().empty());
    EXPECT_EQ(store.previewHistory().size(), 1u);
    store.setDashboardIsUserVisible(true);
    store.publishBufferedState();
    EXPECT_TRUE(store.previewHistory().empty());
}

// ----- Events --------------------------------------------------------------------------------

TEST(LiveDashboardStoreTest, TwoHundredEventsKeepTheNewest160NewestFirst) {
    LiveDashboardStore store;
    const auto events = eventsFrom(t0, 200);
    QSignalSpy spy(&store, &LiveDashboardStore::eventsChanged);
    store.applyEventSnapshot(events);
    ASSERT_EQ(store.events().size(), 160u);
    for (std::size_t i = 0; i < 160; ++i) EXPECT_EQ(store.events()[i], events[199 - i]);
    EXPECT_EQ(store.bufferedEvents(), store.events());
    EXPECT_EQ(spy.count(), 1);

    QSignalSpy any(&store, &LiveDashboardStore::publishedFieldChanged);
    store.applyEventSnapshot(events);
    EXPECT_EQ(any.count(), 0);
    EXPECT_EQ(spy.count(), 1);

    store.applyEventSnapshot({});
    EXPECT_TRUE(store.events().empty());
    EXPECT_EQ(spy.count(), 2);
}

TEST(LiveDashboardStoreTest, EventsWhileHiddenStayBufferedUntilPublished) {
    LiveDashboardStore store;
    store.setDashboardIsUserVisible(false);
    QSignalSpy spy(&store, &LiveDashboardStore::eventsChanged);
    store.applyEventSnapshot(eventsFrom(t0, 3));
    EXPECT_EQ(store.bufferedEvents().size(), 3u);
    EXPECT_TRUE(store.events().empty());
    EXPECT_EQ(spy.count(), 0);
    store.setDashboardIsUserVisible(true);
    store.publishBufferedState();
    EXPECT_EQ(store.events(), store.bufferedEvents());
    EXPECT_EQ(spy.count(), 1);
}

// ----- Runtime-written fields ----------------------------------------------------------------

TEST(LiveDashboardStoreTest, RuntimeSettersNotifyOnlyOnChange) {
    LiveDashboardStore store;
    QSignalSpy status(&store, &LiveDashboardStore::statusChanged);
    QSignalSpy warning(&store, &LiveDashboardStore::throttleWarningChanged);
    QSignalSpy label(&store, &LiveDashboardStore::buildVersionLabelChanged);
    QSignalSpy detail(&store, &LiveDashboardStore::buildVersionDetailChanged);
    QSignalSpy visible(&store, &LiveDashboardStore::dashboardIsUserVisibleChanged);

    store.setStatus(ControlStatus::monitoring);
    store.setStatus(ControlStatus::monitoring);
    store.setThrottleWarning(true);
    store.setThrottleWarning(true);
    store.setBuildVersionLabel(QStringLiteral("Build 2.5.0 (343) \u2022 03/05 07:08:09"));
    store.setBuildVersionLabel(QStringLiteral("Build 2.5.0 (343) \u2022 03/05 07:08:09"));
    store.setBuildVersionDetail(QStringLiteral("Backend xpc \u2022 Helper 1.4.2"));
    store.setBuildVersionDetail(QStringLiteral("Backend xpc \u2022 Helper 1.4.2"));
    store.setDashboardIsUserVisible(true);
    store.setDashboardIsUserVisible(false);
    store.setDashboardIsUserVisible(false);

    EXPECT_EQ(status.count(), 1);
    EXPECT_EQ(warning.count(), 1);
    EXPECT_EQ(label.count(), 1);
    EXPECT_EQ(detail.count(), 1);
    EXPECT_EQ(visible.count(), 1);
    EXPECT_EQ(store.status(), ControlStatus::monitoring);
    EXPECT_EQ(store.property("status").toString(), QStringLiteral("monitoring"));
    EXPECT_TRUE(store.property("throttleWarning").toBool());
    EXPECT_EQ(store.property("buildVersionDetail").toString(),
              QStringLiteral("Backend xpc \u2022 Helper 1.4.2"));
    EXPECT_EQ(store.changeNotificationCount(), 4u);
}

}  // namespace
}  // namespace kelvo

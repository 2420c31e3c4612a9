// The dashboard window's visibility, as the presentation store keeps it, decides whether the live
// store publishes its histories or buffers them.
#include <gtest/gtest.h>

#include <QDir>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <memory>

#include "app/AppPresentationStore.h"
#include "live/LiveDashboardStore.h"
#include "tests/QtTestPrinters.h"
#include "tests/live/LiveTestSamples.h"

namespace kelvo {
namespace {

using namespace live_test;

// ----- Visibility ----------------------------------------------------------------------------

class LiveStoreVisibilityTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(temp_.isValid());
        settings_ = std::make_unique<QSettings>(QDir(temp_.path()).filePath("Kelvo.ini"),
                                                QSettings::IniFormat);
        presentation_ = std::make_unique<AppPresentationStore>(settings_.get());
        live_.applyWindowVisibility(presentation_->dashboardWindowVisibility());
        QObject::connect(
            presentation_.get(), &AppPresentationStore::dashboardWindowVisibilityChanged, &live_,
            [this] { live_.applyWindowVisibility(presentation_->dashboardWindowVisibility()); });
    }

    LiveSnapshot previewSnapshot(Timestamp t, int eventCount) {
        LiveSnapshot snapshot = snapshotAt(t);
        snapshot.previewActive = true;
        snapshot.previewDecision = decisionWithTargets({2000 + t - t0});
        snapshot.assessment = assessment(static_cast<int>(t - t0) % 2 == 0);
        snapshot.events = eventsFrom(t0 - 1000, eventCount);
        return snapshot;
    }

    QTemporaryDir temp_;
    std::unique_ptr<QSettings> settings_;
    std::unique_ptr<AppPresentationStore> presentation_;
    LiveDashboardStore live_;
};

TEST_F(LiveStoreVisibilityTest, MinimizedWindowBuffersAndVisibleFlushesAllFourListsOnce) {
    live_.ingest(previewSnapshot(t0, 1));
    const auto publishedSamples = live_.sampleHistory();
    const quint64 revision = live_.trendRevision();

    presentation_->setDashboardWindowVisibility(DashboardWindowVisibility::minimized);
    EXPECT_FALSE(live_.dashboardIsUserVisible());
    QSignalSpy samples(&live_, &LiveDashboardStore::sampleHistoryChanged);
    QSignalSpy previews(&live_, &LiveDashboardStore::previewHistoryChanged);
    QSignalSpy throttles(&live_, &LiveDashboardStore::throttleHistoryChanged);
    QSignalSpy events(&live_, &LiveDashboardStore::eventsChanged);
    QSignalSpy revisions(&live_, &LiveDashboardStore::trendRevisionChanged);
    QSignalSpy cards(&live_, &LiveDashboardStore::latestSampleChanged);

    for (int i = 1; i <= 4; ++i) live_.ingest(previewSnapshot(t0 + i, 1 + i));

    EXPECT_EQ(live_.trendRevision(), revision);
    EXPECT_EQ(live_.sampleHistory(), publishedSamples);
    EXPECT_EQ(live_.previewHistory().size(), 1u);
    EXPECT_EQ(live_.throttleHistory().size(), 1u);
    EXPECT_EQ(live_.events().size(), 1u);
    EXPECT_EQ(live_.bufferedSampleHistory().size(), 5u);
    EXPECT_EQ(live_.bufferedEvents().size(), 5u);
    EXPECT_EQ(samples.count() + previews.count() + throttles.count() + events.count(), 0);
    EXPECT_EQ(revisions.count(), 0);
    // The cards keep updating while the window is minimized.
    EXPECT_EQ(cards.count(), 4);
    EXPECT_EQ(live_.latestSample()->timestamp, t0 + 4);

    presentation_->setDashboardWindowVisibility(DashboardWindowVisibility::visible);

    EXPECT_TRUE(live_.dashboardIsUserVisible());
    EXPECT_EQ(live_.trendRevision(), revision + 1);
    EXPECT_EQ(revisions.count(), 1);
    EXPECT_EQ(samples.count(), 1);
    EXPECT_EQ(previews.count(), 1);
    EXPECT_EQ(throttles.count(), 1);
    EXPECT_EQ(events.count(), 1);
    EXPECT_EQ(live_.sampleHistory(), live_.bufferedSampleHistory());
    EXPECT_EQ(live_.previewHistory(), live_.bufferedPreviewHistory());
    EXPECT_EQ(live_.throttleHistory(), live_.bufferedThrottleHistory());
    EXPECT_EQ(live_.events(), live_.bufferedEvents());
    EXPECT_EQ(live_.sampleHistory().size(), 5u);
}

TEST_F(LiveStoreVisibilityTest, HiddenCountsAsNotVisibleAndReturningFlushesOnce) {
    presentation_->setDashboardWindowVisibility(DashboardWindowVisibility::hidden);
    EXPECT_FALSE(live_.dashboardIsUserVisible());
    live_.ingest(previewSnapshot(t0, 2));
    EXPECT_EQ(live_.trendRevision(), 0u);
    presentation_->setDashboardWindowVisibility(DashboardWindowVisibility::minimized);
    EXPECT_EQ(live_.trendRevision(), 0u);
    presentation_->setDashboardWindowVisibility(DashboardWindowVisibility::visible);
    EXPECT_EQ(live_.trendRevision(), 1u);
    EXPECT_EQ(live_.sampleHistory().size(), 1u);
}

TEST_F(LiveStoreVisibilityTest, OffscreenWindowKeepsPublishing) {
    live_.ingest(previewSnapshot(t0, 1));
    QSignalSpy flag(&live_, &LiveDashboardStore::dashboardIsUserVisibleChanged);
    const quint64 revision = live_.trendRevision();

    presentation_->setDashboardWindowVisibility(DashboardWindowVisibility::offscreen);
    EXPECT_TRUE(live_.dashboardIsUserVisible());
    EXPECT_EQ(flag.count(), 0);
    EXPECT_EQ(live_.trendRevision(), revision);  // no flush: nothing was held back

    live_.ingest(previewSnapshot(t0 + 1, 2));
    EXPECT_EQ(live_.trendRevision(), revision + 1);
    EXPECT_EQ(live_.sampleHistory().size(), 2u);
    EXPECT_EQ(live_.previewHistory().size(), 2u);
    EXPECT_EQ(live_.throttleHistory().size(), 2u);
    EXPECT_EQ(live_.events().size(), 2u);
}

TEST(LiveDashboardStoreTest, VisibilityRuleCountsOffscreenAsVisible) {
    EXPECT_TRUE(LiveDashboardStore::countsAsUserVisible(DashboardWindowVisibility::visible));
    EXPECT_TRUE(LiveDashboardStore::countsAsUserVisible(DashboardWindowVisibility::offscreen));
    EXPECT_FALSE(LiveDashboardStore::countsAsUserVisible(DashboardWindowVisibility::hidden));
    EXPECT_FALSE(LiveDashboardStore::countsAsUserVisible(DashboardWindowVisibility::minimized));
}

TEST(LiveDashboardStoreTest, PublishingBuffersAlwaysBumpsTheRevision) {
    LiveDashboardStore store;
    QSignalSpy samples(&store, &LiveDashboardStore::sampleHistoryChanged);
    store.publishBufferedState();
    store.publishBufferedState();
    EXPECT_EQ(store.trendRevision(), 2u);
    EXPECT_EQ(samples.count(), 0);  // nothing differed
}

}  // namespace
}  // namespace kelvo

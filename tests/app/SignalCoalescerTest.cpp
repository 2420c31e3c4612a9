// SignalCoalescer: a burst is applied once per window with the newest state, and reported once
// with its count; a flood that never pauses is still reported, in parts that add up.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <chrono>

#include "app/SignalCoalescer.h"
#include "tests/EventLoopWait.h"

using namespace kelvo;
using namespace std::chrono_literals;
using kelvo::testing::processFor;
using kelvo::testing::waitFor;

namespace {

struct Tally {
    int applied = 0;
    int stateWhenApplied = -1;
    long reportedNotices = 0;
    long reportedApplications = 0;
    int reports = 0;
};

TEST(SignalCoalescer, ABurstIsAppliedOnceWithItsLastStateAndReportedOnce) {
    Tally tally;
    int state = 0;
    SignalCoalescer coalescer(
        50ms, 60s,
        [&] {
            ++tally.applied;
            tally.stateWhenApplied = state;
        },
        [&](long notices, long applications) {
            ++tally.reports;
            tally.reportedNotices += notices;
            tally.reportedApplications += applications;
        });
    for (state = 1; state <= 20000; ++state) coalescer.notify();
    --state;
    ASSERT_TRUE(waitFor([&] { return tally.reports == 1; }));
    processFor(300);
    EXPECT_EQ(tally.applied, 1);
    EXPECT_EQ(tally.stateWhenApplied, 20000);
    EXPECT_EQ(tally.reports, 1);
    EXPECT_EQ(tally.reportedNotices, 20000);
    EXPECT_EQ(tally.reportedApplications, 1);
}

TEST(SignalCoalescer, AFloodThatNeverPausesIsReportedInPartsThatAddUp) {
    Tally tally;
    SignalCoalescer coalescer(
        20ms, 100ms, [&] { ++tally.applied; },
        [&](long notices, long applications) {
            ++tally.reports;
            tally.reportedNotices += notices;
            tally.reportedApplications += applications;
        });
    long sent = 0;
    // Notices keep coming, a few each pass of the event loop, until two reports have been made.
    ASSERT_TRUE(waitFor([&] {
        for (int i = 0; i < 5; ++i, ++sent) coalescer.notify();
        return tally.reports >= 2;
    }));
    ASSERT_TRUE(waitFor([&] { return tally.reportedNotices == sent; }));
    processFor(200);
    EXPECT_EQ(tally.reportedNotices, sent);
    EXPECT_EQ(tally.reportedApplications, tally.applied);
    EXPECT_EQ(coalescer.applications(), tally.applied);
    // Far fewer re-reads than notices: each window's notices were one.
    EXPECT_LT(tally.applied, sent);
}

}  // namespace

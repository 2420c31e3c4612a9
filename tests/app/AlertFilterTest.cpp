#include <gtest/gtest.h>

#include "app/AlertFilter.h"

using namespace kelvo;

namespace {

using Alert = AlertFilter::Alert;

RuntimeEvent eventAt(const std::string& message, Timestamp timestamp) {
    auto event = RuntimeEvent::make(message);
    event.timestamp = timestamp;
    return event;
}

TEST(AlertFilterMessages, OrdinaryEventsRaiseNothing) {
    EXPECT_TRUE(AlertFilter::alertsFor(RuntimeEvent::make("Control mode changed to Quiet"),
                                       ControlMode::quiet)
                    .empty());
    // The phrase must open the message to count.
    EXPECT_TRUE(AlertFilter::alertsFor(RuntimeEvent::make("Fan 2: Stopped taking back it87"),
                                       ControlMode::quiet)
                    .empty());
}

TEST(AlertFilterMessages, EachKindHasItsTitleAndBody) {
    EXPECT_EQ(AlertFilter::alertsFor(
                  RuntimeEvent::make("Entered monitor+alert fallback (helper unavailable)", true),
                  ControlMode::quiet),
              (std::vector<Alert>{{QStringLiteral("Kelvo fallback mode"),
                                   QStringLiteral("Fan control released to system auto: "
                                                  "helper unavailable")}}));
    EXPECT_EQ(AlertFilter::alertsFor(RuntimeEvent::make("Fan telemetry degraded (timeout)"),
                                     ControlMode::quiet),
              (std::vector<Alert>{{QStringLiteral("Kelvo fan telemetry degraded"),
                                   QStringLiteral("Continuing with last known fan readings while "
                                                  "retrying the helper.")}}));
    const std::string stopped = "Stopped taking back it87 fan1: the firmware keeps it";
    EXPECT_EQ(AlertFilter::alertsFor(RuntimeEvent::make(stopped), ControlMode::quiet),
              (std::vector<Alert>{{QStringLiteral("Kelvo left a fan to the firmware"),
                                   QString::fromStdString(stopped)}}));
}

TEST(AlertFilterMessages, BoundaryWarningNamesTheGivenMode) {
    const auto alerts = AlertFilter::alertsFor(
        RuntimeEvent::make("Repeated boundary pressure while in Quiet"), ControlMode::performance);
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0].title, QStringLiteral("Kelvo boundary warning"));
    EXPECT_EQ(alerts[0].body,
              QStringLiteral("Repeated boundary pressure detected while Performance was active."));
}

TEST(AlertFilterMessages, FallbackReasonComesFromTheLastParentheses) {
    EXPECT_EQ(AlertFilter::fallbackReason(QStringLiteral("fallback (a) then (b)")),
              QStringLiteral("b"));
    EXPECT_EQ(AlertFilter::fallbackReason(QStringLiteral("fallback ) oops (")),
              QStringLiteral("fan control path unavailable"));
    EXPECT_EQ(AlertFilter::fallbackReason(QStringLiteral("fallback")),
              QStringLiteral("fan control path unavailable"));
    EXPECT_EQ(AlertFilter::fallbackReason(QStringLiteral("fallback ()")), QString());
}

TEST(AlertFilterHistory, TheSameEventIsAdmittedOnce) {
    AlertFilter filter;
    const auto fallback = RuntimeEvent::make("Entered monitor+alert fallback (x)", true);
    EXPECT_EQ(filter.admit(fallback, ControlMode::quiet).size(), 1u);
    EXPECT_TRUE(filter.admit(fallback, ControlMode::quiet).empty());
    // Another event in between makes the first one new again: only the last one is remembered.
    filter.admit(RuntimeEvent::make("Control mode changed to Quiet"), ControlMode::quiet);
    EXPECT_EQ(filter.admit(fallback, ControlMode::quiet).size(), 1u);
}

TEST(AlertFilterHistory, WithNothingHandledEveryEventIsNew) {
    AlertFilter filter;
    const std::vector<RuntimeEvent> events{eventAt("a", 1), eventAt("b", 2)};
    EXPECT_EQ(filter.firstUnhandled(events), events.begin());
    const std::vector<RuntimeEvent> none;
    EXPECT_EQ(filter.firstUnhandled(none), none.end());
}

TEST(AlertFilterHistory, EventsAfterTheLastHandledAreNew) {
    AlertFilter filter;
    const auto a = eventAt("a", 1), b = eventAt("b", 2), c = eventAt("c", 3);
    filter.admit(b, ControlMode::quiet);
    const std::vector<RuntimeEvent> window{a, b, c};
    EXPECT_EQ(filter.firstUnhandled(window), window.begin() + 2);
    const std::vector<RuntimeEvent> upToIt{a, b};
    EXPECT_EQ(filter.firstUnhandled(upToIt), upToIt.end());
}

TEST(AlertFilterHistory, WhenTheLastHandledLeftTheWindowNewerEventsCount) {
    AlertFilter filter;
    filter.admit(eventAt("b", 5), ControlMode::quiet);
    const auto older = eventAt("a", 4), newer = eventAt("c", 6), newest = eventAt("d", 7);
    const std::vector<RuntimeEvent> window{older, newer, newest};
    EXPECT_EQ(filter.firstUnhandled(window), window.begin() + 1);
    const std::vector<RuntimeEvent> onlyOlder{older};
    EXPECT_EQ(filter.firstUnhandled(onlyOlder), onlyOlder.end());
}

}  // namespace

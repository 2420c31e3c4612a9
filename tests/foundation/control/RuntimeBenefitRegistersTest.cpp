#include "foundation/control/RuntimeBenefitRegisters.h"

#include <gtest/gtest.h>

namespace kelvo {
namespace {

constexpr auto kKelvo = ControlAuthorityState::kelvo;
constexpr auto kSystem = ControlAuthorityState::system;

RuntimeBenefitRegisters dayRegisters() {
    return RuntimeBenefitRegisters(86400, 45, "24 Hours");
}

// One sample per second over [from, to], all with the same authority and warning state.
void feed(RuntimeBenefitRegisters& r, int from, int to, ControlAuthorityState authority,
          bool warning = false) {
    for (int t = from; t <= to; ++t) r.recordSample(t, authority, warning);
}

RuntimeEvent eventAt(Timestamp timestamp, std::string message) {
    RuntimeEvent event = RuntimeEvent::make(std::move(message), true);
    event.timestamp = timestamp;
    return event;
}

TEST(RuntimeBenefitRegisters, KelvoAuthorityTimeAccumulatesBetweenSamples) {
    auto r = dayRegisters();
    feed(r, 0, 10, kKelvo);
    feed(r, 11, 20, kSystem);  // [10, 11) still belongs to the Kelvo sample at 10
    auto summary = r.summary(20);
    EXPECT_DOUBLE_EQ(summary.kelvoAuthoritySeconds, 11);
    EXPECT_EQ(summary.interventionCount, 1);
}

TEST(RuntimeBenefitRegisters, SystemAuthorityEarnsNothing) {
    auto r = dayRegisters();
    feed(r, 0, 100, kSystem);
    r.recordSample(101, ControlAuthorityState::unavailable);
    auto summary = r.summary(101);
    EXPECT_DOUBLE_EQ(summary.kelvoAuthoritySeconds, 0);
    EXPECT_EQ(summary.interventionCount, 0);
}

TEST(RuntimeBenefitRegisters, FirstKelvoSampleOpensAnIntervention) {
    auto r = dayRegisters();
    r.recordSample(5, kKelvo);
    auto summary = r.summary(5);
    EXPECT_EQ(summary.interventionCount, 1);
    EXPECT_DOUBLE_EQ(summary.kelvoAuthoritySeconds, 0);
}

TEST(RuntimeBenefitRegisters, SampleGapLongerThanEpisodeGapIsNotCredited) {
    auto r = dayRegisters();
    r.recordSample(0, kKelvo);
    r.recordSample(100, kKelvo);  // 100 s without a sample: not credited
    r.recordSample(101, kKelvo);
    auto summary = r.summary(101);
    EXPECT_DOUBLE_EQ(summary.kelvoAuthoritySeconds, 1);
    EXPECT_EQ(summary.interventionCount, 2);
}

TEST(RuntimeBenefitRegisters, StretchesCloserThanGapAreOneIntervention) {
    auto r = dayRegisters();
    feed(r, 0, 10, kKelvo);
    feed(r, 11, 54, kSystem);  // Kelvo ends at 11, resumes at 55: 44 s apart
    feed(r, 55, 60, kKelvo);
    r.recordSample(61, kSystem);
    auto summary = r.summary(61);
    EXPECT_EQ(summary.interventionCount, 1);
    EXPECT_DOUBLE_EQ(summary.kelvoAuthoritySeconds, 11 + 6);
}

TEST(RuntimeBenefitRegisters, StretchesSeparatedByGapOrMoreAreSeparateInterventions) {
    auto r = dayRegisters();
    feed(r, 0, 10, kKelvo);
    feed(r, 11, 55, kSystem);  // Kelvo ends at 11, resumes at 56: exactly 45 s apart
    feed(r, 56, 60, kKelvo);
    feed(r, 61, 200, kSystem);
    feed(r, 201, 205, kKelvo);
    auto summary = r.summary(205);
    EXPECT_EQ(summary.interventionCount, 3);
    EXPECT_DOUBLE_EQ(summary.kelvoAuthoritySeconds, 11 + 5 + 4);
}

TEST(RuntimeBenefitRegisters, ThrottleWarningTimeIsNotCountedAsAvoided) {
    auto r = dayRegisters();
    feed(r, 0, 2, kKelvo);
    feed(r, 3, 5, kKelvo, true);  // [3, 6) under warning
    feed(r, 6, 10, kKelvo);
    auto summary = r.summary(10);
    EXPECT_DOUBLE_EQ(summary.kelvoAuthoritySeconds, 10);
    EXPECT_DOUBLE_EQ(summary.throttleWarningAvoidedSeconds, 7);
    EXPECT_EQ(summary.interventionCount, 1);  // a warning does not split an episode
}

TEST(RuntimeBenefitRegisters, AuthorityOlderThanWindowDropsOut) {
    RuntimeBenefitRegisters r(100, 45, "100 Seconds");
    feed(r, 0, 10, kKelvo);
    r.recordSample(11, kSystem);
    EXPECT_DOUBLE_EQ(r.summary(11).kelvoAuthoritySeconds, 11);
    // At 105 the window starts at 5: only [5, 11) is left.
    EXPECT_DOUBLE_EQ(r.summary(105).kelvoAuthoritySeconds, 6);
    EXPECT_EQ(r.summary(105).interventionCount, 1);
    auto later = r.summary(200);
    EXPECT_DOUBLE_EQ(later.kelvoAuthoritySeconds, 0);
    EXPECT_EQ(later.interventionCount, 0);
    // Recording past the window prunes for good; new authority starts from zero.
    feed(r, 300, 302, kKelvo);
    auto fresh = r.summary(302);
    EXPECT_DOUBLE_EQ(fresh.kelvoAuthoritySeconds, 2);
    EXPECT_EQ(fresh.interventionCount, 1);
}

TEST(RuntimeBenefitRegisters, EventsAreCountedOncePerId) {
    auto r = dayRegisters();
    const auto fallback = eventAt(100, "Entered monitor+alert fallback (helper unavailable)");
    const auto boundary = eventAt(110, "Repeated boundary pressure while in Quiet");
    const auto other = eventAt(120, "Fan telemetry degraded");
    r.recordEvents({fallback, boundary, other}, 200);
    r.recordEvents({fallback, boundary, other}, 210);
    auto summary = r.summary(210);
    EXPECT_EQ(summary.fallbackEventCount, 1);
    EXPECT_EQ(summary.throttleWarningEventCount, 1);

    r.recordEvents({eventAt(220, "Entered monitor+alert fallback (write failed)")}, 230);
    EXPECT_EQ(r.summary(230).fallbackEventCount, 2);
}

TEST(RuntimeBenefitRegisters, EventsOutsideWindowAreNotCounted) {
    RuntimeBenefitRegisters r(100, 45, "100 Seconds");
    r.recordEvents({eventAt(10, "Entered monitor+alert fallback (x)")}, 200);
    EXPECT_EQ(r.summary(200).fallbackEventCount, 0);

    r.recordEvents({eventAt(150, "Repeated boundary pressure while in Performance")}, 200);
    EXPECT_EQ(r.summary(200).throttleWarningEventCount, 1);
    EXPECT_EQ(r.summary(251).throttleWarningEventCount, 0);
}

TEST(RuntimeBenefitRegisters, SummaryCarriesWindowNameAndLength) {
    RuntimeBenefitRegisters r(3600, 45, "1 Hour");
    auto summary = r.summary(0);
    EXPECT_EQ(summary.windowDisplayName, "1 Hour");
    EXPECT_DOUBLE_EQ(summary.windowSeconds, 3600);
}

}  // namespace
}  // namespace kelvo

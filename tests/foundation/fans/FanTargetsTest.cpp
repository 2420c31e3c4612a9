#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "foundation/fans/FanTargets.h"

namespace kelvo {
namespace {

TEST(FanTargetsCheck, NoControllableFanRefusesEveryVector) {
    const FanResult none = checkFanTargets(0, 0, 0);
    EXPECT_FALSE(none.ok);
    EXPECT_EQ(none.error, "no controllable fans found");
    // Speed-only fans: the count would fit, but nothing could take a target.
    const FanResult speedOnly = checkFanTargets(2, 0, 2);
    EXPECT_FALSE(speedOnly.ok);
    EXPECT_EQ(speedOnly.error, "no controllable fans found");
}

TEST(FanTargetsCheck, CountMustMatchTheFansOnceOneIsControllable) {
    const FanResult shortVector = checkFanTargets(3, 2, 1);
    EXPECT_FALSE(shortVector.ok);
    EXPECT_EQ(shortVector.error, "expected 3 fan targets, got 1");
    const FanResult longVector = checkFanTargets(1, 1, 2);
    EXPECT_FALSE(longVector.ok);
    EXPECT_EQ(longVector.error, "expected 1 fan targets, got 2");
}

TEST(FanTargetsCheck, FittingVectorIsAccepted) {
    const FanResult fits = checkFanTargets(3, 1, 3);
    EXPECT_TRUE(fits.ok);
    EXPECT_TRUE(fits.error.empty());
}

TEST(FanTargetsFirstError, KeepsOnlyTheFirstNonEmptyError) {
    FirstFanError errors;
    EXPECT_TRUE(errors.result().ok);
    // An empty message carries nothing to report: the next error takes its place.
    errors.note("");
    EXPECT_TRUE(errors.result().ok);
    errors.note("fan1: stuck");
    errors.note("fan2: gone");
    EXPECT_EQ(errors.first(), "fan1: stuck");
    const FanResult result = errors.result();
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, "fan1: stuck");
}

TEST(FanTargetsRound, EveryFanGetsItsTurnAfterAFailure) {
    std::vector<std::size_t> visited;
    const FanResult result = runFanRound(4, [&](std::size_t i) {
        visited.push_back(i);
        if (i == 1) return FanStep::failed("fan 1 refused");
        if (i == 2) return FanStep::failed("fan 2 refused");
        return FanStep::done();
    });
    EXPECT_EQ(visited, (std::vector<std::size_t>{0, 1, 2, 3}));
    EXPECT_FALSE(result.ok);
    EXPECT_EQ(result.error, "fan 1 refused");
}

TEST(FanTargetsRound, RoundWithoutFailureSucceeds) {
    int turns = 0;
    const FanResult result = runFanRound(3, [&](std::size_t) {
        ++turns;
        return FanStep::done();
    });
    EXPECT_EQ(turns, 3);
    EXPECT_TRUE(result.ok);
    EXPECT_TRUE(runFanRound(0, [](std::size_t) { return FanStep::failed("never asked"); }).ok);
}

TEST(FanTargetsRound, EndingTheRoundStopsAtThatFanWithItsResult) {
    std::vector<std::size_t> visited;
    const FanResult result = runFanRound(4, [&](std::size_t i) {
        visited.push_back(i);
        if (i == 0) return FanStep::failed("fan 0 refused");
        if (i == 2) return FanStep::endRound(FanResult::failure("helper unavailable"));
        return FanStep::done();
    });
    EXPECT_EQ(visited, (std::vector<std::size_t>{0, 1, 2}));
    EXPECT_FALSE(result.ok);
    // The broken path is what matters, not the fan that failed before it.
    EXPECT_EQ(result.error, "helper unavailable");
}

}  // namespace
}  // namespace kelvo

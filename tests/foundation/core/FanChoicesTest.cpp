#include <gtest/gtest.h>

#include "foundation/core/FanChoices.h"

using namespace kelvo;

namespace {
FanState fan(const std::string& name, double minRPM, double maxRPM, const std::string& label = {}) {
    FanState state;
    state.name = name;
    state.minRPM = minRPM;
    state.maxRPM = maxRPM;
    state.label = label;
    return state;
}
}  // namespace

TEST(FanChoices, ParsesEachChoiceWord) {
    EXPECT_EQ(parseFanChoice("auto")->kind, FanChoiceKind::automatic);
    EXPECT_EQ(parseFanChoice("firmware")->kind, FanChoiceKind::firmware);
    auto fixed = parseFanChoice("fixed 60");
    ASSERT_TRUE(fixed);
    EXPECT_EQ(fixed->kind, FanChoiceKind::fixed);
    EXPECT_DOUBLE_EQ(fixed->fixedPercent, 60);
}

TEST(FanChoices, MinimumKeepsTheKindAndTheKindKeepsTheMinimum) {
    auto firmware = parseFanChoice("firmware");
    auto withMin = parseFanChoice("min 20", *firmware);
    ASSERT_TRUE(withMin);
    EXPECT_EQ(withMin->kind, FanChoiceKind::firmware);
    EXPECT_DOUBLE_EQ(withMin->minimumPercent, 20);
    auto backToAuto = parseFanChoice("auto", *withMin);
    ASSERT_TRUE(backToAuto);
    EXPECT_EQ(backToAuto->kind, FanChoiceKind::automatic);
    EXPECT_DOUBLE_EQ(backToAuto->minimumPercent, 20);
}

TEST(FanChoices, RefusesUnknownWordsAndOutOfRangePercentages) {
    EXPECT_FALSE(parseFanChoice(""));
    EXPECT_FALSE(parseFanChoice("loud"));
    EXPECT_FALSE(parseFanChoice("fixed"));
    EXPECT_FALSE(parseFanChoice("fixed 101"));
    EXPECT_FALSE(parseFanChoice("fixed -1"));
    EXPECT_FALSE(parseFanChoice("fixed sixty"));
    EXPECT_FALSE(parseFanChoice("min 150"));
    EXPECT_FALSE(parseFanChoice("auto extra"));
}

TEST(FanChoices, FormatRoundTripsThroughParse) {
    for (const char* text :
         {"auto", "firmware", "fixed 60", "fixed 37.5", "auto min 20", "fixed 80 min 10"}) {
        auto choice = parseFanChoice(text);
        ASSERT_TRUE(choice) << text;
        EXPECT_EQ(formatFanChoice(*choice), text);
        EXPECT_EQ(parseFanChoice(formatFanChoice(*choice)), choice);
    }
}

TEST(FanChoices, FirmwareGivesTargetZero) {
    EXPECT_EQ(fanTargetRPM(fan("a", 1000, 5000), *parseFanChoice("firmware"), 0.8), 0);
}

TEST(FanChoices, FixedIsItsShareOfTheRangeWhateverTheDuty) {
    const FanState f = fan("a", 1000, 5000);
    const FanChoice fixed = *parseFanChoice("fixed 60");
    EXPECT_DOUBLE_EQ(fanTargetRPM(f, fixed, 0.0), 1000 + 0.6 * 4000);
    EXPECT_DOUBLE_EQ(fanTargetRPM(f, fixed, 1.0), 1000 + 0.6 * 4000);
}

TEST(FanChoices, AutoFollowsTheDutyAboveTheMinimum) {
    const FanState f = fan("a", 1000, 5000);
    const FanChoice floor = *parseFanChoice("auto min 20");
    EXPECT_DOUBLE_EQ(fanTargetRPM(f, floor, 0.05), 1000 + 0.2 * 4000);
    EXPECT_DOUBLE_EQ(fanTargetRPM(f, floor, 0.5), 1000 + 0.5 * 4000);
    EXPECT_DOUBLE_EQ(fanTargetRPM(f, FanChoice{}, 0.05), 1000 + 0.05 * 4000);
}

TEST(FanChoices, AFanWithoutARangeUsesTheDefaultOne) {
    const FanSpeedRange range = fanSpeedRange(fan("a", 0, 0));
    EXPECT_GT(range.maxRPM, range.minRPM);
    EXPECT_DOUBLE_EQ(fanTargetRPM(fan("a", 0, 0), FanChoice{}, 1.0), range.maxRPM);
}

TEST(FanChoices, APumpRunsFixedAtFullUntilTheUserChoosesOtherwise) {
    const FanState pump =
        fan("nct6798@/sys/devices/platform/nct6775.656#fan2", 1000, 3000, "AIO Pump");
    const FanState plain =
        fan("nct6798@/sys/devices/platform/nct6775.656#fan1", 1000, 3000, "CPU fan");
    FanChoices none;
    EXPECT_EQ(effectiveFanChoice(pump, none), (FanChoice{FanChoiceKind::fixed, 100, 0}));
    EXPECT_EQ(effectiveFanChoice(plain, none), FanChoice{});
    FanChoices chosen{{pump.name, *parseFanChoice("auto")}};
    EXPECT_EQ(effectiveFanChoice(pump, chosen).kind, FanChoiceKind::automatic);
}

TEST(FanChoices, APumpDriverCountsAsAPumpWhateverItsLabel) {
    EXPECT_TRUE(isPumpChannel("", "d5next_PUMP"));
    EXPECT_TRUE(isPumpChannel("pump", ""));
    EXPECT_FALSE(isPumpChannel("Chassis", "nct6798"));
    const FanState f = fan("aquapump@/sys/devices/x#fan1", 0, 0);
    EXPECT_EQ(effectiveFanChoice(f, {}).kind, FanChoiceKind::fixed);
}

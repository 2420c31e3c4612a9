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
         {"auto", "firmware", "fixed 60", "fixed 37.5", "auto min 20", "fixed 80 min 10",
          "auto stop off", "auto stop on", "auto min 20 stop on", "firmware stop off"}) {
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

TEST(FanChoices, AFanWithoutAMinimumStartsJustAboveZeroNotAtAGuessedFloor) {
    // Duty 0 must stay a real target (not 0, the firmware's) yet ask for no more than the
    // fan's own lowest turning speed, which the back-end finds.
    const double lowest = fanTargetRPM(fan("a", 0, 3000), FanChoice{}, 0.0);
    EXPECT_GT(lowest, 0);
    EXPECT_LT(lowest, 100);
    EXPECT_DOUBLE_EQ(fanSpeedRange(fan("a", 0, 3000)).maxRPM, 3000);
    // A fan that reports its minimum keeps it.
    EXPECT_DOUBLE_EQ(fanTargetRPM(fan("a", 600, 3000), FanChoice{}, 0.0), 600);
    // Half duty is half of the fan's own range, not of a range raised to a made-up floor.
    EXPECT_NEAR(fanTargetRPM(fan("a", 0, 3000), FanChoice{}, 0.5), 1500, 1);
}

TEST(FanChoices, StopWordsKeepTheKindAndTheMinimum) {
    auto withMin = parseFanChoice("fixed 40");
    ASSERT_TRUE(withMin);
    auto stop = parseFanChoice("stop on", *withMin);
    ASSERT_TRUE(stop);
    EXPECT_EQ(stop->kind, FanChoiceKind::fixed);
    EXPECT_DOUBLE_EQ(stop->fixedPercent, 40);
    EXPECT_EQ(stop->stopWhenCool, true);
    auto backToAuto = parseFanChoice("auto", *stop);
    ASSERT_TRUE(backToAuto);
    EXPECT_EQ(backToAuto->stopWhenCool, true);
    auto min = parseFanChoice("min 20 stop off");
    ASSERT_TRUE(min);
    EXPECT_DOUBLE_EQ(min->minimumPercent, 20);
    EXPECT_EQ(min->stopWhenCool, false);
    EXPECT_FALSE(parseFanChoice("stop"));
    EXPECT_FALSE(parseFanChoice("stop maybe"));
    EXPECT_FALSE(parseFanChoice("auto stop"));
}

TEST(FanChoices, StoredFormsWithoutAStopWordLeaveTheStopUnsaid) {
    for (const char* text : {"auto", "auto min 20", "fixed 80 min 10", "firmware"}) {
        auto choice = parseFanChoice(text);
        ASSERT_TRUE(choice) << text;
        EXPECT_FALSE(choice->stopWhenCool) << text;
        EXPECT_EQ(formatFanChoice(*choice).find("stop"), std::string::npos) << text;
    }
}

TEST(FanChoices, UnsaidTheFanStopsWhereTheFirmwareStopsIt) {
    FanState stopping = fan("nct6798@/sys/x#fan1", 0, 2000, "CPU fan");
    stopping.canStop = true;
    stopping.firmwareStops = true;
    FanState turning = fan("nct6798@/sys/x#fan2", 0, 2000, "Chassis");
    turning.canStop = true;
    EXPECT_TRUE(fanMayStop(stopping, FanChoice{}));
    EXPECT_FALSE(fanMayStop(turning, FanChoice{}));
    EXPECT_FALSE(fanMayStop(stopping, *parseFanChoice("stop off")));
    EXPECT_TRUE(fanMayStop(turning, *parseFanChoice("stop on")));
}

TEST(FanChoices, APumpNeverStopsWhateverIsStored) {
    FanState pump = fan("nct6798@/sys/x#fan3", 0, 3000, "AIO Pump");
    pump.canStop = true;
    pump.firmwareStops = true;
    EXPECT_FALSE(fanMayStop(pump, *parseFanChoice("auto stop on")));
    EXPECT_FALSE(fanStopWanted(pump, *parseFanChoice("auto stop on")));
    EXPECT_EQ(fanStopBlocker(pump, *parseFanChoice("auto stop on")), "a pump never stops");
    EXPECT_FALSE(fanMayStop(pump, FanChoice{}));
}

TEST(FanChoices, AMinimumAFixedDutyOrTheFirmwareMeansNoStop) {
    FanState f = fan("nct6798@/sys/x#fan1", 0, 2000);
    f.canStop = true;
    f.firmwareStops = true;
    EXPECT_FALSE(fanMayStop(f, *parseFanChoice("auto min 20 stop on")));
    EXPECT_FALSE(fanMayStop(f, *parseFanChoice("fixed 40 stop on")));
    EXPECT_FALSE(fanMayStop(f, *parseFanChoice("firmware stop on")));
    EXPECT_TRUE(fanMayStop(f, *parseFanChoice("auto min 0 stop on")));
    EXPECT_FALSE(fanStopBlocker(f, *parseFanChoice("auto min 20")).empty());
    EXPECT_TRUE(fanStopBlocker(f, *parseFanChoice("auto")).empty());
}

TEST(FanChoices, TheChoiceWordsNameTheStop) {
    EXPECT_NE(std::string(fanChoiceWords()).find("stop on|off"), std::string::npos);
}

TEST(FanChoices, APumpRunsFixedAtFullUntilTheUserChoosesOtherwise) {
    const FanState pump =
        fan("nct6798@/sys/devices/platform/nct6775.656#fan2", 1000, 3000, "AIO Pump");
    const FanState plain =
        fan("nct6798@/sys/devices/platform/nct6775.656#fan1", 1000, 3000, "CPU fan");
    FanChoices none;
    EXPECT_EQ(effectiveFanChoice(pump, none),
              (FanChoice{FanChoiceKind::fixed, 100, 0, std::nullopt}));
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

TEST(FanChoices, ARefusedChoiceSaysWhatIsWrong) {
    std::string why;
    EXPECT_FALSE(parseFanChoice("fixed 150", {}, &why));
    EXPECT_NE(why.find("'150'"), std::string::npos) << why;
    EXPECT_NE(why.find("0 to 100"), std::string::npos) << why;
    EXPECT_FALSE(parseFanChoice("turbo", {}, &why));
    EXPECT_NE(why.find("'turbo'"), std::string::npos) << why;
    EXPECT_FALSE(parseFanChoice("stop maybe", {}, &why));
    EXPECT_NE(why.find("on or off"), std::string::npos) << why;
    EXPECT_FALSE(parseFanChoice("  ", {}, &why));
    EXPECT_FALSE(why.empty());
}

// A stored entry that names no kind keeps the fan's default one; on a pump that is full speed.
TEST(FanChoices, AnEntryWithoutAKindKeepsTheFansDefaultKind) {
    FanChoice kindless;
    kindless.kindGiven = false;
    const auto minimum = parseFanChoice("min 20", kindless);
    ASSERT_TRUE(minimum);
    EXPECT_FALSE(minimum->kindGiven);
    EXPECT_EQ(formatFanChoice(*minimum), "min 20");
    EXPECT_EQ(parseFanChoice(formatFanChoice(*minimum), kindless), minimum);
    const FanState pump = fan("nct6798@/sys/devices/platform/nct6775.656#fan2", 800, 3000, "Pump");
    const FanState plain = fan("nct6798@/sys/devices/platform/nct6775.656#fan1", 800, 3000);
    const FanChoice onPump = effectiveFanChoice(pump, {{pump.name, *minimum}});
    EXPECT_EQ(formatFanChoice(onPump), "fixed 100 min 20");
    EXPECT_DOUBLE_EQ(fanTargetRPM(pump, onPump, 0.0), 3000);
    EXPECT_EQ(formatFanChoice(effectiveFanChoice(plain, {{plain.name, *minimum}})), "auto min 20");
    // Said with a kind, it is that kind.
    EXPECT_TRUE(parseFanChoice("auto min 20", kindless)->kindGiven);
}

// The stand-in for a value that could not be read covers every fan without an entry.
TEST(FanChoices, TheChoiceForEveryOtherFanCoversFansWithoutAnEntry) {
    FanChoice firmware = *parseFanChoice("firmware");
    firmware.problem = "cannot be read";
    const FanChoices choices{{kEveryOtherFan, firmware}, {"a", *parseFanChoice("fixed 30")}};
    EXPECT_EQ(effectiveFanChoice(fan("a", 0, 0), choices).kind, FanChoiceKind::fixed);
    EXPECT_EQ(effectiveFanChoice(fan("b", 0, 0), choices).kind, FanChoiceKind::firmware);
    EXPECT_EQ(effectiveFanChoice(fan("b", 0, 0, "Pump"), choices).kind, FanChoiceKind::firmware);
    // A choice said afresh carries no old problem.
    EXPECT_TRUE(parseFanChoice("auto", firmware)->problem.empty());
}

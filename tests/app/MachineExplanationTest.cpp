// The sentence Kelvo says once about a machine that offers it less than a fan and a temperature.
#include <gtest/gtest.h>

#include "app/MachineExplanation.h"

namespace kelvo {
namespace {

TEST(MachineExplanation, NoTemperatureAndNoFanSaysSoAndWhatToTry) {
    ControlSnapshot empty;
    const auto sentence = explainMachine(empty);
    ASSERT_TRUE(sentence.has_value());
    EXPECT_NE(sentence->find("no temperature sensor and no fan"), std::string::npos);
    EXPECT_NE(sentence->find("sensors-detect"), std::string::npos);
    EXPECT_NE(sentence->find("kelvo --simulated-fans."), std::string::npos);
}

TEST(MachineExplanation, TemperaturesWithoutAFanLeaveTheFansToTheFirmware) {
    ControlSnapshot snapshot;
    snapshot.sample.gpuTemperatureC = 48;
    const auto sentence = explainMachine(snapshot);
    ASSERT_TRUE(sentence.has_value());
    EXPECT_NE(sentence->find("temperatures but no fan"), std::string::npos);
}

TEST(MachineExplanation, AMachineWithAFanNeedsNoWord) {
    ControlSnapshot snapshot;
    FanState fan;
    fan.name = "it87#fan1";
    snapshot.fans.push_back(fan);
    EXPECT_FALSE(explainMachine(snapshot).has_value());
    ControlSnapshot sampled;
    sampled.sample.cpuTemperatureC = 55;
    sampled.sample.fanNames = {"fan1"};
    EXPECT_FALSE(explainMachine(sampled).has_value());
}

}  // namespace
}  // namespace kelvo

#include <gtest/gtest.h>

#include "ControlTestFakes.h"
#include "foundation/FanWriter.h"

using namespace kelvo;

TEST(FanWriter, ASlowWriteIsAbandonedAndRefusesNewWorkUntilDone) {
    auto fans = std::make_shared<fakes::RecordingFans>();
    fans->writeDelaySeconds = 0.6;
    FanWriter writer(fans);
    auto slow = writer.run([](FanController& c) { return c.setTargets({3000, 3000}); }, 0.05);
    EXPECT_EQ(slow.outcome, FanWriter::Outcome::timedOut);
    auto busy = writer.run([](FanController& c) { return c.setTargets({2000, 2000}); }, 0.05);
    EXPECT_EQ(busy.outcome, FanWriter::Outcome::busy);
    writer.drain();
    EXPECT_EQ(fans->lastTargets, (std::vector<double>{3000, 3000}));
    fans->writeDelaySeconds = 0;
    auto ok = writer.run([](FanController& c) { return c.setTargets({2500, 2500}); }, 1.0);
    EXPECT_EQ(ok.outcome, FanWriter::Outcome::completed);
    EXPECT_TRUE(ok.result.ok);
    EXPECT_EQ(fans->lastTargets, (std::vector<double>{2500, 2500}));
}

TEST(FanWriter, FailuresAreReturnedNotThrown) {
    auto fans = std::make_shared<fakes::RecordingFans>();
    fans->failWrites = true;
    FanWriter writer(fans);
    auto result = writer.run([](FanController& c) { return c.setTargets({1}); }, 1.0);
    EXPECT_EQ(result.outcome, FanWriter::Outcome::completed);
    EXPECT_FALSE(result.result.ok);
    EXPECT_EQ(result.result.error, "helper unavailable");
}

#include <gtest/gtest.h>

#include "foundation/control/FanWriter.h"
#include "tests/foundation/ControlTestFakes.h"

using namespace kelvo;

// Deadlines for writes that are expected to finish: they only matter when a write never does.
constexpr double kGenerousSeconds = 30;

TEST(FanWriter, ASlowWriteIsAbandonedAndRefusesNewWorkUntilDone) {
    auto fans = std::make_shared<fakes::RecordingFans>();
    fans->holdWrites();
    FanWriter writer(fans);
    auto slow = writer.run([](FanController& c) { return c.setTargets({3000, 3000}); }, 0.05);
    EXPECT_EQ(slow.outcome, FanWriter::Outcome::timedOut);
    auto busy = writer.run([](FanController& c) { return c.setTargets({2000, 2000}); }, 0.05);
    EXPECT_EQ(busy.outcome, FanWriter::Outcome::busy);
    EXPECT_EQ(fans->writesDone(), 0) << "the abandoned write is still held";
    fans->releaseWrites();
    writer.drain();
    EXPECT_EQ(fans->lastTargets, (std::vector<double>{3000, 3000}));
    auto ok = writer.run(
        [](FanController& c) {
            return c.setTargets({2500, 2500});
        },
        kGenerousSeconds);
    EXPECT_EQ(ok.outcome, FanWriter::Outcome::completed);
    EXPECT_TRUE(ok.result.ok);
    EXPECT_EQ(fans->lastTargets, (std::vector<double>{2500, 2500}));
}

TEST(FanWriter, FailuresAreReturnedNotThrown) {
    auto fans = std::make_shared<fakes::RecordingFans>();
    fans->failWrites = true;
    FanWriter writer(fans);
    auto result = writer.run([](FanController& c) { return c.setTargets({1}); }, kGenerousSeconds);
    EXPECT_EQ(result.outcome, FanWriter::Outcome::completed);
    EXPECT_FALSE(result.result.ok);
    EXPECT_EQ(result.result.error, "helper unavailable");
}

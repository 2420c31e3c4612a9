#include "foundation/helper_protocol/HelperCounterReader.h"

#include <gtest/gtest.h>

#include "foundation/telemetry/RaplSampler.h"
#include "tests/helper/HelperTestSupport.h"

namespace {

using namespace kelvo;
using namespace kelvo::test_support;
using namespace std::chrono_literals;

constexpr const char* kPackagePath = "/sys/class/powercap/intel-rapl:0/energy_uj";

struct ManualClock {
    HelperCounterReader::Clock::time_point now{};
    std::function<HelperCounterReader::Clock::time_point()> function() {
        return [this] { return now; };
    }
};

class HelperCounterReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        buildHelperBoard(board_);
        runtime_ = makeTempDir("kelvo-counter-run");
        helper_ = std::make_unique<HelperDaemon>(board_.root().string(), runtime_);
        ASSERT_TRUE(helper_->start()) << helper_->log();
    }

    FakeSysfs board_;
    std::filesystem::path runtime_;
    std::unique_ptr<HelperDaemon> helper_;
};

}  // namespace

TEST_F(HelperCounterReaderTest, ReadsTheCounterThroughTheHelper) {
    HelperCounterReader reader(helper_->socketPath());
    EXPECT_EQ(reader.read(kPackagePath), kPackageEnergy);
    board_.write("sys/devices/virtual/powercap/intel-rapl/intel-rapl:0/energy_uj", "123457000\n");
    EXPECT_EQ(reader.read(kPackagePath), 123457000u);
}

TEST_F(HelperCounterReaderTest, ARefusedPathIsNotAskedForAgain) {
    HelperCounterReader reader(helper_->socketPath());
    // Not an energy counter: the helper refuses the request itself.
    EXPECT_EQ(reader.read("/sys/class/powercap/intel-rapl:0/name"), std::nullopt);
    EXPECT_EQ(reader.attempts(), 1u);
    EXPECT_EQ(reader.read("/sys/class/powercap/intel-rapl:0/name"), std::nullopt);
    EXPECT_EQ(reader.attempts(), 1u);
    // A counter that cannot be read right now is asked for again on the next sample.
    EXPECT_EQ(reader.read("/sys/class/powercap/intel-rapl:9/energy_uj"), std::nullopt);
    EXPECT_EQ(reader.read("/sys/class/powercap/intel-rapl:9/energy_uj"), std::nullopt);
    EXPECT_EQ(reader.attempts(), 3u);
    // Other paths still work.
    EXPECT_EQ(reader.read(kPackagePath), kPackageEnergy);
}

TEST(HelperCounterReaderWithoutHelper, BacksOffAndRetriesLater) {
    const auto runtime = makeTempDir("kelvo-counter-none");
    ManualClock clock;
    HelperCounterReader reader((runtime / "helper.sock").string(), clock.function());
    EXPECT_EQ(reader.read(kPackagePath), std::nullopt);
    EXPECT_EQ(reader.attempts(), 1u);
    clock.now += 5s;
    EXPECT_EQ(reader.read(kPackagePath), std::nullopt);
    EXPECT_EQ(reader.attempts(), 1u);

    // The helper comes up: the next attempt after the back-off finds it.
    FakeSysfs board;
    buildHelperBoard(board);
    HelperDaemon helper(board.root().string(), runtime);
    ASSERT_TRUE(helper.start()) << helper.log();
    clock.now += HelperCounterReader::kRetryAfterFailure;
    EXPECT_EQ(reader.read(kPackagePath), kPackageEnergy);
    EXPECT_EQ(reader.attempts(), 2u);
}

TEST_F(HelperCounterReaderTest, RaplSamplerFallsBackToTheHelperForUnreadableCounters) {
    // The sampler's own view has the zone but not the counter.
    FakeSysfs view;
    buildHelperBoard(view);
    std::filesystem::remove(
        view.path("sys/devices/virtual/powercap/intel-rapl/intel-rapl:0/energy_uj"));
    auto reader = std::make_shared<HelperCounterReader>(helper_->socketPath());
    RaplSampler sampler(view.root().string(),
                        [reader](const std::string& path) { return reader->read(path); });
    EXPECT_EQ(sampler.sample(100.0), std::nullopt);  // first call: no rate yet
    board_.write("sys/devices/virtual/powercap/intel-rapl/intel-rapl:0/energy_uj",
                 std::to_string(kPackageEnergy + 30'000'000) + "\n");
    const auto watts = sampler.sample(102.0);
    ASSERT_TRUE(watts.has_value());
    EXPECT_NEAR(*watts, 15.0, 1e-9);
}

// Kelvo's control engine against a real kelvo-helperd whose configuration floors or forbids one
// fan, or whose writes to one fan fail: that fan alone is affected, the others stay under Kelvo.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "foundation/fans/HelperFanController.h"
#include "tests/foundation/ControlTestFakes.h"
#include "tests/helper/HelperTestSupport.h"

namespace {

using namespace kelvo;
using namespace kelvo::test_support;

// Kelvo, with the board behind a helper started with `config` (empty: no configuration file).
class PerFanLimits : public ::testing::Test {
protected:
    void start(const std::string& config) {
        buildHelperBoard(board);
        runtime = makeTempDir("kelvo-perfan-run");
        std::vector<std::string> arguments;
        if (!config.empty()) {
            const auto path = runtime / "helperd.conf";
            std::ofstream(path) << config;
            std::filesystem::permissions(
                path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
            arguments = {"--config", path.string()};
        }
        helper = std::make_unique<HelperDaemon>(board.root().string(), runtime, arguments);
        ASSERT_TRUE(helper->start()) << helper->log();
        telemetry->next.cpuTemperatureC = 50;  // cool: quiet control asks for a low duty
        engine = std::make_unique<ControlEngine>(
            telemetry, std::make_shared<HelperFanController>(helper->socketPath()), nullptr, ring,
            nullptr);
        engine->applyMode(ControlMode::quiet);
    }
    void TearDown() override {
        engine.reset();
        helper.reset();
        std::error_code ec;
        if (!runtime.empty()) std::filesystem::remove_all(runtime, ec);
    }
    std::string file(const std::string& name) const {
        return board.read(std::string(kChip) + name).value_or("<missing>");
    }
    // Ticks one virtual second at a time for `seconds`; returns how many of them Kelvo spent in
    // fallback. `each` is checked after every tick.
    int run(int seconds, const std::function<void()>& each = {}) {
        int fallback = 0;
        for (int i = 0; i < seconds; ++i) {
            const ControlSnapshot snap = engine->tick(now);
            now += 1;
            if (snap.status == ControlStatus::fallback) ++fallback;
            if (each) each();
        }
        return fallback;
    }
    int eventsNaming(const std::string& what) const {
        int count = 0;
        for (const auto& event : ring->recent(1000))
            if (event.message.find(what) != std::string::npos) ++count;
        return count;
    }
    // Whether any client holds the fan, as the helper lists it; none when it cannot be asked.
    std::optional<bool> held(const std::string& identity) const {
        HelperClient client(helper->socketPath(), 250, 1000);
        const HelperCallResult call =
            client.call(helper_protocol::Request::of(helper_protocol::Op::list));
        if (!call.ok()) return std::nullopt;
        const auto inventory = helper_protocol::decodeInventory(call.reply.data);
        if (!inventory.ok()) return std::nullopt;
        for (const auto& fan : inventory.value->fans)
            if (fan.identity == identity) return fan.held;
        return std::nullopt;
    }
    std::string allEvents() const {
        std::string text;
        for (const auto& event : ring->recent(1000)) text += event.message + "\n";
        return text;
    }

    FakeSysfs board;
    std::filesystem::path runtime;
    std::unique_ptr<HelperDaemon> helper;
    std::shared_ptr<fakes::ScriptedTelemetry> telemetry =
        std::make_shared<fakes::ScriptedTelemetry>();
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(1000, 1e9);
    std::unique_ptr<ControlEngine> engine;
    Timestamp now = 1000;
};

}  // namespace

// Kelvo's quiet duty is far below the floor: the floored fan runs at its floor, the other fan is
// driven as usual, and no tick is spent in fallback.
TEST_F(PerFanLimits, AFloorOnOneFanRaisesThatFanAndCostsNoOtherFan) {
    start(std::string("floor ") + kFan1 + " 60%\n");  // duty 153
    int belowFloor = 0;
    int fan1Held = 0;
    const int fallbackSeconds = run(60, [&] {
        if (file("pwm1_enable") != "1") return;
        ++fan1Held;
        if (std::stoi(file("pwm1")) < 153) ++belowFloor;
    });
    std::printf("[ figure ] floor on fan1: %d of 60 s in fallback\n", fallbackSeconds);
    EXPECT_EQ(fallbackSeconds, 0) << allEvents();
    EXPECT_EQ(fan1Held, 60);
    EXPECT_EQ(belowFloor, 0);
    EXPECT_EQ(file("pwm1_enable"), "1");
    EXPECT_GE(std::stoi(file("pwm1")), 153);
    // fan2 under Kelvo at a quiet duty, well under the floor fan1 has.
    EXPECT_EQ(file("pwm2_enable"), "1");
    EXPECT_LT(std::stoi(file("pwm2")), 153);
    EXPECT_EQ(eventsNaming("Entered monitor+alert fallback"), 0) << allEvents();
    // Shown once: the floor is the helper's, not a failure of Kelvo's.
    EXPECT_EQ(eventsNaming("no less than 60 %"), 1) << allEvents();
}

// A forbidden fan stays with the firmware, said once; the other fans are Kelvo's.
TEST_F(PerFanLimits, AForbiddenFanStaysWithTheFirmwareAndTheOthersStayWithKelvo) {
    start(std::string("forbid ") + kFan2 + "\n");
    const int fallbackSeconds = run(40);
    std::printf("[ figure ] forbid on fan2: %d of 40 s in fallback\n", fallbackSeconds);
    EXPECT_EQ(fallbackSeconds, 0) << allEvents();
    EXPECT_EQ(held(kFan1), true);
    EXPECT_EQ(held(kFan3), true);
    EXPECT_EQ(held(kFan2), false);
    EXPECT_EQ(file("pwm2_enable"), "5");  // its original firmware mode, never touched
    EXPECT_EQ(file("pwm2"), "60");
    EXPECT_EQ(eventsNaming(kFan2), 1) << allEvents();
    EXPECT_EQ(eventsNaming("Entered monitor+alert fallback"), 0) << allEvents();
}

// A write the helper cannot make on one fan (its pwm attribute is broken) hands that fan back to
// the firmware, once, and leaves the others under Kelvo.
TEST_F(PerFanLimits, ARefusedWriteOnOneFanReturnsOnlyThatFan) {
    start("");
    std::filesystem::remove(board.root() / (std::string(kChip) + "pwm3"));
    std::filesystem::create_directory(board.root() / (std::string(kChip) + "pwm3"));
    const int fallbackSeconds = run(40);
    std::printf("[ figure ] failing writes on fan3: %d of 40 s in fallback\n", fallbackSeconds);
    EXPECT_EQ(fallbackSeconds, 0) << allEvents();
    EXPECT_EQ(file("pwm1_enable"), "1");
    EXPECT_EQ(file("pwm2_enable"), "1");
    EXPECT_EQ(held(kFan1), true);
    EXPECT_EQ(held(kFan2), true);
    EXPECT_EQ(held(kFan3), false);
    EXPECT_EQ(eventsNaming(kFan3), 1) << allEvents();
}

#include "foundation/control/HardwareCapabilityTracker.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>

#include "foundation/store/SQLiteStore.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;

auto fixedIdentity(std::string id) {
    return [id] { return id; };
}

TelemetrySample fullSample() {
    TelemetrySample s;
    s.timestamp = 1;
    s.cpuTemperatureC = 60;
    s.gpuTemperatureC = 55;
    s.cpuClockMHz = 4000;
    s.gpuClockMHz = 1500;
    s.totalPowerW = 90;
    s.fanCurrentRPM = {1200, 1300, 1400};
    s.fanTargetRPM = {0, 0, 0};
    s.gpuRequestedPState = 0;
    return s;
}

TEST(HardwareCapabilityTracker, NothingIsKnownBeforeTheFirstSample) {
    HardwareCapabilityTracker tracker(nullptr, fixedIdentity("m"));
    EXPECT_EQ(tracker.capabilities(), HardwareCapabilities{});
}

TEST(HardwareCapabilityTracker, SampleWithEveryChannelShowsEveryCapability) {
    HardwareCapabilityTracker tracker(nullptr, fixedIdentity("m"));
    tracker.observe(fullSample());
    auto caps = tracker.capabilities();
    EXPECT_TRUE(caps.cpuTemperature);
    EXPECT_TRUE(caps.gpuTemperature);
    EXPECT_TRUE(caps.cpuClock);
    EXPECT_TRUE(caps.gpuClock);
    EXPECT_TRUE(caps.power);
    EXPECT_TRUE(caps.fanSpeeds);
    EXPECT_TRUE(caps.fanTargets);
    EXPECT_TRUE(caps.gpuStateProbes);
    EXPECT_EQ(caps.fanCount, 3);
}

TEST(HardwareCapabilityTracker, SampleWithoutFieldsShowsOnlyWhatItHas) {
    HardwareCapabilityTracker tracker(nullptr, fixedIdentity("m"));
    TelemetrySample cpuOnly;
    cpuOnly.cpuTemperatureC = 50;
    cpuOnly.cpuClockMHz = 3000;
    tracker.observe(cpuOnly);
    HardwareCapabilities expected;
    expected.cpuTemperature = true;
    expected.cpuClock = true;
    EXPECT_EQ(tracker.capabilities(), expected);
}

TEST(HardwareCapabilityTracker, CapabilitiesOnlyGrowWhenLaterSamplesLackFields) {
    HardwareCapabilityTracker tracker(nullptr, fixedIdentity("m"));
    tracker.observe(fullSample());
    TelemetrySample empty;
    empty.fanCurrentRPM = {900};
    tracker.observe(empty);
    auto caps = tracker.capabilities();
    EXPECT_TRUE(caps.gpuTemperature);
    EXPECT_TRUE(caps.gpuStateProbes);
    EXPECT_EQ(caps.fanCount, 3);
}

TEST(HardwareCapabilityTracker, InjectedIdentityProviderNamesTheMachine) {
    HardwareCapabilityTracker tracker(nullptr, fixedIdentity("test-machine-42"));
    EXPECT_EQ(tracker.machineIdentity(), "test-machine-42");
}

TEST(HardwareCapabilityTracker, FailingOrEmptyIdentityProviderFallsBackToUnknownMachine) {
    HardwareCapabilityTracker throwing(nullptr,
                                       []() -> std::string { throw std::runtime_error("no"); });
    EXPECT_EQ(throwing.machineIdentity(), "unknown-machine");
    HardwareCapabilityTracker empty(nullptr, fixedIdentity(""));
    EXPECT_EQ(empty.machineIdentity(), "unknown-machine");
}

TEST(HardwareCapabilityTracker, DefaultIdentityProviderAlwaysNamesSomething) {
    EXPECT_FALSE(HardwareCapabilityTracker::defaultIdentityProvider().empty());
}

TEST(HardwareCapabilityTracker, CapabilitiesPersistPerMachineThroughTheStore) {
    const auto dir = fs::temp_directory_path() / ("kelvo-caps-" + Uuid::generate().toString());
    {
        SQLiteStore store((dir / "kelvo.sqlite").string());
        {
            HardwareCapabilityTracker tracker(&store, fixedIdentity("machine-a"));
            tracker.observe(fullSample());
        }
        HardwareCapabilityTracker sameMachine(&store, fixedIdentity("machine-a"));
        EXPECT_TRUE(sameMachine.capabilities().gpuStateProbes);
        EXPECT_EQ(sameMachine.capabilities().fanCount, 3);

        HardwareCapabilityTracker otherMachine(&store, fixedIdentity("machine-b"));
        EXPECT_EQ(otherMachine.capabilities(), HardwareCapabilities{});
    }
    std::error_code ec;
    fs::remove_all(dir, ec);
}

TEST(HardwareCapabilities, EncodingRoundTrips) {
    HardwareCapabilities caps;
    caps.gpuClock = true;
    caps.fanTargets = true;
    caps.fanCount = 4;
    EXPECT_EQ(HardwareCapabilities::decode(caps.encode()), caps);
    EXPECT_EQ(HardwareCapabilities::decode("garbage;fanCount=x;power"), HardwareCapabilities{});
}

}  // namespace
}  // namespace kelvo

#include <gtest/gtest.h>

#include "foundation/telemetry/NvmlSampler.h"

namespace kelvo {
namespace {

// An in-process stand-in for the driver library, steered by the test through `fake`.
struct FakeNvml {
    int initStatus = 0;
    int handleStatus = 0;
    int callStatus = 0;  // every per-field call
    unsigned requestedIndex = 99;
    int shutdowns = 0;
    unsigned clockMHz = 1710;
    unsigned maxClockMHz = 2100;
    unsigned temperatureC = 67;
    unsigned powerMilliwatts = 215500;
    unsigned utilizationPct = 88;
    int pstate = 2;
    unsigned long long reasons = 0x20 | 0x4;  // SW thermal slowdown and SW power cap
    int lastClockType = -1;
    int lastSensor = -1;
};
FakeNvml fake;

NvmlApi::Device deviceHandle() {
    return reinterpret_cast<NvmlApi::Device>(&fake);
}

NvmlApi fakeApi() {
    NvmlApi api;
    api.init = [] { return fake.initStatus; };
    api.shutdown = [] {
        ++fake.shutdowns;
        return 0;
    };
    api.getHandleByIndex = [](unsigned index, NvmlApi::Device* device) {
        fake.requestedIndex = index;
        if (fake.handleStatus == 0) *device = deviceHandle();
        return fake.handleStatus;
    };
    api.getClockInfo = [](NvmlApi::Device device, int type, unsigned* mhz) {
        if (device != deviceHandle()) return 999;
        fake.lastClockType = type;
        *mhz = fake.clockMHz;
        return fake.callStatus;
    };
    api.getMaxClockInfo = [](NvmlApi::Device, int, unsigned* mhz) {
        *mhz = fake.maxClockMHz;
        return fake.callStatus;
    };
    api.getTemperature = [](NvmlApi::Device, int sensor, unsigned* celsius) {
        fake.lastSensor = sensor;
        *celsius = fake.temperatureC;
        return fake.callStatus;
    };
    api.getPowerUsage = [](NvmlApi::Device, unsigned* milliwatts) {
        *milliwatts = fake.powerMilliwatts;
        return fake.callStatus;
    };
    api.getUtilizationRates = [](NvmlApi::Device, NvmlApi::Utilization* utilization) {
        utilization->gpu = fake.utilizationPct;
        utilization->memory = 12;
        return fake.callStatus;
    };
    api.getPerformanceState = [](NvmlApi::Device, int* pstate) {
        *pstate = fake.pstate;
        return fake.callStatus;
    };
    api.getThrottleReasons = [](NvmlApi::Device, unsigned long long* reasons) {
        *reasons = fake.reasons;
        return fake.callStatus;
    };
    return api;
}

class SamplerNvml : public ::testing::Test {
protected:
    void SetUp() override { fake = FakeNvml{}; }
};

TEST_F(SamplerNvml, MissingLibraryLeavesTheSamplerUnavailable) {
    NvmlSampler sampler("/nonexistent/libnvidia-ml.so.1");
    EXPECT_FALSE(sampler.available());
    EXPECT_NE(sampler.unavailableReason().find("/nonexistent/libnvidia-ml.so.1"),
              std::string::npos);
    EXPECT_FALSE(sampler.sample().has_value());
}

TEST_F(SamplerNvml, LibraryWithoutTheEntryPointsIsUnavailable) {
    NvmlSampler sampler("libm.so.6");
    EXPECT_FALSE(sampler.available());
    EXPECT_EQ(sampler.unavailableReason(), "NVML entry points missing");
    EXPECT_FALSE(sampler.sample().has_value());
}

TEST_F(SamplerNvml, EveryFieldComesFromItsCall) {
    {
        NvmlSampler sampler(fakeApi(), 1);
        ASSERT_TRUE(sampler.available());
        EXPECT_TRUE(sampler.unavailableReason().empty());
        EXPECT_EQ(fake.requestedIndex, 1u);
        const auto reading = sampler.sample();
        ASSERT_TRUE(reading.has_value());
        GpuReading expected;
        expected.clockMHz = 1710;
        expected.maxClockMHz = 2100;
        expected.temperatureC = 67;
        expected.powerW = 215.5;
        expected.utilizationPct = 88;
        expected.grantedPState = 2;
        expected.throttleReasons = gpuThrottleThermal | gpuThrottlePowerCap;
        EXPECT_EQ(*reading, expected);
        EXPECT_EQ(fake.lastClockType, 0);  // graphics clock
        EXPECT_EQ(fake.lastSensor, 0);     // GPU die sensor
        EXPECT_EQ(fake.shutdowns, 0);
    }
    EXPECT_EQ(fake.shutdowns, 1);
}

TEST_F(SamplerNvml, FailedCallsLeaveTheirFieldsAbsent) {
    NvmlSampler sampler(fakeApi());
    fake.callStatus = 3;  // NVML_ERROR_NOT_SUPPORTED
    const auto reading = sampler.sample();
    ASSERT_TRUE(reading.has_value());
    EXPECT_EQ(*reading, GpuReading{});
}

TEST_F(SamplerNvml, UnknownPerformanceStateIsAbsent) {
    NvmlSampler sampler(fakeApi());
    fake.pstate = 32;  // NVML_PSTATE_UNKNOWN
    EXPECT_FALSE(sampler.sample()->grantedPState.has_value());
    fake.pstate = 15;
    EXPECT_EQ(sampler.sample()->grantedPState, 15);
}

TEST_F(SamplerNvml, MissingOptionalEntryPointsLeaveTheirFieldsAbsent) {
    NvmlApi api = fakeApi();
    api.getPowerUsage = nullptr;
    api.getThrottleReasons = nullptr;
    NvmlSampler sampler(api);
    const auto reading = sampler.sample();
    ASSERT_TRUE(reading.has_value());
    EXPECT_FALSE(reading->powerW.has_value());
    EXPECT_EQ(reading->throttleReasons, gpuThrottleNone);
    EXPECT_EQ(reading->clockMHz, 1710);
}

TEST_F(SamplerNvml, FailedInitialisationIsUnavailableAndNeverShutDown) {
    fake.initStatus = 9;  // NVML_ERROR_DRIVER_NOT_LOADED
    {
        NvmlSampler sampler(fakeApi());
        EXPECT_FALSE(sampler.available());
        EXPECT_EQ(sampler.unavailableReason(), "nvmlInit_v2 failed (9)");
        EXPECT_FALSE(sampler.sample().has_value());
    }
    EXPECT_EQ(fake.shutdowns, 0);
}

TEST_F(SamplerNvml, MissingDeviceIsUnavailableButShutsNvmlDown) {
    fake.handleStatus = 2;  // NVML_ERROR_INVALID_ARGUMENT
    {
        NvmlSampler sampler(fakeApi(), 3);
        EXPECT_FALSE(sampler.available());
        EXPECT_FALSE(sampler.sample().has_value());
    }
    EXPECT_EQ(fake.shutdowns, 1);
}

TEST_F(SamplerNvml, ThrottleReasonBits) {
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0), gpuThrottleNone);
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x1), gpuThrottleNone);    // idle
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x2), gpuThrottleNone);    // app clocks
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x100), gpuThrottleNone);  // display
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x4), gpuThrottlePowerCap);
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x80 | 0x8), gpuThrottlePowerCap);
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x20), gpuThrottleThermal);
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x40 | 0x8), gpuThrottleThermal);
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x8), gpuThrottleOther);
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x10), gpuThrottleOther);
    EXPECT_EQ(NvmlSampler::throttleReasonsFromNvml(0x1 | 0x4 | 0x40),
              gpuThrottleThermal | gpuThrottlePowerCap);
}

}  // namespace
}  // namespace kelvo

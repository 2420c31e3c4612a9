#include "foundation/telemetry/NvmlSampler.h"

#include <dlfcn.h>

namespace kelvo {

namespace {

constexpr int kSuccess = 0;
constexpr int kClockGraphics = 0;   // NVML_CLOCK_GRAPHICS
constexpr int kTemperatureGpu = 0;  // NVML_TEMPERATURE_GPU
constexpr int kPStateUnknown = 32;  // NVML_PSTATE_UNKNOWN
constexpr int kHighestPState = 15;  // NVML_PSTATE_15

constexpr unsigned long long kSwPowerCap = 0x4;
constexpr unsigned long long kHwSlowdown = 0x8;
constexpr unsigned long long kSyncBoost = 0x10;
constexpr unsigned long long kSwThermalSlowdown = 0x20;
constexpr unsigned long long kHwThermalSlowdown = 0x40;
constexpr unsigned long long kHwPowerBrakeSlowdown = 0x80;

template <typename Function>
void resolve(void* library, const char* name, Function& target) {
    target = reinterpret_cast<Function>(::dlsym(library, name));
}

}  // namespace

NvmlSampler::NvmlSampler(std::string libraryPath, unsigned deviceIndex) {
    library_ = ::dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library_) {
        const char* why = ::dlerror();
        unavailableReason_ = "cannot load " + libraryPath + (why ? std::string(": ") + why : "");
        return;
    }
    resolve(library_, "nvmlInit_v2", api_.init);
    resolve(library_, "nvmlShutdown", api_.shutdown);
    resolve(library_, "nvmlDeviceGetHandleByIndex_v2", api_.getHandleByIndex);
    resolve(library_, "nvmlDeviceGetClockInfo", api_.getClockInfo);
    resolve(library_, "nvmlDeviceGetMaxClockInfo", api_.getMaxClockInfo);
    resolve(library_, "nvmlDeviceGetTemperature", api_.getTemperature);
    resolve(library_, "nvmlDeviceGetPowerUsage", api_.getPowerUsage);
    resolve(library_, "nvmlDeviceGetUtilizationRates", api_.getUtilizationRates);
    resolve(library_, "nvmlDeviceGetPerformanceState", api_.getPerformanceState);
    resolve(library_, "nvmlDeviceGetCurrentClocksThrottleReasons", api_.getThrottleReasons);
    // Newer drivers name the same call "event reasons"; the old name may go away.
    if (!api_.getThrottleReasons) {
        resolve(library_, "nvmlDeviceGetCurrentClocksEventReasons", api_.getThrottleReasons);
    }
    start(deviceIndex);
}

NvmlSampler::NvmlSampler(const NvmlApi& api, unsigned deviceIndex) : api_(api) {
    start(deviceIndex);
}

void NvmlSampler::start(unsigned deviceIndex) {
    if (!api_.init || !api_.getHandleByIndex) {
        unavailableReason_ = "NVML entry points missing";
        return;
    }
    if (const int status = api_.init(); status != kSuccess) {
        unavailableReason_ = "nvmlInit_v2 failed (" + std::to_string(status) + ")";
        return;
    }
    initialised_ = true;
    NvmlApi::Device device = nullptr;
    if (const int status = api_.getHandleByIndex(deviceIndex, &device);
        status != kSuccess || !device) {
        unavailableReason_ =
            "no NVIDIA GPU " + std::to_string(deviceIndex) + " (" + std::to_string(status) + ")";
        return;
    }
    device_ = device;
}

NvmlSampler::~NvmlSampler() {
    if (initialised_ && api_.shutdown) api_.shutdown();
    if (library_) ::dlclose(library_);
}

std::uint32_t NvmlSampler::throttleReasonsFromNvml(unsigned long long reasons) {
    std::uint32_t result = gpuThrottleNone;
    if (reasons & (kSwThermalSlowdown | kHwThermalSlowdown)) result |= gpuThrottleThermal;
    if (reasons & (kSwPowerCap | kHwPowerBrakeSlowdown)) result |= gpuThrottlePowerCap;
    // HW slowdown is also raised alongside the specific thermal and power-brake bits; it only
    // says something new on its own.
    const bool unexplainedHw =
        (reasons & kHwSlowdown) && !(reasons & (kHwThermalSlowdown | kHwPowerBrakeSlowdown));
    if (unexplainedHw || (reasons & kSyncBoost)) result |= gpuThrottleOther;
    return result;
}

std::optional<GpuReading> NvmlSampler::sample() const {
    if (!device_) return std::nullopt;
    GpuReading reading;
    unsigned int value = 0;
    if (api_.getClockInfo && api_.getClockInfo(device_, kClockGraphics, &value) == kSuccess) {
        reading.clockMHz = value;
    }
    if (api_.getMaxClockInfo && api_.getMaxClockInfo(device_, kClockGraphics, &value) == kSuccess) {
        reading.maxClockMHz = value;
    }
    if (api_.getTemperature && api_.getTemperature(device_, kTemperatureGpu, &value) == kSuccess) {
        reading.temperatureC = value;
    }
    if (api_.getPowerUsage && api_.getPowerUsage(device_, &value) == kSuccess) {
        reading.powerW = value / 1000.0;
    }
    NvmlApi::Utilization utilization{};
    if (api_.getUtilizationRates && api_.getUtilizationRates(device_, &utilization) == kSuccess) {
        reading.utilizationPct = utilization.gpu;
    }
    int pstate = kPStateUnknown;
    if (api_.getPerformanceState && api_.getPerformanceState(device_, &pstate) == kSuccess &&
        pstate >= 0 && pstate <= kHighestPState) {
        reading.grantedPState = pstate;
    }
    unsigned long long reasons = 0;
    if (api_.getThrottleReasons && api_.getThrottleReasons(device_, &reasons) == kSuccess) {
        reading.throttleReasons = throttleReasonsFromNvml(reasons);
    }
    return reading;
}

}  // namespace kelvo

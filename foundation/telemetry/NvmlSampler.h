// NVIDIA GPU telemetry through NVML, loaded with dlopen when the sampler is built so that Kelvo
// has no build or install dependency on the NVIDIA driver.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/telemetry/GpuReading.h"

namespace kelvo {

struct NvmlDeviceOpaque;

// The NVML entry points used, with their C signatures (enum parameters are C enums, passed as
// int). Any entry but init and getHandleByIndex may be null: its fields stay absent.
struct NvmlApi {
    using Return = int;  // nvmlReturn_t; 0 is NVML_SUCCESS
    using Device = NvmlDeviceOpaque*;
    struct Utilization {  // nvmlUtilization_t
        unsigned int gpu;
        unsigned int memory;
    };

    Return (*init)() = nullptr;      // nvmlInit_v2
    Return (*shutdown)() = nullptr;  // nvmlShutdown
    Return (*getHandleByIndex)(unsigned int, Device*) = nullptr;
    Return (*getClockInfo)(Device, int clockType, unsigned int* mhz) = nullptr;
    Return (*getMaxClockInfo)(Device, int clockType, unsigned int* mhz) = nullptr;
    Return (*getTemperature)(Device, int sensor, unsigned int* celsius) = nullptr;
    Return (*getPowerUsage)(Device, unsigned int* milliwatts) = nullptr;
    Return (*getUtilizationRates)(Device, Utilization*) = nullptr;
    Return (*getPerformanceState)(Device, int* pstate) = nullptr;
    Return (*getThrottleReasons)(Device, unsigned long long* reasons) = nullptr;
};

class NvmlSampler {
public:
    static constexpr const char* kDefaultLibrary = "libnvidia-ml.so.1";

    // Loads `libraryPath` and initialises NVML for the GPU at `deviceIndex`; a missing library,
    // missing entry points or a failed initialisation leave the sampler unavailable.
    explicit NvmlSampler(std::string libraryPath = kDefaultLibrary, unsigned deviceIndex = 0);
    // Uses an already resolved table (tests substitute their own functions).
    explicit NvmlSampler(const NvmlApi& api, unsigned deviceIndex = 0);
    ~NvmlSampler();
    NvmlSampler(const NvmlSampler&) = delete;
    NvmlSampler& operator=(const NvmlSampler&) = delete;

    bool available() const { return device_ != nullptr; }
    // Why the sampler is unavailable; empty when it is available.
    const std::string& unavailableReason() const { return unavailableReason_; }

    // Graphics clock and its maximum, GPU temperature, board power, GPU utilisation, the
    // current performance state as the granted one, and throttle reasons. Each call that
    // fails leaves its field absent. Absent altogether while unavailable.
    std::optional<GpuReading> sample() const;

    // Thermal: SW or HW thermal slowdown; power cap: SW power cap or HW power brake; other: HW
    // slowdown without a more specific reason, or sync boost. Idle and clock settings are not
    // slowdowns.
    static std::uint32_t throttleReasonsFromNvml(unsigned long long reasons);

private:
    void start(unsigned deviceIndex);

    void* library_ = nullptr;
    NvmlApi api_;
    NvmlApi::Device device_ = nullptr;
    bool initialised_ = false;
    std::string unavailableReason_;
};

}  // namespace kelvo

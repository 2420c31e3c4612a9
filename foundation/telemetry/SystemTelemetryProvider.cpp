#include "foundation/telemetry/SystemTelemetryProvider.h"

namespace kelvo {

namespace {

constexpr double kHighLoadShareOfPowerLimit = 0.45;

std::string normalisedRoot(std::string root) {
    return root.empty() ? "/" : std::move(root);
}

std::unique_ptr<NvmlSampler> makeNvml(const SystemTelemetryOptions& options,
                                      const std::string& root) {
    std::string path;
    if (options.nvmlLibraryPath) {
        path = *options.nvmlLibraryPath;
    } else if (root == "/") {
        path = NvmlSampler::kDefaultLibrary;
    }
    if (path.empty()) return nullptr;
    return std::make_unique<NvmlSampler>(path);
}

}  // namespace

SystemTelemetryProvider::SystemTelemetryProvider(std::string sysRoot)
    : SystemTelemetryProvider(SystemTelemetryOptions{std::move(sysRoot), std::nullopt, {}}) {}

SystemTelemetryProvider::SystemTelemetryProvider(SystemTelemetryOptions options)
    : cpu_(normalisedRoot(options.sysRoot)),
      hwmon_(normalisedRoot(options.sysRoot)),
      rapl_(normalisedRoot(options.sysRoot), std::move(options.privilegedRead)),
      amdGpu_(normalisedRoot(options.sysRoot)),
      intelGpu_(normalisedRoot(options.sysRoot)),
      nvml_(makeNvml(options, normalisedRoot(options.sysRoot))),
      pressure_(normalisedRoot(options.sysRoot)) {}

TelemetrySample SystemTelemetryProvider::sample(Timestamp now) {
    std::lock_guard lock(mutex_);
    TelemetrySample sample;
    sample.timestamp = now;

    const CpuReading cpu = cpu_.sample();
    sample.cpuUtilizationPct = cpu.utilizationPct;
    sample.cpuClockMHz = cpu.clockMHz;

    const HwmonSnapshot hwmon = hwmon_.sample();
    sample.cpuTemperatureC = hwmon.cpuTemperatureC;
    sample.thermalPressure = pressure_.sample(
        hwmon.cpuTemperatureFromThermalZone ? std::nullopt : hwmon.cpuTemperatureC);
    for (const HwmonFan& fan : hwmon.fans) {
        sample.fanCurrentRPM.push_back(fan.currentRPM.value_or(kUnreadableRPM));
        sample.fanTargetRPM.push_back(fan.targetRPM.value_or(0));
        sample.fanMaxRPM.push_back(fan.maxRPM);
        sample.fanMinRPM.push_back(fan.minRPM);
        sample.fanNames.push_back(fan.identity);
    }

    sample.totalPowerW = rapl_.sample(now);

    // A discrete GPU is the one whose clock and heat matter; NVML only ever sees discrete ones.
    std::optional<GpuReading> gpu = nvml_ ? nvml_->sample() : std::nullopt;
    if (!gpu) gpu = amdGpu_.sample();
    if (!gpu) gpu = intelGpu_.sample();
    sample.gpuTemperatureC = hwmon.gpuTemperatureC;
    if (gpu) {
        if (gpu->temperatureC) sample.gpuTemperatureC = gpu->temperatureC;
        sample.gpuClockMHz = gpu->clockMHz;
        sample.gpuReferenceMaxClockMHz = gpu->maxClockMHz;
        sample.gpuUtilizationPct = gpu->utilizationPct;
        sample.gpuRequestedPState = gpu->requestedPState;
        sample.gpuGrantedPState = gpu->grantedPState;
        sample.gpuThrottleReasons = gpu->throttleReasons;
    }
    return sample;
}

std::optional<double> SystemTelemetryProvider::highLoadPowerW() const {
    if (auto limitW = rapl_.packageLongTermLimitW()) return *limitW * kHighLoadShareOfPowerLimit;
    return std::nullopt;
}

}  // namespace kelvo

// Telemetry of the machine Kelvo runs on, composed from the Linux samplers: utilisation and
// CPU clock (/proc/stat, cpufreq), temperatures and fans (hwmon, thermal zones), total power
// (RAPL), the GPU (NVML, amdgpu or i915/xe) and thermal pressure (throttle counters, trips).
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/core/TelemetryProvider.h"
#include "foundation/telemetry/AmdGpuSampler.h"
#include "foundation/telemetry/CpuSampler.h"
#include "foundation/telemetry/HwmonSnapshotSampler.h"
#include "foundation/telemetry/IntelGpuSampler.h"
#include "foundation/telemetry/NvmlSampler.h"
#include "foundation/telemetry/RaplSampler.h"
#include "foundation/telemetry/ThermalPressureSampler.h"

namespace kelvo {

struct SystemTelemetryOptions {
    std::string sysRoot = "/";
    // The NVML library to load. Absent: the system's library when sysRoot is "/", none for any
    // other root, since a fake tree describes a machine NVML knows nothing about. Empty: none.
    std::optional<std::string> nvmlLibraryPath;
    // Reads the RAPL energy counters the process may not read (normally through the helper).
    RaplSampler::PrivilegedRead privilegedRead;
};

class SystemTelemetryProvider : public TelemetryProvider {
public:
    explicit SystemTelemetryProvider(std::string sysRoot = "/");
    explicit SystemTelemetryProvider(SystemTelemetryOptions options);

    // Utilisation and power are rates since the previous call, so the first sample has none.
    // The GPU fields come from NVML when it has a GPU, else amdgpu, else i915/xe. Fan lists
    // hold every hwmon fan whose speed reads, by identity; the target is fanN_target where the
    // driver has one, else 0.
    TelemetrySample sample(Timestamp now) override;

    // 45 % of the RAPL packages' long-term power limit, when readable.
    std::optional<double> highLoadPowerW() const override;

    bool nvmlAvailable() const { return nvml_ && nvml_->available(); }

    static ThermalPressureLevel pressureLevel(double temperatureC, double tripC) {
        return ThermalPressureSampler::pressureLevel(temperatureC, tripC);
    }

private:
    std::mutex mutex_;
    CpuSampler cpu_;
    HwmonSnapshotSampler hwmon_;
    RaplSampler rapl_;
    AmdGpuSampler amdGpu_;
    IntelGpuSampler intelGpu_;
    std::unique_ptr<NvmlSampler> nvml_;
    ThermalPressureSampler pressure_;
};

}  // namespace kelvo

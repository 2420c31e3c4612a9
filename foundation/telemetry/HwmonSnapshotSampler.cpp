#include "foundation/telemetry/HwmonSnapshotSampler.h"

#include <algorithm>
#include <filesystem>

#include "foundation/core/SysfsMounts.h"
#include "foundation/telemetry/CpuThermalZones.h"
#include "foundation/telemetry/SysfsValues.h"

namespace kelvo {

namespace fs = std::filesystem;

namespace {

void keepHottest(std::optional<double>& hottest, std::optional<double> candidate) {
    if (candidate && (!hottest || *candidate > *hottest)) hottest = candidate;
}

// The hottest tempN_input whose tempN_label satisfies `matches`.
template <typename Predicate>
std::optional<double> labelledTemperature(const fs::path& hwmonDir, Predicate matches) {
    std::optional<double> hottest;
    for (const fs::path& entry : sysfs::directoryEntries(hwmonDir)) {
        const std::string name = entry.filename().string();
        if (!name.starts_with("temp") || !name.ends_with("_label")) continue;
        const auto label = sysfs::readAttribute(entry);
        if (!label || !matches(*label)) continue;
        const std::string channel = name.substr(0, name.size() - std::string_view("_label").size());
        keepHottest(hottest, sysfs::readMilliCelsius(hwmonDir / (channel + "_input")));
    }
    return hottest;
}

bool isGpuDriver(const std::string& driver) {
    return driver == "amdgpu" || driver == "nouveau" || driver == "i915" || driver == "xe";
}

}  // namespace

HwmonSnapshotSampler::HwmonSnapshotSampler(std::string sysRoot)
    : sysRoot_(sysRoot.empty() ? "/" : std::move(sysRoot)), fans_(sysRoot_) {}

HwmonSnapshot HwmonSnapshotSampler::sample() const {
    HwmonSnapshot snapshot;
    const fs::path root(sysRoot_);
    std::optional<double> tdie;
    std::optional<double> tctl;
    for (const fs::path& dir : sysfs::numberedEntries(root / "sys/class/hwmon", "hwmon")) {
        auto driver = sysfs::readAttribute(dir / "name");
        if (!driver) driver = sysfs::readAttribute(dir / "device/name");
        if (!driver) continue;
        if (*driver == "coretemp") {
            // Per-core readings run ahead of and behind the package; the package sensor is the
            // one the firmware throttles on. One per socket.
            keepHottest(snapshot.cpuTemperatureC,
                        labelledTemperature(dir, [](const std::string& label) {
                            return label.starts_with("Package id ");
                        }));
        } else if (*driver == "k10temp") {
            keepHottest(tdie, labelledTemperature(
                                  dir, [](const std::string& label) { return label == "Tdie"; }));
            keepHottest(tctl, labelledTemperature(
                                  dir, [](const std::string& label) { return label == "Tctl"; }));
        } else if (isGpuDriver(*driver)) {
            keepHottest(snapshot.gpuTemperatureC, sysfs::readMilliCelsius(dir / "temp1_input"));
        }
    }
    // Tctl carries a fan-control offset on some parts; Tdie, where present, is the real die.
    if (!snapshot.cpuTemperatureC) snapshot.cpuTemperatureC = tdie ? tdie : tctl;
    if (!snapshot.cpuTemperatureC) {
        const auto zones = readCpuThermalZones(root);
        const auto hottest = std::max_element(
            zones.begin(), zones.end(),
            [](const auto& a, const auto& b) { return a.temperatureC < b.temperatureC; });
        if (hottest != zones.end()) {
            snapshot.cpuTemperatureC = hottest->temperatureC;
            snapshot.cpuTemperatureFromThermalZone = true;
        }
    }
    snapshot.fans = fans_.discover();
    return snapshot;
}

}  // namespace kelvo

#include "foundation/linux/SystemTelemetryProvider.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

#include "foundation/linux/SysfsText.h"

namespace kelvo {

namespace fs = std::filesystem;

namespace {

using sysfs::readTrimmed;

std::optional<double> readNumber(const fs::path& path) {
    const auto text = readTrimmed(path);
    if (!text || text->empty()) return std::nullopt;
    double value = 0;
    const char* end = text->data() + text->size();
    const auto [ptr, ec] = std::from_chars(text->data(), end, value);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return value;
}

// sysfs reports temperatures in millidegrees Celsius.
std::optional<double> readMilliCelsius(const fs::path& path) {
    if (auto value = readNumber(path)) return *value / 1000.0;
    return std::nullopt;
}

// Entries of `dir` whose name is `prefix` followed by digits only.
std::vector<fs::path> numberedEntries(const fs::path& dir, std::string_view prefix) {
    std::vector<fs::path> entries;
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.size() <= prefix.size() || !name.starts_with(prefix)) continue;
        if (!std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                         [](char c) { return c >= '0' && c <= '9'; })) {
            continue;
        }
        entries.push_back(it->path());
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

void keepHottest(std::optional<double>& hottest, std::optional<double> candidate) {
    if (candidate && (!hottest || *candidate > *hottest)) hottest = candidate;
}

// The temperature of the channel in `hwmonDir` whose label satisfies `matches`, hottest first.
template <typename Predicate>
std::optional<double> labelledTemperature(const fs::path& hwmonDir, Predicate matches) {
    std::optional<double> hottest;
    std::error_code ec;
    for (fs::directory_iterator it(hwmonDir, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (!name.starts_with("temp") || !name.ends_with("_label")) continue;
        const auto label = readTrimmed(it->path());
        if (!label || !matches(*label)) continue;
        const std::string channel = name.substr(0, name.size() - std::string_view("_label").size());
        keepHottest(hottest, readMilliCelsius(hwmonDir / (channel + "_input")));
    }
    return hottest;
}

struct HwmonTemperatures {
    std::optional<double> cpu;
    std::optional<double> gpu;
};

HwmonTemperatures hwmonTemperatures(const fs::path& root) {
    HwmonTemperatures result;
    std::optional<double> tdie;
    std::optional<double> tctl;
    for (const fs::path& dir : numberedEntries(root / "sys/class/hwmon", "hwmon")) {
        const auto driver = readTrimmed(dir / "name");
        if (!driver) continue;
        if (*driver == "coretemp") {
            // Per-core readings run ahead of and behind the package; the package sensor is the
            // one the firmware throttles on. One per socket.
            keepHottest(result.cpu, labelledTemperature(dir, [](const std::string& label) {
                            return label.starts_with("Package id ");
                        }));
        } else if (*driver == "k10temp") {
            keepHottest(tdie, labelledTemperature(
                                  dir, [](const std::string& label) { return label == "Tdie"; }));
            keepHottest(tctl, labelledTemperature(
                                  dir, [](const std::string& label) { return label == "Tctl"; }));
        } else if (*driver == "amdgpu") {
            keepHottest(result.gpu, readMilliCelsius(dir / "temp1_input"));  // edge
        }
    }
    // Tctl carries a fan-control offset on some parts; Tdie, where present, is the real die.
    if (!result.cpu) result.cpu = tdie ? tdie : tctl;
    return result;
}

struct ThermalZone {
    double temperatureC = 0;
    std::optional<double> lowestTripC;  // passive or hot
};

std::vector<ThermalZone> cpuThermalZones(const fs::path& root) {
    std::vector<ThermalZone> zones;
    for (const fs::path& dir : numberedEntries(root / "sys/class/thermal", "thermal_zone")) {
        const auto type = readTrimmed(dir / "type");
        if (!type) continue;
        if (type->find("cpu") == std::string::npos && *type != "x86_pkg_temp" &&
            *type != "acpitz") {
            continue;
        }
        const auto temperature = readMilliCelsius(dir / "temp");
        if (!temperature) continue;
        ThermalZone zone{*temperature, std::nullopt};
        for (int trip = 0;; ++trip) {
            const std::string base = "trip_point_" + std::to_string(trip);
            const auto tripType = readTrimmed(dir / (base + "_type"));
            if (!tripType) break;
            if (*tripType != "passive" && *tripType != "hot") continue;
            const auto tripC = readMilliCelsius(dir / (base + "_temp"));
            // Writable trips (x86_pkg_temp) read 0 while unset.
            if (!tripC || *tripC <= 0) continue;
            if (!zone.lowestTripC || *tripC < *zone.lowestTripC) zone.lowestTripC = tripC;
        }
        zones.push_back(zone);
    }
    return zones;
}

}  // namespace

SystemTelemetryProvider::SystemTelemetryProvider(std::string sysRoot)
    : sysRoot_(sysRoot.empty() ? "/" : std::move(sysRoot)) {}

ThermalPressureLevel SystemTelemetryProvider::pressureLevel(double temperatureC, double tripC) {
    if (temperatureC < tripC - 15) return ThermalPressureLevel::nominal;
    if (temperatureC < tripC - 5) return ThermalPressureLevel::fair;
    if (temperatureC < tripC) return ThermalPressureLevel::serious;
    return ThermalPressureLevel::critical;
}

TelemetrySample SystemTelemetryProvider::sample(Timestamp now) {
    TelemetrySample sample;
    sample.timestamp = now;
    const fs::path root(sysRoot_);

    sample.cpuUtilizationPct = cpuUtilization();
    sample.cpuClockMHz = cpuClockMHz();

    const HwmonTemperatures hwmon = hwmonTemperatures(root);
    sample.gpuTemperatureC = hwmon.gpu;

    const std::vector<ThermalZone> zones = cpuThermalZones(root);
    std::optional<double> tripC;
    if (hwmon.cpu) {
        sample.cpuTemperatureC = hwmon.cpu;
        // The hwmon sensor has no trips of its own; the CPU zones describe the same die.
        for (const ThermalZone& zone : zones) {
            if (zone.lowestTripC && (!tripC || *zone.lowestTripC < *tripC)) {
                tripC = zone.lowestTripC;
            }
        }
    } else if (!zones.empty()) {
        const auto hottest = std::max_element(
            zones.begin(), zones.end(),
            [](const auto& a, const auto& b) { return a.temperatureC < b.temperatureC; });
        sample.cpuTemperatureC = hottest->temperatureC;
        tripC = hottest->lowestTripC;
    }
    if (sample.cpuTemperatureC && tripC) {
        sample.thermalPressure = pressureLevel(*sample.cpuTemperatureC, *tripC);
    }
    // Total power needs RAPL energy counters, which are root-only; absent until the helper
    // provides them.
    return sample;
}

std::optional<double> SystemTelemetryProvider::cpuUtilization() {
    std::ifstream in(fs::path(sysRoot_) / "proc/stat");
    std::string label;
    if (!in || !(in >> label) || label != "cpu") return std::nullopt;
    // user nice system idle iowait irq softirq steal; guest time is already inside user.
    std::uint64_t fields[8] = {};
    int count = 0;
    for (; count < 8 && (in >> fields[count]); ++count) {
    }
    if (count < 4) return std::nullopt;
    CpuTimes times;
    for (int i = 0; i < count; ++i) times.total += fields[i];
    times.idle = fields[3] + (count > 4 ? fields[4] : 0);

    std::lock_guard lock(mutex_);
    const std::optional<CpuTimes> previous = previousCpuTimes_;
    previousCpuTimes_ = times;
    if (!previous || times.total <= previous->total || times.idle < previous->idle) {
        return std::nullopt;
    }
    const double total = static_cast<double>(times.total - previous->total);
    const double idle = static_cast<double>(times.idle - previous->idle);
    return std::clamp(100.0 * (total - idle) / total, 0.0, 100.0);
}

std::optional<double> SystemTelemetryProvider::cpuClockMHz() const {
    double sumKHz = 0;
    int count = 0;
    for (const fs::path& cpu :
         numberedEntries(fs::path(sysRoot_) / "sys/devices/system/cpu", "cpu")) {
        if (auto kHz = readNumber(cpu / "cpufreq/scaling_cur_freq")) {
            sumKHz += *kHz;
            ++count;
        }
    }
    if (count == 0) return std::nullopt;
    return sumKHz / count / 1000.0;
}

}  // namespace kelvo

#include "foundation/telemetry/AmdGpuSampler.h"

#include <charconv>
#include <filesystem>

#include "foundation/telemetry/SysfsValues.h"

namespace kelvo {

namespace fs = std::filesystem;

AmdGpuSampler::AmdGpuSampler(std::string sysRoot)
    : sysRoot_(sysRoot.empty() ? "/" : std::move(sysRoot)) {}

AmdDpmLevels AmdGpuSampler::parseDpmLevels(std::string_view text) {
    AmdDpmLevels levels;
    while (!text.empty()) {
        const auto newline = text.find('\n');
        const std::string_view line = text.substr(0, newline);
        text = newline == std::string_view::npos ? std::string_view() : text.substr(newline + 1);

        // The level label is a number, or a letter for the sleep level on some APUs.
        const auto colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        std::string_view rest = line.substr(colon + 1);
        while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
        double mhz = 0;
        const auto [ptr, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), mhz);
        if (ec != std::errc() || ptr == rest.data()) continue;
        if (!levels.maxMHz || mhz > *levels.maxMHz) levels.maxMHz = mhz;
        if (rest.find('*') != std::string_view::npos) levels.currentMHz = mhz;
    }
    return levels;
}

std::optional<GpuReading> AmdGpuSampler::sample() const {
    for (const fs::path& card :
         sysfs::numberedEntries(fs::path(sysRoot_) / "sys/class/drm", "card")) {
        const fs::path device = card / "device";
        const auto sclk = sysfs::readAttribute(device / "pp_dpm_sclk");
        if (!sclk) continue;

        GpuReading reading;
        const AmdDpmLevels levels = parseDpmLevels(*sclk);
        reading.clockMHz = levels.currentMHz;
        reading.maxClockMHz = levels.maxMHz;
        reading.utilizationPct = sysfs::readDouble(device / "gpu_busy_percent");
        for (const fs::path& hwmon : sysfs::numberedEntries(device / "hwmon", "hwmon")) {
            if (sysfs::readAttribute(hwmon / "name") != "amdgpu") continue;
            // Older kernels report the averaged power only; newer ones may have power1_input.
            auto microwatts = sysfs::readDouble(hwmon / "power1_average");
            if (!microwatts) microwatts = sysfs::readDouble(hwmon / "power1_input");
            if (microwatts) reading.powerW = *microwatts / 1e6;
            reading.temperatureC = sysfs::readMilliCelsius(hwmon / "temp1_input");
            break;
        }
        return reading;
    }
    return std::nullopt;
}

}  // namespace kelvo

#include "foundation/telemetry/IntelGpuSampler.h"

#include <filesystem>

#include "foundation/telemetry/SysfsValues.h"

namespace kelvo {

namespace fs = std::filesystem;

IntelGpuSampler::IntelGpuSampler(std::string sysRoot)
    : sysRoot_(sysRoot.empty() ? "/" : std::move(sysRoot)) {}

std::optional<GpuReading> IntelGpuSampler::sample() const {
    for (const fs::path& card :
         sysfs::numberedEntries(fs::path(sysRoot_) / "sys/class/drm", "card")) {
        // i915 keeps the render GT's frequencies on the card; xe per tile and GT.
        const fs::path xe = card / "device/tile0/gt0/freq0";
        struct Files {
            fs::path act, cur, max;
        };
        for (const Files& files :
             {Files{card / "gt_act_freq_mhz", card / "gt_cur_freq_mhz", card / "gt_max_freq_mhz"},
              Files{xe / "act_freq", xe / "cur_freq", xe / "max_freq"}}) {
            const auto act = sysfs::readDouble(files.act);
            const auto cur = sysfs::readDouble(files.cur);
            const auto max = sysfs::readDouble(files.max);
            if (!act && !cur && !max) continue;
            GpuReading reading;
            // The actual frequency is 0 while the GT sleeps, which is what it runs at then.
            reading.clockMHz = act ? act : cur;
            reading.maxClockMHz = max;
            return reading;
        }
    }
    return std::nullopt;
}

}  // namespace kelvo

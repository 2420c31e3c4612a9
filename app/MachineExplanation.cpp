#include "app/MachineExplanation.h"

namespace kelvo {

std::optional<std::string> explainMachine(const ControlSnapshot& snapshot) {
    const TelemetrySample& sample = snapshot.sample;
    const bool hasTemperature = sample.cpuTemperatureC || sample.gpuTemperatureC;
    const bool hasFan = !snapshot.fans.empty() || !sample.fanNames.empty();
    if (hasFan) return std::nullopt;
    if (!hasTemperature)
        return "This machine shows Kelvo no temperature sensor and no fan (nothing readable under "
               "/sys/class/hwmon), so there is nothing to watch or control. Where the sensors "
               "need a driver, `sudo sensors-detect` finds it; to try Kelvo here, start it on "
               "its simulated machine: kelvo --simulated-fans.";
    return "This machine shows Kelvo its temperatures but no fan it can read or drive, so Kelvo "
           "watches the temperatures and warns of throttling, and the firmware keeps the fans.";
}

}  // namespace kelvo

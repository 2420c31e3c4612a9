#include "foundation/helper_protocol/HelperStatusReport.h"

#include <algorithm>
#include <cstdio>

namespace kelvo {

namespace {

std::string fanLine(const helper_protocol::FanInfo& fan) {
    std::string line = "  " + fan.identity + "\n    ";
    line += fan.rpm ? std::to_string(*fan.rpm) + " rpm" : std::string("speed unreadable");
    if (fan.minRPM > 0 || fan.maxRPM > 0)
        line += " (min " + std::to_string(fan.minRPM) + ", max " + std::to_string(fan.maxRPM) + ")";
    if (!fan.controllable) return line + ", no PWM control\n";
    line += ", pwm " + (fan.pwm ? std::to_string(*fan.pwm) : std::string("unreadable"));
    line += ", mode " + pwmModeText(fan.mode);
    line += fan.held ? ", held by Kelvo" : ", not held";
    return line + "\n";
}

std::string sensorLine(const helper_protocol::SensorInfo& sensor) {
    std::string line = "  " + sensor.identity;
    if (!sensor.label.empty()) line += " \"" + sensor.label + "\"";
    if (sensor.milliCelsius) {
        char text[32];
        std::snprintf(text, sizeof text, " %.1f °C",
                      static_cast<double>(*sensor.milliCelsius) / 1000.0);
        line += text;
    } else {
        line += " unreadable";
    }
    return line + "\n";
}

std::string counted(std::size_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

std::string configText(const helper_protocol::ConfigInfo& config,
                       const std::vector<helper_protocol::FanInfo>& fans) {
    // A configured fan the helper does not list: a typo, or hardware that is not there yet.
    const auto absent = [&](const std::string& identity) {
        const bool listed = std::any_of(fans.begin(), fans.end(),
                                        [&](const auto& fan) { return fan.identity == identity; });
        return listed ? std::string() : std::string(", no such fan");
    };
    std::string text =
        "configuration: " + (config.file.empty() ? std::string("none") : config.file) + "\n";
    for (const auto& [identity, duty] : config.floors) {
        text += "  floor " + identity + " pwm " + std::to_string(duty) + " (" +
                std::to_string((duty * 100 + 127) / 255) + "%)" + absent(identity) + "\n";
    }
    for (const auto& identity : config.forbidden) {
        text += "  forbidden " + identity + absent(identity) + "\n";
    }
    text += std::string("sleep handling: ") +
            (config.sleepHandling ? "on (logind PrepareForSleep)" : "off (no system bus)") + "\n";
    return text;
}

}  // namespace

std::string pwmModeText(std::optional<int> pwmEnable) {
    if (!pwmEnable) return "unknown";
    switch (*pwmEnable) {
        case 0: return "full speed";
        case 1: return "manual";
        case 2: return "automatic";
        default: return "automatic (firmware mode " + std::to_string(*pwmEnable) + ")";
    }
}

std::string formatHelperStatus(const HelperStatus& status, const std::string& socketPath) {
    std::string text = "kelvo-helperd " + status.version.version + " (protocol " +
                       std::to_string(status.version.protocol) + ") at " + socketPath + "\n";
    const auto& fans = status.inventory.fans;
    text += counted(fans.size(), "fan", "fans") + (fans.empty() ? "\n" : ":\n");
    for (const auto& fan : fans) text += fanLine(fan);
    const auto& sensors = status.inventory.sensors;
    text += counted(sensors.size(), "sensor", "sensors") + (sensors.empty() ? "\n" : ":\n");
    for (const auto& sensor : sensors) text += sensorLine(sensor);
    if (status.config) text += configText(*status.config, fans);
    return text;
}

}  // namespace kelvo

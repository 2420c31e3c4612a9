#include "helper/HwmonSensors.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

#include "foundation/fans/SysfsText.h"

namespace kelvo::helperd {

namespace fs = std::filesystem;

namespace {

std::optional<int> tempChannel(const std::string& name) {
    constexpr std::string_view prefix = "temp";
    constexpr std::string_view suffix = "_input";
    if (name.size() <= prefix.size() + suffix.size() || !name.starts_with(prefix) ||
        !name.ends_with(suffix)) {
        return std::nullopt;
    }
    const char* begin = name.data() + prefix.size();
    const char* end = name.data() + name.size() - suffix.size();
    int channel = 0;
    const auto [ptr, ec] = std::from_chars(begin, end, channel);
    if (ec != std::errc() || ptr != end || channel <= 0) return std::nullopt;
    return channel;
}

std::optional<long long> readMilliCelsius(const fs::path& file) {
    const auto text = sysfs::readTrimmed(file);
    if (!text || text->empty()) return std::nullopt;
    long long value = 0;
    const auto [ptr, ec] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (ec != std::errc() || ptr != text->data() + text->size()) return std::nullopt;
    return value;
}

}  // namespace

HwmonSensors::HwmonSensors(std::string sysRoot) : sysRoot_(std::move(sysRoot)) {}

std::vector<helper_protocol::SensorInfo> HwmonSensors::discover() const {
    std::vector<helper_protocol::SensorInfo> sensors;
    const fs::path root(sysRoot_.empty() ? "/" : sysRoot_);
    std::error_code ec;
    for (fs::directory_iterator it(root / "sys/class/hwmon", ec), end; !ec && it != end;
         it.increment(ec)) {
        const fs::path hwmonDir = it->path();
        if (!hwmonDir.filename().string().starts_with("hwmon")) continue;
        std::optional<std::string> driver = sysfs::readTrimmed(hwmonDir / "name");
        if (!driver) driver = sysfs::readTrimmed(hwmonDir / "device/name");
        const std::string device = sysfs::hwmonDevicePath(hwmonDir, root);
        std::error_code listError;
        for (fs::directory_iterator file(hwmonDir, listError), last; !listError && file != last;
             file.increment(listError)) {
            const auto channel = tempChannel(file->path().filename().string());
            if (!channel) continue;
            helper_protocol::SensorInfo sensor;
            sensor.identity =
                driver.value_or("unknown") + "@" + device + "#temp" + std::to_string(*channel);
            sensor.label =
                sysfs::readTrimmed(hwmonDir / ("temp" + std::to_string(*channel) + "_label"))
                    .value_or("");
            sensor.milliCelsius = readMilliCelsius(file->path());
            sensors.push_back(std::move(sensor));
        }
    }
    std::sort(sensors.begin(), sensors.end(),
              [](const auto& a, const auto& b) { return a.identity < b.identity; });
    return sensors;
}

}  // namespace kelvo::helperd

#include "foundation/fans/HwmonFanService.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>
#include <system_error>
#include <tuple>

#include "foundation/core/SysfsMounts.h"
#include "foundation/fans/SysfsText.h"

namespace kelvo {

namespace fs = std::filesystem;

namespace {

using sysfs::readTrimmed;
using sysfs::writeInteger;

std::optional<long long> readInteger(const fs::path& path) {
    const auto text = readTrimmed(path);
    if (!text || text->empty()) return std::nullopt;
    long long value = 0;
    const char* end = text->data() + text->size();
    const auto [ptr, ec] = std::from_chars(text->data(), end, value);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return value;
}

std::string channelFile(const char* prefix, int channel, const char* suffix) {
    return std::string(prefix) + std::to_string(channel) + suffix;
}

// Channel numbers N for which fanN_input exists.
std::vector<int> fanChannels(const fs::path& hwmonDir) {
    std::vector<int> channels;
    for (const fs::path& entry : sysfs::directoryEntries(hwmonDir)) {
        const std::string name = entry.filename().string();
        constexpr std::string_view prefix = "fan";
        constexpr std::string_view suffix = "_input";
        if (name.size() <= prefix.size() + suffix.size() || !name.starts_with(prefix) ||
            !name.ends_with(suffix)) {
            continue;
        }
        const char* begin = name.data() + prefix.size();
        const char* end = name.data() + name.size() - suffix.size();
        int channel = 0;
        const auto [ptr, parseError] = std::from_chars(begin, end, channel);
        if (parseError == std::errc() && ptr == end && channel > 0) channels.push_back(channel);
    }
    return channels;
}

}  // namespace

fs::path HwmonFan::inputPath() const {
    return hwmonDir / channelFile("fan", channel, "_input");
}
fs::path HwmonFan::pwmPath() const {
    return hwmonDir / channelFile("pwm", channel, "");
}
fs::path HwmonFan::pwmEnablePath() const {
    return hwmonDir / channelFile("pwm", channel, "_enable");
}

HwmonFanService::HwmonFanService(std::string sysRoot) : sysRoot_(std::move(sysRoot)) {}

std::vector<HwmonFan> HwmonFanService::discover() const {
    std::vector<HwmonFan> fans;
    const fs::path root(sysRoot_.empty() ? "/" : sysRoot_);
    const fs::path classDir = root / "sys/class/hwmon";
    for (const fs::path& hwmonDir : sysfs::directoryEntries(classDir)) {
        if (!hwmonDir.filename().string().starts_with("hwmon")) continue;
        if (!sysfs::isDirectory(hwmonDir)) continue;  // follows the class symlink

        const std::vector<int> channels = fanChannels(hwmonDir);
        if (channels.empty()) continue;
        // Some drivers keep `name` on the device rather than the hwmon directory.
        std::optional<std::string> driver = readTrimmed(hwmonDir / "name");
        if (!driver) driver = readTrimmed(hwmonDir / "device/name");
        const std::string devicePath = sysfs::hwmonDevicePath(hwmonDir, root);

        for (int channel : channels) {
            HwmonFan fan;
            fan.driver = driver.value_or("unknown");
            fan.devicePath = devicePath;
            fan.hwmonDir = hwmonDir;
            fan.channel = channel;
            fan.identity = fan.driver + "@" + devicePath + "#fan" + std::to_string(channel);
            fan.controllable =
                sysfs::pathExists(fan.pwmPath()) && sysfs::pathExists(fan.pwmEnablePath());
            fan.currentRPM = readRPM(fan);
            fan.label = readTrimmed(hwmonDir / channelFile("fan", channel, "_label")).value_or("");
            if (auto v = readInteger(hwmonDir / channelFile("fan", channel, "_min"))) {
                fan.minRPM = static_cast<double>(*v);
            }
            if (auto v = readInteger(hwmonDir / channelFile("fan", channel, "_max"))) {
                fan.maxRPM = static_cast<double>(*v);
            }
            if (auto v = readInteger(hwmonDir / channelFile("fan", channel, "_target"))) {
                fan.targetRPM = static_cast<double>(*v);
            }
            if (auto v = readInteger(fan.pwmPath())) fan.pwm = static_cast<int>(*v);
            if (auto v = readInteger(fan.pwmEnablePath())) fan.pwmEnable = static_cast<int>(*v);
            fans.push_back(std::move(fan));
        }
    }
    std::sort(fans.begin(), fans.end(), [](const HwmonFan& a, const HwmonFan& b) {
        return std::tie(a.driver, a.devicePath, a.channel) <
               std::tie(b.driver, b.devicePath, b.channel);
    });
    return fans;
}

std::optional<double> HwmonFanService::readRPM(const HwmonFan& fan) const {
    // A negative count is a driver fault, not a speed: absent, like text that is no number.
    if (auto value = readInteger(fan.inputPath()); value && *value >= 0) {
        return static_cast<double>(*value);
    }
    return std::nullopt;
}

bool HwmonFanService::writePWM(const HwmonFan& fan, int value, std::string* error,
                               int* errorNumber) {
    if (!fan.controllable) {
        if (error) *error = fan.identity + " has no PWM control";
        if (errorNumber) *errorNumber = ENOTSUP;
        return false;
    }
    std::lock_guard lock(mutex_);
    const auto currentEnable = readInteger(fan.pwmEnablePath());
    const bool firstTake = !originals_.contains(fan.identity);
    if (firstTake) {
        Original original;
        if (currentEnable) original.enable = static_cast<int>(*currentEnable);
        if (auto pwm = readInteger(fan.pwmPath())) original.pwm = static_cast<int>(*pwm);
        originals_[fan.identity] = original;
    }

    if (!firstTake && currentEnable && *currentEnable != 1) {
        // Someone else switched a fan we hold out of manual mode: writing it back would fight
        // them. The next write takes it afresh.
        originals_.erase(fan.identity);
        if (error) *error = fan.identity + " was switched out of manual mode from outside";
        if (errorNumber) *errorNumber = EBUSY;
        return false;
    }
    const bool switched = !currentEnable || *currentEnable != 1;
    if (switched && !writeInteger(fan.pwmEnablePath(), 1, error, errorNumber)) {
        if (firstTake) originals_.erase(fan.identity);
        return false;
    }
    if (!writeInteger(fan.pwmPath(), std::clamp(value, 0, 255), error, errorNumber)) {
        if (switched) {
            // Best effort: the duty-cycle error is the one worth reporting.
            writeInteger(fan.pwmEnablePath(), currentEnable.value_or(2), nullptr, nullptr);
        }
        if (firstTake) originals_.erase(fan.identity);
        return false;
    }
    return true;
}

bool HwmonFanService::restore(const HwmonFan& fan, std::string* error, int* errorNumber) {
    std::lock_guard lock(mutex_);
    const auto found = originals_.find(fan.identity);
    const Original original = found != originals_.end() ? found->second : Original{};
    const int enable = original.enable.value_or(2);
    // A channel that was already manual before Kelvo took it gets its old duty cycle back too.
    if (enable == 1 && original.pwm &&
        !writeInteger(fan.pwmPath(), *original.pwm, error, errorNumber)) {
        return false;
    }
    if (!writeInteger(fan.pwmEnablePath(), enable, error, errorNumber)) return false;
    if (found != originals_.end()) originals_.erase(found);
    return true;
}

void HwmonFanService::forget(const HwmonFan& fan) {
    std::lock_guard lock(mutex_);
    originals_.erase(fan.identity);
}

std::optional<int> HwmonFanService::originalEnable(const HwmonFan& fan) const {
    std::lock_guard lock(mutex_);
    const auto found = originals_.find(fan.identity);
    if (found == originals_.end()) return std::nullopt;
    return found->second.enable;
}

}  // namespace kelvo

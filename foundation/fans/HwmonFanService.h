// Direct access to fans exposed by the kernel's hwmon class (/sys/class/hwmon/hwmon*/).
// Every path is taken below a filesystem root so that tests can point it at a fake tree.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kelvo {

struct HwmonFan {
    // driver + "@" + device path + "#fan" + channel. The hwmonN index is deliberately not part
    // of it: the kernel renumbers hwmon devices between boots and module reloads.
    std::string identity;
    std::string driver;  // contents of the `name` file
    std::string label;   // fanN_label, empty when absent
    std::string
        devicePath;  // resolved device, relative to the root ("/sys/devices/..."), or "virtual"
    std::filesystem::path hwmonDir;  // where the attribute files live (includes the root)
    int channel = 0;
    bool controllable = false;  // pwmN and pwmN_enable exist

    std::optional<double> currentRPM;  // fanN_input; none when unreadable or negative
    double minRPM = 0;                 // fanN_min, 0 when absent
    double maxRPM = 0;                 // fanN_max, 0 when absent
    std::optional<double> targetRPM;   // fanN_target
    std::optional<int> pwm;            // pwmN, 0-255
    std::optional<int> pwmEnable;      // pwmN_enable: 0 full speed, 1 manual, 2+ automatic modes

    std::filesystem::path inputPath() const;
    std::filesystem::path pwmPath() const;
    std::filesystem::path pwmEnablePath() const;
};

class HwmonFanService {
public:
    explicit HwmonFanService(std::string sysRoot = "/");

    const std::string& sysRoot() const { return sysRoot_; }

    // Every fan channel, ordered by identity so that the order survives hwmon renumbering.
    // Never throws; an unreadable tree gives an empty list.
    std::vector<HwmonFan> discover() const;
    std::optional<double> readRPM(const HwmonFan& fan) const;

    // Switches the channel to manual (pwmN_enable = 1) and writes the duty cycle (clamped to
    // 0-255). The enable value (and, for channels already manual, the duty cycle) found on the
    // first write is remembered for restore(). When the duty-cycle write fails, the enable
    // value is put back so the fan is not left in manual mode at an unknown speed.
    // `errorNumber` receives the errno of the failing call, or EBUSY (nothing written) when a
    // fan taken earlier has been switched out of manual mode by someone else since.
    bool writePWM(const HwmonFan& fan, int value, std::string* error, int* errorNumber = nullptr);
    // Writes back the remembered pwmN_enable value (2, firmware automatic, when unknown).
    bool restore(const HwmonFan& fan, std::string* error, int* errorNumber = nullptr);

    // The pwmN_enable value seen before Kelvo first took the fan, while it is held.
    std::optional<int> originalEnable(const HwmonFan& fan) const;
    // Drops the mode recorded when the fan was taken: someone else has set its mode since, and
    // the next write takes it afresh.
    void forget(const HwmonFan& fan);

private:
    struct Original {
        std::optional<int> enable;
        std::optional<int> pwm;
    };

    std::string sysRoot_;
    mutable std::mutex mutex_;
    std::map<std::string, Original> originals_;  // by identity
};

}  // namespace kelvo

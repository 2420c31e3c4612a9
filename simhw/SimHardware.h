// One simulated machine as Linux shows it: the foundation plant stepped in real time, laid out
// as hwmon chips, cpufreq, /proc/stat, RAPL, thermal zones and an amdgpu card, with the hwmon
// pwm semantics (pwm*_enable 0 full speed, 1 manual, 2 the machine's firmware curve) and the
// faults a test can inject. Not thread-safe: the caller holds one lock around every call.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "foundation/sim/ThermalPlant.h"
#include "simhw/SimTree.h"

namespace kelvo::simhw {

struct FanChannel {
    int pwm = 0;     // the duty in manual mode: the last written, or the one it was taken at
    int enable = 2;  // 0 full speed, 1 manual, 2 firmware curve
    bool eio = false;
    bool stalled = false;
    // A fan that can stop, brought to rest by a duty under its stop duty: it stays still until
    // a duty of at least its start duty.
    bool atRest = false;
    long pwmWrites = 0;
    long enableWrites = 0;
};

class SimHardware {
public:
    SimHardware(std::string machineName, sim::PlantConfig config, std::uint64_t seed = 1);

    // Advances the machine by `dt` seconds at the offered load (0..1 each).
    void step(double dt, double cpuLoad, double gpuLoad);

    SimTree& tree() { return tree_; }
    const SimTree& tree() const { return tree_; }

    // One fault line ("takeback sys/class/hwmon/hwmon2/pwm1", "clear", ...). Empty when applied,
    // otherwise why not.
    std::string applyFault(std::string_view line);

    // For the log and the tests.
    const sim::PlantState& state() const { return state_; }
    const std::vector<FanChannel>& fans() const { return fans_; }
    double elapsedS() const { return elapsed_; }
    double cpuLoad() const { return cpuLoad_; }
    double gpuLoad() const { return gpuLoad_; }
    const sim::PlantConfig& config() const { return plant_.config(); }
    const std::string& machineName() const { return name_; }
    // The duty the fan runs at now (what pwmN reads): written in manual mode, the firmware's in
    // automatic mode, 255 at full speed.
    int effectiveDuty(std::size_t fan) const;
    // Where the fan controller chip sits now ("sys/class/hwmon/hwmon2").
    std::string fanChipPath() const;
    // Every accepted write to a fan's pwm or pwm_enable so far, one line per file:
    // "fan2 pwm 14", "fan2 enable 1" (what `simhw/writes` reads).
    std::string writeCounts() const;

private:
    struct Chip {
        std::string device;  // "sys/devices/platform/nct6775.656"
        int hwmon = 0;
    };

    void build();
    void buildCpu();
    void buildGpu();
    void buildFanChip();
    void buildPower();
    void buildThermalZones();
    void buildProc();
    std::string hwmonDir(const Chip& chip) const;
    void linkHwmon(const Chip& chip);
    void addAttribute(const std::string& path, AttributeRead read, AttributeWrite write = {});
    int writeDuty(std::size_t fan, std::string_view text);
    int writeEnable(std::size_t fan, std::string_view text);
    void commandFans();
    std::optional<std::size_t> fanOfPath(const std::string& path) const;
    int nextHwmonNumber() const;
    double firmwareRPM(std::size_t fan) const;
    // Speed of a turning fan at a duty cycle, and the duty that gives a speed.
    double rpmAtDuty(std::size_t fan, int duty) const;
    int dutyForRPM(std::size_t fan, double rpm) const;

    std::string name_;
    sim::ThermalPlant plant_;
    sim::PlantState state_;
    SimTree tree_;
    std::vector<FanChannel> fans_;
    Chip cpuChip_{"sys/devices/platform/coretemp.0", 0};
    Chip gpuChip_{"sys/devices/pci0000:00/0000:03:00.0", 1};
    Chip fanChip_{"sys/devices/platform/nct6775.656", 2};
    std::set<std::string> vanished_;
    double elapsed_ = 0;
    double cpuLoad_ = 0;
    double gpuLoad_ = 0;
    double packageEnergyUJ_ = 0;
    std::vector<std::uint64_t> busyTicks_;
    std::vector<std::uint64_t> idleTicks_;
    double tickRemainder_ = 0;
};

// Parses a whole sysfs write ("128\n"): digits with an optional sign, then only white space.
std::optional<long long> parseSysfsInteger(std::string_view text);

}  // namespace kelvo::simhw

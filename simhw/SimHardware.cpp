#include "simhw/SimHardware.h"

#include <cerrno>
#include <cmath>
#include <cstdio>

#include "foundation/core/FanController.h"

namespace kelvo::simhw {

namespace {

constexpr int kMaxDuty = 255;
constexpr double kUserHz = 100;  // /proc/stat counts in USER_HZ ticks
// RAPL counters wrap at a range the kernel reports; this one wraps after about 4.5 hours at 16 W.
constexpr double kEnergyRangeUJ = 262143328850.0;

std::string number(long long value) {
    return std::to_string(value) + "\n";
}
std::string milli(double value) {
    return number(std::llround(value * 1000.0));
}

std::string trimmed(std::string_view text) {
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
        text.remove_suffix(1);
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
        text.remove_prefix(1);
    return std::string(text);
}

}  // namespace

std::optional<long long> parseSysfsInteger(std::string_view text) {
    // The kernel hands a store a NUL-terminated copy of the write: whatever follows a NUL (a
    // program writing a fixed-size buffer) is never seen.
    if (const auto nul = text.find('\0'); nul != std::string_view::npos) text = text.substr(0, nul);
    const std::string value = trimmed(text);
    if (value.empty() || value.size() > 20) return std::nullopt;
    std::size_t i = (value[0] == '-' || value[0] == '+') ? 1 : 0;
    if (i == value.size()) return std::nullopt;
    for (std::size_t j = i; j < value.size(); ++j)
        if (!std::isdigit(static_cast<unsigned char>(value[j]))) return std::nullopt;
    return std::stoll(value);
}

SimHardware::SimHardware(std::string machineName, sim::PlantConfig config, std::uint64_t seed)
    : name_(std::move(machineName)), plant_(std::move(config), seed) {
    fans_.resize(plant_.config().fans.size());
    const auto cpus = static_cast<std::size_t>(std::max(1, plant_.config().logicalCpus));
    busyTicks_.assign(cpus, 0);
    // A machine that has been up a while: counters that start well above zero.
    idleTicks_.assign(cpus, 360000);
    plant_.setLoad(0, 0);
    state_ = plant_.state();
    build();
}

void SimHardware::step(double dt, double cpuLoad, double gpuLoad) {
    if (!(dt > 0)) return;
    cpuLoad_ = cpuLoad;
    gpuLoad_ = gpuLoad;
    plant_.setLoad(cpuLoad, gpuLoad);
    plant_.step(dt);
    state_ = plant_.state();
    elapsed_ += dt;
    packageEnergyUJ_ = std::fmod(packageEnergyUJ_ + state_.cpuPowerW * dt * 1e6, kEnergyRangeUJ);

    tickRemainder_ += dt * kUserHz;
    const auto ticks = static_cast<std::uint64_t>(tickRemainder_);
    tickRemainder_ -= static_cast<double>(ticks);
    const double busyShare = std::clamp(state_.cpuUtilizationPct / 100.0, 0.0, 1.0);
    for (std::size_t i = 0; i < busyTicks_.size(); ++i) {
        const auto busy = static_cast<std::uint64_t>(std::llround(ticks * busyShare));
        busyTicks_[i] += busy;
        idleTicks_[i] += ticks - std::min(ticks, busy);
    }
}

std::string SimHardware::hwmonDir(const Chip& chip) const {
    return chip.device + "/hwmon/hwmon" + std::to_string(chip.hwmon);
}

void SimHardware::linkHwmon(const Chip& chip) {
    const std::string dir = hwmonDir(chip);
    tree_.addDirectory(dir);
    tree_.addSymlink(dir + "/device", "../..");
    tree_.addSymlink("sys/class/hwmon/hwmon" + std::to_string(chip.hwmon),
                     "../../" + chip.device.substr(std::string("sys/").size()) + "/hwmon/hwmon" +
                         std::to_string(chip.hwmon));
}

void SimHardware::addAttribute(const std::string& path, AttributeRead read, AttributeWrite write) {
    if (vanished_.contains(path)) return;
    tree_.addFile(path, std::move(read), std::move(write));
}

void SimHardware::build() {
    tree_.clear();
    tree_.addDirectory("sys/class/hwmon");
    buildCpu();
    buildGpu();
    buildFanChip();
    buildPower();
    buildThermalZones();
    buildProc();
}

void SimHardware::buildCpu() {
    linkHwmon(cpuChip_);
    const std::string dir = hwmonDir(cpuChip_);
    const double limit = config().cpuLimitC;
    addAttribute(dir + "/name", [] { return std::string("coretemp\n"); });
    addAttribute(dir + "/temp1_label", [] { return std::string("Package id 0\n"); });
    addAttribute(dir + "/temp1_input", [this] {
        return milli(sim::sensedTemperature(config(), state_.cpuTemperatureC));
    });
    addAttribute(dir + "/temp1_max", [limit] { return milli(limit); });
    addAttribute(dir + "/temp1_crit", [limit] { return milli(limit + 5); });

    const int cpus = static_cast<int>(busyTicks_.size());
    for (int cpu = 0; cpu < cpus; ++cpu) {
        const std::string base = "sys/devices/system/cpu/cpu" + std::to_string(cpu);
        const std::string freq = base + "/cpufreq";
        const double maxMHz = config().cpuMaxClockMHz;
        addAttribute(freq + "/scaling_cur_freq",
                     [this] { return number(std::llround(state_.cpuClockMHz * 1000)); });
        addAttribute(freq + "/cpuinfo_max_freq",
                     [maxMHz] { return number(std::llround(maxMHz * 1000)); });
        addAttribute(freq + "/cpuinfo_min_freq",
                     [this] { return number(std::llround(config().cpuBaseClockMHz * 1000 / 2)); });
        addAttribute(freq + "/scaling_max_freq",
                     [maxMHz] { return number(std::llround(maxMHz * 1000)); });
        addAttribute(freq + "/scaling_governor", [] { return std::string("powersave\n"); });
        addAttribute(base + "/thermal_throttle/package_throttle_count",
                     [this] { return number(state_.cpuThrottling ? 1 : 0); });
    }
}

void SimHardware::buildGpu() {
    linkHwmon(gpuChip_);
    const std::string dir = hwmonDir(gpuChip_);
    addAttribute(dir + "/name", [] { return std::string("amdgpu\n"); });
    addAttribute(dir + "/temp1_label", [] { return std::string("edge\n"); });
    addAttribute(dir + "/temp1_input", [this] {
        return milli(sim::sensedTemperature(config(), state_.gpuTemperatureC));
    });
    addAttribute(dir + "/temp1_crit", [this] { return milli(config().gpuLimitC + 10); });
    addAttribute(dir + "/power1_average",
                 [this] { return number(std::llround(state_.gpuPowerW * 1e6)); });
    addAttribute(dir + "/freq1_label", [] { return std::string("sclk\n"); });
    addAttribute(dir + "/freq1_input",
                 [this] { return number(std::llround(state_.gpuClockMHz * 1e6)); });

    const std::string device = gpuChip_.device;
    addAttribute(device + "/gpu_busy_percent",
                 [this] { return number(std::llround(state_.gpuUtilizationPct)); });
    // The DPM table: the deepest droop, where the clock is now (starred), the top.
    addAttribute(device + "/pp_dpm_sclk", [this] {
        const long long base = std::llround(config().gpuBaseClockMHz);
        const long long now = std::llround(state_.gpuClockMHz);
        const long long top = std::llround(config().gpuMaxClockMHz);
        std::string text = "0: " + std::to_string(base) + "Mhz" + (now <= base ? " *" : "") + "\n";
        if (now > base && now < top) text += "1: " + std::to_string(now) + "Mhz *\n";
        text += std::string(now > base && now < top ? "2: " : "1: ") + std::to_string(top) + "Mhz" +
                (now >= top ? " *" : "") + "\n";
        return text;
    });
    tree_.addDirectory(device + "/drm/card0");
    tree_.addSymlink(device + "/drm/card0/device", "../..");
    tree_.addSymlink("sys/class/drm/card0", "../../devices/pci0000:00/0000:03:00.0/drm/card0");
}

void SimHardware::buildFanChip() {
    linkHwmon(fanChip_);
    const std::string dir = hwmonDir(fanChip_);
    addAttribute(dir + "/name", [] { return std::string("nct6798\n"); });
    addAttribute(dir + "/temp1_label", [] { return std::string("SYSTIN\n"); });
    addAttribute(dir + "/temp1_input", [this] {
        return milli(sim::sensedTemperature(config(), state_.sinkTemperatureC));
    });
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        const std::string fan = dir + "/fan" + std::to_string(i + 1);
        const std::string pwm = dir + "/pwm" + std::to_string(i + 1);
        const auto& fanConfig = config().fans[i];
        addAttribute(fan + "_label", [name = fanConfig.name] { return name + "\n"; });
        addAttribute(fan + "_input", [this, i] {
            return number(std::llround(std::max(0.0, state_.fanCurrentRPM[i])));
        });
        addAttribute(fan + "_min", [min = fanConfig.minRPM] { return number(std::llround(min)); });
        addAttribute(fan + "_max", [max = fanConfig.maxRPM] { return number(std::llround(max)); });
        addAttribute(fan + "_target",
                     [this, i] { return number(std::llround(state_.fanDriveRPM[i])); });
        addAttribute(
            pwm, [this, i] { return number(effectiveDuty(i)); },
            [this, i](std::string_view text) { return writeDuty(i, text); });
        addAttribute(
            pwm + "_enable", [this, i] { return number(fans_[i].enable); },
            [this, i](std::string_view text) { return writeEnable(i, text); });
    }
}

void SimHardware::buildPower() {
    const std::string zone = "sys/devices/virtual/powercap/intel-rapl/intel-rapl:0";
    addAttribute(zone + "/name", [] { return std::string("package-0\n"); });
    addAttribute(zone + "/energy_uj",
                 [this] { return number(static_cast<long long>(packageEnergyUJ_)); });
    addAttribute(zone + "/max_energy_range_uj",
                 [] { return number(static_cast<long long>(kEnergyRangeUJ)); });
    addAttribute(zone + "/constraint_0_name", [] { return std::string("long_term\n"); });
    addAttribute(zone + "/constraint_0_power_limit_uw",
                 [this] { return number(std::llround(config().cpuFullLoadPowerW * 1e6)); });
    tree_.addSymlink("sys/class/powercap/intel-rapl:0",
                     "../../devices/virtual/powercap/intel-rapl/intel-rapl:0");
}

void SimHardware::buildThermalZones() {
    const std::string zone = "sys/devices/virtual/thermal/thermal_zone0";
    addAttribute(zone + "/type", [] { return std::string("x86_pkg_temp\n"); });
    addAttribute(zone + "/temp", [this] {
        return milli(sim::sensedTemperature(config(), state_.cpuTemperatureC));
    });
    addAttribute(zone + "/trip_point_0_type", [] { return std::string("passive\n"); });
    addAttribute(zone + "/trip_point_0_temp", [this] { return milli(config().cpuLimitC); });
    addAttribute(zone + "/trip_point_1_type", [] { return std::string("critical\n"); });
    addAttribute(zone + "/trip_point_1_temp", [this] { return milli(config().cpuLimitC + 10); });
    tree_.addSymlink("sys/class/thermal/thermal_zone0",
                     "../../devices/virtual/thermal/thermal_zone0");
}

void SimHardware::buildProc() {
    addAttribute("proc/stat", [this] {
        auto line = [](const std::string& label, std::uint64_t busy, std::uint64_t idle) {
            char text[160];
            // user nice system idle iowait irq softirq steal guest guest_nice
            std::snprintf(text, sizeof text, "%s %llu 0 %llu %llu 0 0 0 0 0 0\n", label.c_str(),
                          static_cast<unsigned long long>(busy - busy / 5),
                          static_cast<unsigned long long>(busy / 5),
                          static_cast<unsigned long long>(idle));
            return std::string(text);
        };
        std::uint64_t busy = 0;
        std::uint64_t idle = 0;
        for (std::size_t i = 0; i < busyTicks_.size(); ++i) {
            busy += busyTicks_[i];
            idle += idleTicks_[i];
        }
        std::string text = line("cpu ", busy, idle);
        for (std::size_t i = 0; i < busyTicks_.size(); ++i)
            text += line("cpu" + std::to_string(i), busyTicks_[i], idleTicks_[i]);
        return text;
    });
}

double SimHardware::firmwareRPM(std::size_t fan) const {
    const auto& f = config().fans[fan];
    if (fan < state_.fanFirmwareStopped.size() && state_.fanFirmwareStopped[fan]) return 0;
    const double hottest = std::max(state_.cpuTemperatureC, state_.gpuTemperatureC);
    const double span = config().firmwareMaxAtC - config().firmwareMinUntilC;
    const double fraction =
        span > 0 ? std::clamp((hottest - config().firmwareMinUntilC) / span, 0.0, 1.0)
                 : (hottest >= config().firmwareMaxAtC ? 1.0 : 0.0);
    return f.minRPM + fraction * (f.maxRPM - f.minRPM);
}

// A turning fan runs linearly from its minimum speed at its stop duty (0 for fans that never
// stop) to its maximum at full duty.
double SimHardware::rpmAtDuty(std::size_t fan, int duty) const {
    const auto& f = config().fans[fan];
    const int from = std::clamp(f.stopBelowDuty, 0, kMaxDuty - 1);
    const double share = std::clamp(static_cast<double>(duty - from) / (kMaxDuty - from), 0.0, 1.0);
    return f.minRPM + (f.maxRPM - f.minRPM) * share;
}

int SimHardware::dutyForRPM(std::size_t fan, double rpm) const {
    const auto& f = config().fans[fan];
    const int from = std::clamp(f.stopBelowDuty, 0, kMaxDuty - 1);
    const double span = f.maxRPM - f.minRPM;
    const double share = span > 0 ? std::clamp((rpm - f.minRPM) / span, 0.0, 1.0) : 1.0;
    return static_cast<int>(std::lround(from + share * (kMaxDuty - from)));
}

int SimHardware::effectiveDuty(std::size_t fan) const {
    const FanChannel& channel = fans_[fan];
    if (channel.enable == 1) return channel.pwm;
    if (channel.enable == 0) return kMaxDuty;
    // The firmware writes 0 to a fan it stops.
    const double rpm = firmwareRPM(fan);
    if (rpm <= 0) return 0;
    return dutyForRPM(fan, rpm);
}

int SimHardware::writeDuty(std::size_t fan, std::string_view text) {
    const auto value = parseSysfsInteger(text);
    if (!value || *value < 0 || *value > kMaxDuty) return -EINVAL;
    if (fans_[fan].eio) return -EIO;
    fans_[fan].pwm = static_cast<int>(*value);
    ++fans_[fan].pwmWrites;
    commandFans();
    return 0;
}

int SimHardware::writeEnable(std::size_t fan, std::string_view text) {
    const auto value = parseSysfsInteger(text);
    if (!value || *value < 0 || *value > 2) return -EINVAL;
    // Taken into manual mode, the chip keeps the duty it was running at, and a fan the
    // firmware had stopped is still at rest.
    if (*value == 1 && fans_[fan].enable != 1) {
        fans_[fan].pwm = effectiveDuty(fan);
        fans_[fan].atRest = config().fans[fan].canStop() && state_.fanCurrentRPM[fan] <= 0;
    }
    fans_[fan].enable = static_cast<int>(*value);
    ++fans_[fan].enableWrites;
    commandFans();
    return 0;
}

// Manual fans run where their duty puts them, full-speed fans at their maximum, the rest on the
// firmware curve. A fan that can stop stands still under its stop duty and, once at rest, until
// it is given its start duty.
void SimHardware::commandFans() {
    std::vector<double> command(fans_.size(), 0.0);
    bool anyCommanded = false;
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        const auto& f = config().fans[i];
        FanChannel& channel = fans_[i];
        if (channel.enable == 1) {
            if (f.canStop()) {
                if (channel.pwm < f.stopBelowDuty) channel.atRest = true;
                if (channel.pwm >= f.effectiveStartDuty()) channel.atRest = false;
            }
            command[i] = channel.atRest ? kFanStopRPM : rpmAtDuty(i, channel.pwm);
        } else {
            // Out of manual mode the firmware decides; it starts its fans with a kick of its own.
            if (channel.enable == 0) command[i] = f.maxRPM;
        }
        // A commanded 0 would mean "firmware" to the plant; the fan's floor is its minimum.
        if (command[i] > 0) command[i] = std::max(command[i], std::max(1.0, f.minRPM));
        anyCommanded = anyCommanded || command[i] != 0;
    }
    if (anyCommanded)
        plant_.setFanCommand(command);
    else
        plant_.setFirmwareControl(true);
    state_ = plant_.state();
}

std::string SimHardware::writeCounts() const {
    std::string text;
    for (std::size_t i = 0; i < fans_.size(); ++i) {
        const std::string fan = "fan" + std::to_string(i + 1);
        text += fan + " pwm " + std::to_string(fans_[i].pwmWrites) + "\n";
        text += fan + " enable " + std::to_string(fans_[i].enableWrites) + "\n";
    }
    return text;
}

std::string SimHardware::fanChipPath() const {
    return "sys/class/hwmon/hwmon" + std::to_string(fanChip_.hwmon);
}

std::optional<std::size_t> SimHardware::fanOfPath(const std::string& path) const {
    const auto resolved = tree_.resolve(path);
    const std::string dir = hwmonDir(fanChip_) + "/pwm";
    if (!resolved || !resolved->starts_with(dir)) return std::nullopt;
    const std::string rest = resolved->substr(dir.size());
    const auto index = parseSysfsInteger(rest);
    if (!index || *index < 1 || *index > static_cast<long long>(fans_.size())) return std::nullopt;
    return static_cast<std::size_t>(*index - 1);
}

int SimHardware::nextHwmonNumber() const {
    return std::max({cpuChip_.hwmon, gpuChip_.hwmon, fanChip_.hwmon}) + 1;
}

std::string SimHardware::applyFault(std::string_view line) {
    const std::string text = trimmed(line);
    const auto space = text.find(' ');
    const std::string verb = text.substr(0, space);
    const std::string argument = space == std::string::npos ? "" : trimmed(text.substr(space + 1));
    if (verb == "clear") {
        if (!argument.empty()) return "clear takes no argument";
        for (std::size_t i = 0; i < fans_.size(); ++i) {
            fans_[i].eio = false;
            fans_[i].stalled = false;
            plant_.setFanStalled(i, false);
        }
        vanished_.clear();
        build();
        state_ = plant_.state();
        return {};
    }
    if (argument.empty()) return "unknown fault '" + text + "'";
    if (verb == "takeback" || verb == "eio" || verb == "stall") {
        const auto fan = fanOfPath(argument);
        if (!fan) return "'" + argument + "' is not a fan's pwm file";
        if (verb == "takeback") {
            fans_[*fan].enable = 2;
            commandFans();
        } else if (verb == "eio") {
            fans_[*fan].eio = true;
        } else {
            fans_[*fan].stalled = true;
            plant_.setFanStalled(*fan, true);
            state_ = plant_.state();
        }
        return {};
    }
    if (verb == "vanish") {
        const auto resolved = tree_.resolve(argument);
        const Node* node = resolved ? tree_.find(*resolved) : nullptr;
        if (!node || node->kind != NodeKind::file) return "'" + argument + "' is not a file";
        vanished_.insert(*resolved);
        tree_.remove(*resolved);
        return {};
    }
    if (verb == "rebind") {
        const auto resolved = tree_.resolve(argument);
        Chip* chip = nullptr;
        for (Chip* candidate : {&cpuChip_, &gpuChip_, &fanChip_})
            if (resolved && (*resolved == hwmonDir(*candidate) || *resolved == candidate->device))
                chip = candidate;
        if (!chip) return "'" + argument + "' is not a hwmon device";
        // The driver comes back with the chip's power-on state: the firmware drives its fans.
        const int number = nextHwmonNumber();
        std::set<std::string> moved;
        for (const auto& path : vanished_) {
            const std::string old = hwmonDir(*chip) + "/";
            moved.insert(path.starts_with(old)
                             ? chip->device + "/hwmon/hwmon" + std::to_string(number) + "/" +
                                   path.substr(old.size())
                             : path);
        }
        vanished_ = std::move(moved);
        chip->hwmon = number;
        if (chip == &fanChip_) {
            for (auto& fan : fans_) fan.enable = 2;
            commandFans();
        }
        build();
        return {};
    }
    return "unknown fault '" + verb + "'";
}

}  // namespace kelvo::simhw

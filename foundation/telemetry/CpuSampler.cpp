#include "foundation/telemetry/CpuSampler.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "foundation/core/SysfsMounts.h"
#include "foundation/telemetry/SysfsValues.h"

namespace kelvo {

namespace fs = std::filesystem;

namespace {

struct StatLine {
    std::uint64_t total = 0;
    std::uint64_t idle = 0;
};

// "cpu[N] user nice system idle iowait irq softirq steal guest guest_nice". Guest time is
// already counted in user, so only the first eight fields add up to the total.
std::optional<StatLine> parseTimes(std::istringstream& fields) {
    std::uint64_t values[8] = {};
    int count = 0;
    for (; count < 8 && (fields >> values[count]); ++count) {
    }
    if (count < 4) return std::nullopt;
    StatLine line;
    for (int i = 0; i < count; ++i) line.total += values[i];
    line.idle = values[3] + (count > 4 ? values[4] : 0);
    return line;
}

struct ProcStat {
    std::optional<StatLine> all;
    std::map<int, StatLine> perCpu;
};

ProcStat parseProcStat(std::istream& in) {
    ProcStat stat;
    std::string text;
    bool seenCpuLines = false;
    while (std::getline(in, text)) {
        // The CPU lines come first; what follows (the interrupt counts above all) can run to
        // many kilobytes on large machines.
        if (!text.starts_with("cpu")) {
            if (seenCpuLines) break;
            continue;
        }
        seenCpuLines = true;
        std::istringstream fields(text);
        std::string label;
        fields >> label;
        if (label == "cpu") {
            stat.all = parseTimes(fields);
            continue;
        }
        int index = -1;
        const char* end = label.data() + label.size();
        const auto [ptr, ec] = std::from_chars(label.data() + 3, end, index);
        if (ec != std::errc() || ptr != end || index < 0) continue;
        if (auto line = parseTimes(fields)) stat.perCpu[index] = *line;
    }
    return stat;
}

ProcStat readProcStat(const fs::path& path) {
    if (auto mounted = sysfs::findMount(path)) {
        std::istringstream in(mounted->source->read(mounted->relative).value_or(""));
        return parseProcStat(in);
    }
    std::ifstream in(path);
    return parseProcStat(in);
}

// Busy percentage between two readings; none when the counters did not advance or went back.
template <typename A, typename B>
std::optional<double> busyPct(const A& previous, const B& current) {
    if (current.total <= previous.total || current.idle < previous.idle) return std::nullopt;
    const double total = static_cast<double>(current.total - previous.total);
    const double idle = static_cast<double>(current.idle - previous.idle);
    if (idle > total) return std::nullopt;
    return std::clamp(100.0 * (total - idle) / total, 0.0, 100.0);
}

struct Core {
    int index = 0;
    double curKHz = 0;
    std::optional<double> maxKHz;
    std::optional<double> busyPct;
};

}  // namespace

CpuSampler::CpuSampler(std::string sysRoot)
    : sysRoot_(sysRoot.empty() ? "/" : std::move(sysRoot)) {}

CpuReading CpuSampler::sample() {
    const fs::path root(sysRoot_);
    CpuReading reading;

    const ProcStat stat = readProcStat(root / "proc/stat");
    if (stat.all) {
        if (previousTotal_) reading.utilizationPct = busyPct(*previousTotal_, *stat.all);
        previousTotal_ = Times{stat.all->total, stat.all->idle};
    } else {
        previousTotal_.reset();
    }

    std::vector<Core> cores;
    for (const fs::path& cpu : sysfs::numberedEntries(root / "sys/devices/system/cpu", "cpu")) {
        const auto curKHz = sysfs::readDouble(cpu / "cpufreq/scaling_cur_freq");
        const auto maxKHz = sysfs::readDouble(cpu / "cpufreq/cpuinfo_max_freq");
        if (maxKHz && (!reading.maxClockMHz || *maxKHz / 1000.0 > *reading.maxClockMHz)) {
            reading.maxClockMHz = *maxKHz / 1000.0;
        }
        if (!curKHz) continue;  // offline, or no cpufreq driver
        Core core{sysfs::entryNumber(cpu, "cpu"), *curKHz, maxKHz, std::nullopt};
        const auto now = stat.perCpu.find(core.index);
        const auto before = previousPerCpu_.find(core.index);
        if (now != stat.perCpu.end() && before != previousPerCpu_.end()) {
            core.busyPct = busyPct(before->second, now->second);
        }
        cores.push_back(core);
    }
    previousPerCpu_.clear();
    for (const auto& [index, line] : stat.perCpu) previousPerCpu_[index] = {line.total, line.idle};
    if (cores.empty()) return reading;

    // Clusters by rated maximum: on hybrid parts the performance and efficiency cores run at
    // very different clocks, and the mean of both says little about either. The busiest
    // cluster is the one doing the work the clock matters for.
    struct Cluster {
        double busySum = 0;
        int busyCount = 0;
        double curSum = 0;
        int coreCount = 0;
    };
    std::map<double, Cluster> clusters;  // by cpuinfo_max_freq; 0 when unknown
    double allCurSum = 0;
    for (const Core& core : cores) {
        Cluster& cluster = clusters[core.maxKHz.value_or(0)];
        cluster.curSum += core.curKHz;
        ++cluster.coreCount;
        if (core.busyPct) {
            cluster.busySum += *core.busyPct;
            ++cluster.busyCount;
        }
        allCurSum += core.curKHz;
    }
    const Cluster* busiest = nullptr;
    double busiestPct = -1;
    if (clusters.size() > 1) {
        // Ascending by rated maximum, so on a tie the faster cluster wins.
        for (const auto& [maxKHz, cluster] : clusters) {
            if (cluster.busyCount == 0) continue;
            const double pct = cluster.busySum / cluster.busyCount;
            if (pct >= busiestPct) {
                busiestPct = pct;
                busiest = &cluster;
            }
        }
    }
    if (busiest) {
        reading.clockMHz = busiest->curSum / busiest->coreCount / 1000.0;
    } else {
        reading.clockMHz = allCurSum / static_cast<double>(cores.size()) / 1000.0;
    }
    return reading;
}

}  // namespace kelvo

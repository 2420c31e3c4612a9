#include "foundation/sim/HostLoadReader.h"

#include <algorithm>
#include <fstream>

namespace kelvo::sim {

HostLoadReader::HostLoadReader(std::string procRoot) : procRoot_(std::move(procRoot)) {}

std::optional<HostLoadReader::CpuTimes> HostLoadReader::readTimes() const {
    std::ifstream in(procRoot_ + "/stat");
    std::string label;
    if (!in || !(in >> label) || label != "cpu") return std::nullopt;
    // user nice system idle iowait irq softirq steal; guest time is already counted in user.
    std::uint64_t fields[8] = {};
    int count = 0;
    while (count < 8 && (in >> fields[count])) ++count;
    if (count < 4) return std::nullopt;
    CpuTimes times;
    for (int i = 0; i < count; ++i) times.total += fields[i];
    times.idle = fields[3] + (count > 4 ? fields[4] : 0);
    return times;
}

std::optional<double> HostLoadReader::read() {
    const std::optional<CpuTimes> now = readTimes();
    if (!now) return std::nullopt;
    const std::optional<CpuTimes> before = previous_;
    previous_ = now;
    if (!before || now->total <= before->total || now->idle < before->idle) return std::nullopt;
    const double total = static_cast<double>(now->total - before->total);
    const double idle = static_cast<double>(now->idle - before->idle);
    return std::clamp((total - idle) / total, 0.0, 1.0);
}

}  // namespace kelvo::sim

#include "foundation/control/HardwareCapabilityTracker.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string_view>

#include "foundation/store/SQLiteStore.h"

namespace kelvo {

namespace {

std::string firstLine(const char* path) {
    std::ifstream in(path);
    std::string line;
    if (!in || !std::getline(in, line)) return {};
    const auto begin = line.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return {};
    const auto end = line.find_last_not_of(" \t\r\n");
    return line.substr(begin, end - begin + 1);
}

struct Flag {
    std::string_view key;
    bool HardwareCapabilities::*member;
};

constexpr Flag kFlags[] = {
    {"cpuTemperature", &HardwareCapabilities::cpuTemperature},
    {"gpuTemperature", &HardwareCapabilities::gpuTemperature},
    {"cpuClock", &HardwareCapabilities::cpuClock},
    {"gpuClock", &HardwareCapabilities::gpuClock},
    {"power", &HardwareCapabilities::power},
    {"fanSpeeds", &HardwareCapabilities::fanSpeeds},
    {"fanTargets", &HardwareCapabilities::fanTargets},
    {"gpuStateProbes", &HardwareCapabilities::gpuStateProbes},
};

}  // namespace

std::string HardwareCapabilities::encode() const {
    std::string out;
    for (const auto& flag : kFlags) {
        out += flag.key;
        out += this->*flag.member ? "=1;" : "=0;";
    }
    out += "fanCount=" + std::to_string(fanCount);
    return out;
}

HardwareCapabilities HardwareCapabilities::decode(const std::string& text) {
    HardwareCapabilities result;
    std::istringstream in(text);
    std::string pair;
    while (std::getline(in, pair, ';')) {
        const auto eq = pair.find('=');
        if (eq == std::string::npos) continue;
        const std::string_view key(pair.data(), eq);
        const std::string value = pair.substr(eq + 1);
        if (key == "fanCount") {
            try {
                result.fanCount = std::max(0, std::stoi(value));
            } catch (...) {
                result.fanCount = 0;
            }
            continue;
        }
        for (const auto& flag : kFlags)
            if (flag.key == key) result.*flag.member = (value == "1");
    }
    return result;
}

HardwareCapabilities HardwareCapabilities::merged(const HardwareCapabilities& other) const {
    HardwareCapabilities result = *this;
    for (const auto& flag : kFlags) result.*flag.member = result.*flag.member || other.*flag.member;
    result.fanCount = std::max(fanCount, other.fanCount);
    return result;
}

std::string HardwareCapabilityTracker::defaultIdentityProvider() {
    try {
        if (auto id = firstLine("/etc/machine-id"); !id.empty()) return id;
        const auto product = firstLine("/sys/class/dmi/id/product_name");
        const auto board = firstLine("/sys/class/dmi/id/board_name");
        if (!product.empty() || !board.empty()) return product + "/" + board;
    } catch (...) {
    }
    return "unknown-machine";
}

HardwareCapabilityTracker::HardwareCapabilityTracker(SQLiteStore* store,
                                                     std::function<std::string()> identityProvider)
    : store_(store) {
    try {
        if (identityProvider) identity_ = identityProvider();
    } catch (...) {
        identity_.clear();
    }
    if (identity_.empty()) identity_ = "unknown-machine";
    if (store_) {
        if (auto saved = store_->machineCapabilities(identity_))
            capabilities_ = HardwareCapabilities::decode(*saved);
    }
}

void HardwareCapabilityTracker::observe(const TelemetrySample& sample) {
    HardwareCapabilities seen;
    seen.cpuTemperature = sample.cpuTemperatureC.has_value();
    seen.gpuTemperature = sample.gpuTemperatureC.has_value();
    seen.cpuClock = sample.cpuClockMHz.has_value();
    seen.gpuClock = sample.gpuClockMHz.has_value();
    seen.power = sample.totalPowerW.has_value();
    seen.fanSpeeds = !sample.fanCurrentRPM.empty();
    seen.fanTargets = !sample.fanTargetRPM.empty();
    seen.gpuStateProbes =
        sample.gpuRequestedPState.has_value() || sample.gpuGrantedPState.has_value();
    seen.fanCount = static_cast<int>(std::max(
        {sample.fanCurrentRPM.size(), sample.fanTargetRPM.size(), sample.fanMaxRPM.size()}));

    std::lock_guard lock(mutex_);
    const HardwareCapabilities updated = capabilities_.merged(seen);
    if (updated == capabilities_) return;
    capabilities_ = updated;
    // Saved only on change, so the per-tick cost is a comparison; under the lock so that two
    // observers cannot save their sets in the wrong order.
    if (store_) store_->saveMachineCapabilities(identity_, updated.encode());
}

HardwareCapabilities HardwareCapabilityTracker::capabilities() const {
    std::lock_guard lock(mutex_);
    return capabilities_;
}

std::string HardwareCapabilityTracker::machineIdentity() const {
    return identity_;
}

}  // namespace kelvo

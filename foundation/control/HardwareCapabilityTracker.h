// Which telemetry channels and fan abilities this machine has shown so far. Capabilities only
// grow: a sensor that answered once is a sensor the machine has, even if a later read fails.
#pragma once

#include <functional>
#include <mutex>
#include <string>

#include "foundation/core/Types.h"

namespace kelvo {

class SQLiteStore;

struct HardwareCapabilities {
    bool cpuTemperature = false;
    bool gpuTemperature = false;
    bool cpuClock = false;
    bool gpuClock = false;
    bool power = false;
    bool fanSpeeds = false;
    bool fanTargets = false;
    bool gpuStateProbes = false;
    int fanCount = 0;
    bool operator==(const HardwareCapabilities&) const = default;

    // "key=value" pairs joined by ';', as kept in the store; unknown keys are ignored.
    std::string encode() const;
    static HardwareCapabilities decode(const std::string& text);
    // This set widened by everything `other` has.
    HardwareCapabilities merged(const HardwareCapabilities& other) const;
};

class HardwareCapabilityTracker {
public:
    using HardwareCapabilities = ::kelvo::HardwareCapabilities;

    // With a store, what this machine showed in earlier sessions is known from the start, and
    // every newly seen capability is saved under the machine's identity.
    explicit HardwareCapabilityTracker(
        SQLiteStore* store = nullptr,
        std::function<std::string()> identityProvider = defaultIdentityProvider);

    // /etc/machine-id, else the DMI product and board names, else "unknown-machine".
    static std::string defaultIdentityProvider();

    void observe(const TelemetrySample& sample);
    HardwareCapabilities capabilities() const;
    std::string machineIdentity() const;

private:
    SQLiteStore* store_;
    std::string identity_;
    mutable std::mutex mutex_;
    HardwareCapabilities capabilities_;
};

}  // namespace kelvo

// NVIDIA GPU fans through NVML (dlopen, so the helper has no dependency on the driver) as one kind
// behind FanOwner, held under the same rules as hwmon fans: discovery and speed here, holds and
// the journal in the owner. A fan is given back with nvmlDeviceSetDefaultFanSpeed_v2, which
// returns it to the driver's automatic control.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "helper/FanKind.h"

namespace kelvo::helperd {

struct NvmlFanDeviceOpaque;

// The NVML entry points used, with their C signatures. Tests pass a table of their own.
struct NvmlFanApi {
    using Return = int;  // nvmlReturn_t; 0 is NVML_SUCCESS
    using Device = NvmlFanDeviceOpaque*;
    struct PciInfo {  // nvmlPciInfo_t
        char busIdLegacy[16];
        unsigned int domain;
        unsigned int bus;
        unsigned int device;
        unsigned int pciDeviceId;
        unsigned int pciSubSystemId;
        char busId[32];
    };

    Return (*init)() = nullptr;                                   // nvmlInit_v2
    Return (*shutdown)() = nullptr;                               // nvmlShutdown
    Return (*getCount)(unsigned int*) = nullptr;                  // nvmlDeviceGetCount_v2
    Return (*getHandleByIndex)(unsigned int, Device*) = nullptr;  // ..._v2
    Return (*getPciInfo)(Device, PciInfo*) = nullptr;             // nvmlDeviceGetPciInfo_v3
    Return (*getNumFans)(Device, unsigned int*) = nullptr;        // nvmlDeviceGetNumFans
    Return (*getFanSpeed)(Device, unsigned int, unsigned int*) = nullptr;  // ..._v2, percent
    Return (*setFanSpeed)(Device, unsigned int, unsigned int) = nullptr;   // ..._v2, percent
    Return (*setDefaultFanSpeed)(Device, unsigned int) = nullptr;          // ..._v2
};

struct NvmlFan {
    std::string identity;  // nvidia@<pci bus id>#fanN (N from 0, as NVML counts)
    unsigned int device = 0;
    unsigned int fan = 0;
    std::optional<int> percent;  // current target speed
};

class NvmlFans : public FanKind {
public:
    static constexpr const char* kDefaultLibrary = "libnvidia-ml.so.1";
    static constexpr unsigned int kMaxDevices = 16;
    static constexpr unsigned int kMaxFansPerDevice = 16;

    explicit NvmlFans(FanOwner& owner, std::string libraryPath = kDefaultLibrary);
    NvmlFans(FanOwner& owner, const NvmlFanApi& api);
    // Gives this kind's fans back: their devices need the library this closes.
    ~NvmlFans() override;

    bool available() const { return initialised_; }
    const std::string& unavailableReason() const { return unavailableReason_; }

    std::vector<NvmlFan> discover() const;
    std::unique_ptr<FanDevice> find(const std::string& identity) const override;

    // Sets the fan to `pwm` (0-255, as a percentage of full speed) for `client`.
    ArbiterOutcome take(ClientId client, const std::string& identity, int pwm);

private:
    class Device;

    void start();
    NvmlFanApi::Device handle(unsigned int index) const;

    void* library_ = nullptr;
    NvmlFanApi api_;
    bool initialised_ = false;
    std::string unavailableReason_;
};

}  // namespace kelvo::helperd

// NVIDIA GPU fans through NVML (dlopen, so the helper has no dependency on the driver): discovery,
// speed, and holds by client with the same rules as hwmon fans. A fan is given back with
// nvmlDeviceSetDefaultFanSpeed_v2, which returns it to the driver's automatic control.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "helper/FanArbiter.h"

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

class NvmlFans {
public:
    using Logger = std::function<void(const std::string&)>;
    static constexpr const char* kDefaultLibrary = "libnvidia-ml.so.1";
    static constexpr unsigned int kMaxDevices = 16;
    static constexpr unsigned int kMaxFansPerDevice = 16;

    explicit NvmlFans(Logger log, std::string libraryPath = kDefaultLibrary);
    NvmlFans(Logger log, const NvmlFanApi& api);
    ~NvmlFans();
    NvmlFans(const NvmlFans&) = delete;
    NvmlFans& operator=(const NvmlFans&) = delete;

    bool available() const { return initialised_; }
    const std::string& unavailableReason() const { return unavailableReason_; }

    std::vector<NvmlFan> discover() const;
    std::optional<ClientId> holder(const std::string& identity) const;
    std::size_t heldBy(ClientId client) const;

    // Sets the fan to `pwm` (0-255, as a percentage of full speed) for `client`.
    ArbiterOutcome take(ClientId client, const std::string& identity, int pwm);
    ArbiterOutcome release(ClientId client, const std::string& identity);
    std::size_t releaseClient(ClientId client, const std::string& reason);
    std::size_t releaseEverything(const std::string& reason);

private:
    struct Held {
        ClientId client = 0;
        unsigned int device = 0;
        unsigned int fan = 0;
    };
    void start();
    bool giveBack(const std::string& identity, const Held& held, const std::string& reason);
    NvmlFanApi::Device handle(unsigned int index) const;

    Logger log_;
    void* library_ = nullptr;
    NvmlFanApi api_;
    bool initialised_ = false;
    std::string unavailableReason_;
    std::map<std::string, Held> held_;
};

}  // namespace kelvo::helperd

#include "helper/NvmlFans.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>

#include "foundation/helper_protocol/HelperProtocol.h"

namespace kelvo::helperd {

namespace codes = helper_protocol::codes;

namespace {

template <class Function>
bool resolve(void* library, const char* name, Function& target) {
    target = reinterpret_cast<Function>(::dlsym(library, name));
    return target != nullptr;
}

std::string nvmlError(int code) {
    return "NVML error " + std::to_string(code);
}

}  // namespace

// One GPU fan by its device index and NVML's fan number. Its original mode is always the
// driver's own control, so its journal entry names neither a mode nor a duty cycle.
class NvmlFans::Device : public FanDevice {
public:
    Device(const NvmlFans& fans, const NvmlFan& fan)
        : fans_(fans), identity_(fan.identity), device_(fan.device), fan_(fan.fan) {}

    const std::string& identity() const override { return identity_; }

    JournalEntry originalMode() const override { return {identity_, std::nullopt, std::nullopt}; }

    Write write(int pwm) override {
        const NvmlFanApi::Device device = fans_.handle(device_);
        const auto percent = static_cast<unsigned int>(
            (std::clamp(pwm, 0, helper_protocol::kMaxPWM) * 100 + 127) / 255);
        Write written;
        if (const int r = device ? fans_.api_.setFanSpeed(device, fan_, percent) : -1; r != 0) {
            written.ok = false;
            written.error = "cannot set " + identity_ + ": " + nvmlError(r);
        }
        return written;
    }

    bool restore(const JournalEntry&, std::string* error) override {
        const NvmlFanApi::Device device = fans_.handle(device_);
        const int r = device ? fans_.api_.setDefaultFanSpeed(device, fan_) : -1;
        if (r != 0 && error) *error = nvmlError(r);
        return r == 0;
    }

    std::string describe(const JournalEntry&) const override {
        return "the driver's automatic control";
    }

private:
    const NvmlFans& fans_;
    std::string identity_;
    unsigned int device_ = 0;
    unsigned int fan_ = 0;
};

NvmlFans::NvmlFans(FanOwner& owner, std::string libraryPath) : FanKind(owner) {
    library_ = ::dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library_) {
        unavailableReason_ = "no NVIDIA driver (" + libraryPath + " not loadable)";
        return;
    }
    const bool resolved =
        resolve(library_, "nvmlInit_v2", api_.init) &&
        resolve(library_, "nvmlShutdown", api_.shutdown) &&
        resolve(library_, "nvmlDeviceGetCount_v2", api_.getCount) &&
        resolve(library_, "nvmlDeviceGetHandleByIndex_v2", api_.getHandleByIndex) &&
        resolve(library_, "nvmlDeviceGetPciInfo_v3", api_.getPciInfo) &&
        resolve(library_, "nvmlDeviceGetNumFans", api_.getNumFans) &&
        resolve(library_, "nvmlDeviceGetFanSpeed_v2", api_.getFanSpeed) &&
        resolve(library_, "nvmlDeviceSetFanSpeed_v2", api_.setFanSpeed) &&
        resolve(library_, "nvmlDeviceSetDefaultFanSpeed_v2", api_.setDefaultFanSpeed);
    if (!resolved) {
        unavailableReason_ = libraryPath + " lacks the fan control entry points";
        return;
    }
    start();
}

NvmlFans::NvmlFans(FanOwner& owner, const NvmlFanApi& api) : FanKind(owner), api_(api) {
    start();
}

NvmlFans::~NvmlFans() {
    if (initialised_) {
        releaseEverything("helper stopping");
        if (api_.shutdown) api_.shutdown();
    }
    if (library_) ::dlclose(library_);
}

void NvmlFans::start() {
    if (!api_.init || !api_.getCount || !api_.getHandleByIndex || !api_.getPciInfo ||
        !api_.getNumFans || !api_.setFanSpeed || !api_.setDefaultFanSpeed) {
        unavailableReason_ = "NVML entry points missing";
        return;
    }
    if (const int r = api_.init(); r != 0) {
        unavailableReason_ = "NVML initialisation failed: " + nvmlError(r);
        return;
    }
    initialised_ = true;
}

NvmlFanApi::Device NvmlFans::handle(unsigned int index) const {
    NvmlFanApi::Device device = nullptr;
    if (api_.getHandleByIndex(index, &device) != 0) return nullptr;
    return device;
}

std::vector<NvmlFan> NvmlFans::discover() const {
    std::vector<NvmlFan> fans;
    if (!initialised_) return fans;
    unsigned int count = 0;
    if (api_.getCount(&count) != 0) return fans;
    // The driver's answers are bounded like any other input.
    count = std::min(count, kMaxDevices);
    for (unsigned int index = 0; index < count; ++index) {
        const NvmlFanApi::Device device = handle(index);
        if (!device) continue;
        NvmlFanApi::PciInfo pci{};
        unsigned int fanCount = 0;
        if (api_.getPciInfo(device, &pci) != 0 || api_.getNumFans(device, &fanCount) != 0) {
            continue;
        }
        const std::string busId(pci.busId, strnlen(pci.busId, sizeof pci.busId));
        if (busId.empty()) continue;
        fanCount = std::min(fanCount, kMaxFansPerDevice);
        for (unsigned int fan = 0; fan < fanCount; ++fan) {
            NvmlFan entry;
            entry.identity = "nvidia@" + busId + "#fan" + std::to_string(fan);
            entry.device = index;
            entry.fan = fan;
            unsigned int percent = 0;
            if (api_.getFanSpeed && api_.getFanSpeed(device, fan, &percent) == 0 &&
                percent <= 100) {
                entry.percent = static_cast<int>(percent);
            }
            fans.push_back(std::move(entry));
        }
    }
    return fans;
}

std::unique_ptr<FanDevice> NvmlFans::find(const std::string& identity) const {
    for (const NvmlFan& fan : discover()) {
        if (fan.identity == identity) return std::make_unique<Device>(*this, fan);
    }
    return nullptr;
}

ArbiterOutcome NvmlFans::take(ClientId client, const std::string& identity, int pwm) {
    return owner_.take(*this, client, identity, pwm, [&]() -> FanOwner::Opened {
        if (auto device = find(identity)) return {std::move(device), {}};
        return {nullptr, ArbiterOutcome::failure(codes::unknownFan, "unknown fan " + identity)};
    });
}

}  // namespace kelvo::helperd

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

NvmlFans::NvmlFans(Logger log, std::string libraryPath)
    : log_(log ? std::move(log) : Logger([](const std::string&) {})) {
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

NvmlFans::NvmlFans(Logger log, const NvmlFanApi& api)
    : log_(log ? std::move(log) : Logger([](const std::string&) {})), api_(api) {
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

std::optional<ClientId> NvmlFans::holder(const std::string& identity) const {
    const auto found = held_.find(identity);
    if (found == held_.end()) return std::nullopt;
    return found->second.client;
}

std::size_t NvmlFans::heldBy(ClientId client) const {
    return static_cast<std::size_t>(std::count_if(
        held_.begin(), held_.end(), [client](const auto& e) { return e.second.client == client; }));
}

ArbiterOutcome NvmlFans::take(ClientId client, const std::string& identity, int pwm) {
    const auto found = held_.find(identity);
    if (found != held_.end() && found->second.client != client) {
        return ArbiterOutcome::failure(codes::heldByAnother,
                                       identity + " is held by another client");
    }
    Held target;
    if (found != held_.end()) {
        target = found->second;
    } else {
        const std::vector<NvmlFan> fans = discover();
        const auto fan = std::find_if(fans.begin(), fans.end(),
                                      [&](const NvmlFan& f) { return f.identity == identity; });
        if (fan == fans.end()) {
            return ArbiterOutcome::failure(codes::unknownFan, "unknown fan " + identity);
        }
        target = Held{client, fan->device, fan->fan};
    }
    const NvmlFanApi::Device device = handle(target.device);
    const unsigned int percent =
        static_cast<unsigned int>((std::clamp(pwm, 0, helper_protocol::kMaxPWM) * 100 + 127) / 255);
    if (const int r = device ? api_.setFanSpeed(device, target.fan, percent) : -1; r != 0) {
        return ArbiterOutcome::failure(codes::io, "cannot set " + identity + ": " + nvmlError(r));
    }
    if (found == held_.end()) {
        held_[identity] = target;
        log_("client " + std::to_string(client) + " took " + identity);
    }
    return ArbiterOutcome::success();
}

bool NvmlFans::giveBack(const std::string& identity, const Held& held, const std::string& reason) {
    const NvmlFanApi::Device device = handle(held.device);
    const int r = device ? api_.setDefaultFanSpeed(device, held.fan) : -1;
    if (r != 0) {
        log_("cannot give " + identity + " back to the driver (" + reason + "): " + nvmlError(r));
        return false;
    }
    log_("released " + identity + " to the driver's automatic control (" + reason + ")");
    return true;
}

ArbiterOutcome NvmlFans::release(ClientId client, const std::string& identity) {
    const auto found = held_.find(identity);
    if (found == held_.end()) return ArbiterOutcome::success();
    if (found->second.client != client) {
        return ArbiterOutcome::failure(codes::heldByAnother,
                                       identity + " is held by another client");
    }
    const Held held = found->second;
    held_.erase(found);
    if (!giveBack(identity, held, "released by client " + std::to_string(client))) {
        return ArbiterOutcome::failure(codes::io, "cannot give " + identity + " back");
    }
    return ArbiterOutcome::success();
}

std::size_t NvmlFans::releaseClient(ClientId client, const std::string& reason) {
    std::size_t released = 0;
    for (auto it = held_.begin(); it != held_.end();) {
        if (it->second.client != client) {
            ++it;
            continue;
        }
        giveBack(it->first, it->second, reason);
        it = held_.erase(it);
        ++released;
    }
    return released;
}

std::size_t NvmlFans::releaseEverything(const std::string& reason) {
    std::size_t released = 0;
    for (const auto& [identity, held] : held_) {
        giveBack(identity, held, reason);
        ++released;
    }
    held_.clear();
    return released;
}

}  // namespace kelvo::helperd

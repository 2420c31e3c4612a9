// An in-process stand-in for NVML's fan entry points, for tests that drive NvmlFans directly:
// two GPUs, the first with two fans, the second with one.
#pragma once

#include <cstdint>
#include <cstring>

#include "helper/NvmlFans.h"

namespace kelvo::helperd::fake_nvml {

// Speeds in percent; automatic[i] is whether the driver controls the fan. A non-zero failSet or
// failDefault is the NVML error the next speed change or hand-back returns.
struct FakeGpus {
    unsigned int speed[2][2] = {{30, 31}, {40, 0}};
    bool automatic[2][2] = {{true, true}, {true, true}};
    int failSet = 0;
    int failDefault = 0;
};
inline FakeGpus gpus;

inline NvmlFanApi::Device deviceOf(unsigned int index) {
    // Opaque handles only need to be distinct and non-null.
    return reinterpret_cast<NvmlFanApi::Device>(static_cast<std::uintptr_t>(index + 1));
}
inline unsigned int indexOf(NvmlFanApi::Device device) {
    return static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(device)) - 1;
}

inline NvmlFanApi fakeApi() {
    NvmlFanApi api;
    api.init = [] { return 0; };
    api.shutdown = [] { return 0; };
    api.getCount = [](unsigned int* count) {
        *count = 2;
        return 0;
    };
    api.getHandleByIndex = [](unsigned int index, NvmlFanApi::Device* device) {
        if (index >= 2) return 2;
        *device = deviceOf(index);
        return 0;
    };
    api.getPciInfo = [](NvmlFanApi::Device device, NvmlFanApi::PciInfo* pci) {
        std::strcpy(pci->busId, indexOf(device) == 0 ? "00000000:01:00.0" : "00000000:02:00.0");
        return 0;
    };
    api.getNumFans = [](NvmlFanApi::Device device, unsigned int* count) {
        *count = indexOf(device) == 0 ? 2 : 1;
        return 0;
    };
    api.getFanSpeed = [](NvmlFanApi::Device device, unsigned int fan, unsigned int* percent) {
        *percent = gpus.speed[indexOf(device)][fan];
        return 0;
    };
    api.setFanSpeed = [](NvmlFanApi::Device device, unsigned int fan, unsigned int percent) {
        if (gpus.failSet != 0) return gpus.failSet;
        gpus.speed[indexOf(device)][fan] = percent;
        gpus.automatic[indexOf(device)][fan] = false;
        return 0;
    };
    api.setDefaultFanSpeed = [](NvmlFanApi::Device device, unsigned int fan) {
        if (gpus.failDefault != 0) return gpus.failDefault;
        gpus.automatic[indexOf(device)][fan] = true;
        return 0;
    };
    return api;
}

}  // namespace kelvo::helperd::fake_nvml

// A stand-in for the NVIDIA driver's NVML library, loaded by kelvo-helperd with --nvml-library:
// one GPU with two fans. Every speed change and every hand-back to the driver is appended to the
// file named by KELVO_FAKE_NVML_LOG, so a test sees what the helper asked of the driver.
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct PciInfo {  // nvmlPciInfo_t
    char busIdLegacy[16];
    unsigned int domain;
    unsigned int bus;
    unsigned int device;
    unsigned int pciDeviceId;
    unsigned int pciSubSystemId;
    char busId[32];
};

constexpr unsigned int kFans = 2;
unsigned int speeds[kFans] = {30, 30};
int gpu = 0;  // its address is the device handle

void note(const char* what, unsigned int fan, int speed = -1) {
    const char* path = std::getenv("KELVO_FAKE_NVML_LOG");
    if (!path) return;
    if (FILE* log = std::fopen(path, "a")) {
        if (speed >= 0)
            std::fprintf(log, "%s %u %d\n", what, fan, speed);
        else
            std::fprintf(log, "%s %u\n", what, fan);
        std::fclose(log);
    }
}

bool ours(void* device) {
    return device == &gpu;
}

}  // namespace

extern "C" {

int nvmlInit_v2() {
    return 0;
}
int nvmlShutdown() {
    return 0;
}
int nvmlDeviceGetCount_v2(unsigned int* count) {
    *count = 1;
    return 0;
}
int nvmlDeviceGetHandleByIndex_v2(unsigned int index, void** device) {
    if (index != 0) return 2;  // NVML_ERROR_INVALID_ARGUMENT
    *device = &gpu;
    return 0;
}
int nvmlDeviceGetPciInfo_v3(void* device, PciInfo* info) {
    if (!ours(device)) return 2;
    std::memset(info, 0, sizeof *info);
    std::snprintf(info->busId, sizeof info->busId, "00000000:65:00.0");
    return 0;
}
int nvmlDeviceGetNumFans(void* device, unsigned int* fans) {
    if (!ours(device)) return 2;
    *fans = kFans;
    return 0;
}
int nvmlDeviceGetFanSpeed_v2(void* device, unsigned int fan, unsigned int* speed) {
    if (!ours(device) || fan >= kFans) return 2;
    *speed = speeds[fan];
    return 0;
}
int nvmlDeviceSetFanSpeed_v2(void* device, unsigned int fan, unsigned int speed) {
    if (!ours(device) || fan >= kFans || speed > 100) return 2;
    speeds[fan] = speed;
    note("set", fan, static_cast<int>(speed));
    return 0;
}
int nvmlDeviceSetDefaultFanSpeed_v2(void* device, unsigned int fan) {
    if (!ours(device) || fan >= kFans) return 2;
    speeds[fan] = 30;
    note("default", fan);
    return 0;
}
}

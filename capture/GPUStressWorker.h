// The GPU half of the synthetic workload: one Vulkan compute pipeline built at run time from
// kKernelSource, and one 4 MiB buffer that every pass reads and writes back, so each pass
// re-feeds the previous one's results. Any missing piece (no loader, no device, a compile
// error) means no worker: the capture simply runs without GPU load.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace kelvo {

class GPUStressWorker {
public:
    static constexpr std::uint32_t kElementCount = 1048576;
    static constexpr std::uint32_t kIterations = 1024;
    static const char* const kKernelSource;

    // None when any Vulkan object cannot be made.
    static std::unique_ptr<GPUStressWorker> create();
    ~GPUStressWorker();
    GPUStressWorker(const GPUStressWorker&) = delete;
    GPUStressWorker& operator=(const GPUStressWorker&) = delete;

    // One dispatch over every element; returns once the GPU has finished it. False when the
    // pass could not be submitted or did not complete.
    bool runPass();
    std::vector<float> contents() const;
    std::uint32_t workgroupSize() const;
    const char* deviceName() const;

    // The value element i holds before the first pass.
    static float initialValue(std::uint32_t index) {
        return static_cast<float>(index % 1024) * 0.01f;
    }

private:
    struct Vk;
    explicit GPUStressWorker(std::unique_ptr<Vk> vk);
    std::unique_ptr<Vk> vk_;
};

}  // namespace kelvo

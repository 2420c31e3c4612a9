// Synthetic load for scripted captures. The CPU part is a light periodic wake-up load: each
// task sleeps 1 ms and yields, over and over, on half the processors; that is all it is meant to
// do. The GPU part repeats one compute pass over GPUStressWorker's buffer, pacing itself on the
// completion of each pass. Start and stop calls are serialised; tasks run on their own threads.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "capture/GPUStressWorker.h"

namespace kelvo {

class ProfilingWorkloadRunner {
public:
    using ProcessorCount = std::function<int()>;
    using GPUWorkerFactory = std::function<std::unique_ptr<GPUStressWorker>()>;

    explicit ProfilingWorkloadRunner(ProcessorCount processors = defaultProcessorCount,
                                     GPUWorkerFactory makeGPUWorker = GPUStressWorker::create);
    // Stops everything and waits for a GPU pass still in flight.
    ~ProfilingWorkloadRunner();
    ProfilingWorkloadRunner(const ProfilingWorkloadRunner&) = delete;
    ProfilingWorkloadRunner& operator=(const ProfilingWorkloadRunner&) = delete;

    void startCPUStressTasks();
    // Without a usable GPU worker nothing starts, silently.
    void startGPUStressTask();
    // Cancels every task. CPU tasks are joined (they wake every millisecond); a GPU pass already
    // submitted finishes on its own thread and then releases the worker.
    void stop();

    std::size_t taskCount() const;
    bool hasGPUWorker() const;
    // Passes the GPU tasks have completed since this runner was made.
    std::uint64_t completedGPUPasses() const { return gpuPasses_->load(); }

    static int defaultProcessorCount();

private:
    ProcessorCount processors_;
    GPUWorkerFactory makeGPUWorker_;
    struct Task {
        std::jthread thread;
        bool gpu = false;
        std::shared_ptr<std::atomic<bool>> ended = std::make_shared<std::atomic<bool>>(false);
    };

    mutable std::mutex mutex_;
    std::vector<Task> tasks_;  // in start order
    std::shared_ptr<GPUStressWorker> gpuWorker_;
    std::vector<Task> finishing_;  // cancelled GPU tasks that may still be in a pass
    std::shared_ptr<std::atomic<std::uint64_t>> gpuPasses_ =
        std::make_shared<std::atomic<std::uint64_t>>(0);
};

}  // namespace kelvo

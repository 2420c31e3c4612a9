#include "capture/ProfilingWorkloadRunner.h"

#include <sys/sysinfo.h>

#include <algorithm>
#include <chrono>

namespace kelvo {

ProfilingWorkloadRunner::ProfilingWorkloadRunner(ProcessorCount processors,
                                                 GPUWorkerFactory makeGPUWorker)
    : processors_(processors ? std::move(processors) : ProcessorCount(defaultProcessorCount)),
      makeGPUWorker_(std::move(makeGPUWorker)) {}

ProfilingWorkloadRunner::~ProfilingWorkloadRunner() {
    stop();
    std::lock_guard lock(mutex_);
    finishing_.clear();  // joins
}

int ProfilingWorkloadRunner::defaultProcessorCount() {
    return get_nprocs();
}

void ProfilingWorkloadRunner::startCPUStressTasks() {
    std::lock_guard lock(mutex_);
    const int count = std::max(1, processors_() / 2);
    for (int i = 0; i < count; ++i) {
        Task task;
        task.thread = std::jthread([](std::stop_token stop) {
            while (!stop.stop_requested()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                std::this_thread::yield();
            }
        });
        tasks_.push_back(std::move(task));
    }
}

void ProfilingWorkloadRunner::startGPUStressTask() {
    std::lock_guard lock(mutex_);
    std::shared_ptr<GPUStressWorker> worker =
        makeGPUWorker_ ? std::shared_ptr<GPUStressWorker>(makeGPUWorker_()) : nullptr;
    if (!worker) return;
    gpuWorker_ = worker;
    Task task;
    task.gpu = true;
    task.thread = std::jthread(
        [worker, passes = gpuPasses_, ended = task.ended](std::stop_token stop) mutable {
            while (!stop.stop_requested()) {
                if (worker->runPass()) ++*passes;
                std::this_thread::yield();
            }
            worker.reset();  // the Vulkan objects go with the last pass
            *ended = true;
        });
    tasks_.push_back(std::move(task));
}

void ProfilingWorkloadRunner::stop() {
    std::vector<Task> cancelled;
    {
        std::lock_guard lock(mutex_);
        for (auto& task : tasks_) task.thread.request_stop();
        cancelled = std::move(tasks_);
        tasks_.clear();
        gpuWorker_.reset();
        // GPU tasks that have ended since an earlier stop are joined now, without waiting.
        std::erase_if(finishing_, [](const Task& t) { return t.ended->load(); });
    }
    std::vector<Task> gpuTasks;
    for (auto& task : cancelled) {
        if (task.gpu)
            gpuTasks.push_back(std::move(task));
        else
            task.thread.join();  // wakes within a millisecond
    }
    std::lock_guard lock(mutex_);
    for (auto& task : gpuTasks) finishing_.push_back(std::move(task));
}

std::size_t ProfilingWorkloadRunner::taskCount() const {
    std::lock_guard lock(mutex_);
    return tasks_.size();
}

bool ProfilingWorkloadRunner::hasGPUWorker() const {
    std::lock_guard lock(mutex_);
    return gpuWorker_ != nullptr;
}

}  // namespace kelvo

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "capture/GPUStressWorker.h"
#include "capture/ProfilingWorkloadRunner.h"

namespace kelvo {
namespace {

TEST(WorkloadRunnerTest, HalfTheProcessorsGetACPUTask) {
    ProfilingWorkloadRunner runner([] { return 8; }, [] { return nullptr; });
    runner.startCPUStressTasks();
    EXPECT_EQ(runner.taskCount(), 4u);
    runner.stop();
    EXPECT_EQ(runner.taskCount(), 0u);
}

TEST(WorkloadRunnerTest, OneProcessorStillGetsOneCPUTask) {
    ProfilingWorkloadRunner runner([] { return 1; }, [] { return nullptr; });
    runner.startCPUStressTasks();
    EXPECT_EQ(runner.taskCount(), 1u);
    runner.stop();
}

TEST(WorkloadRunnerTest, StopWithNoTasksIsHarmless) {
    ProfilingWorkloadRunner runner([] { return 2; }, [] { return nullptr; });
    runner.stop();
    runner.stop();
    EXPECT_EQ(runner.taskCount(), 0u);
    EXPECT_FALSE(runner.hasGPUWorker());
}

TEST(WorkloadRunnerTest, StartingAgainWithoutAStopAddsTasks) {
    ProfilingWorkloadRunner runner([] { return 4; }, [] { return nullptr; });
    runner.startCPUStressTasks();
    runner.startCPUStressTasks();
    EXPECT_EQ(runner.taskCount(), 4u);
    runner.stop();
}

TEST(WorkloadRunnerTest, NoGPUWorkerMeansNoGPUTask) {
    ProfilingWorkloadRunner runner([] { return 2; }, [] { return nullptr; });
    runner.startCPUStressTasks();
    runner.startGPUStressTask();
    EXPECT_EQ(runner.taskCount(), 1u);
    EXPECT_FALSE(runner.hasGPUWorker());
    runner.stop();
}

TEST(WorkloadRunnerTest, NoVulkanDriverMeansNoWorker) {
    // Point the loader at a driver list that names nothing.
    const char* previous = std::getenv("VK_ICD_FILENAMES");
    const std::string saved = previous ? previous : "";
    setenv("VK_ICD_FILENAMES", "/nonexistent/kelvo-no-driver.json", 1);
    auto worker = GPUStressWorker::create();
    ProfilingWorkloadRunner runner([] { return 2; });
    runner.startGPUStressTask();
    if (previous)
        setenv("VK_ICD_FILENAMES", saved.c_str(), 1);
    else
        unsetenv("VK_ICD_FILENAMES");
    EXPECT_EQ(worker, nullptr);
    EXPECT_EQ(runner.taskCount(), 0u);
    EXPECT_FALSE(runner.hasGPUWorker());
}

float spinOnce(float x) {
    for (std::uint32_t i = 0; i < GPUStressWorker::kIterations; ++i)
        x = std::sin(x) * std::cos(x) + std::sqrt(std::fabs(x) + 0.0001f);
    return x;
}

// Where Mesa's software driver is installed the worker must come up: only a machine without any
// Vulkan driver may skip.
bool lavapipeInstalled() {
    return std::filesystem::exists("/usr/share/vulkan/icd.d/lvp_icd.x86_64.json");
}

TEST(GPUStressWorkerTest, OnePassComputesTheKernelOverTheWholeBuffer) {
    auto worker = GPUStressWorker::create();
    if (!worker && !lavapipeInstalled()) GTEST_SKIP() << "no Vulkan driver installed";
    ASSERT_NE(worker, nullptr);
    const auto before = worker->contents();
    ASSERT_EQ(before.size(), GPUStressWorker::kElementCount);
    for (std::uint32_t i : {0u, 1u, 1023u, 1024u, 1025u, 524288u + 77u, 1048575u})
        EXPECT_FLOAT_EQ(before[i], static_cast<float>(i % 1024) * 0.01f) << i;
    EXPECT_EQ(GPUStressWorker::kElementCount % worker->workgroupSize(), 0u);

    ASSERT_TRUE(worker->runPass());
    const auto after = worker->contents();
    for (std::uint32_t i : {0u, 1u, 2u, 511u, 1023u, 1024u, 4097u, 524288u + 77u, 1048575u})
        EXPECT_NEAR(after[i], spinOnce(before[i]), 1e-4f) << "element " << i;
}

TEST(GPUStressWorkerTest, TheRunnerDropsTheWorkerAtStopWhileAPassMayStillRun) {
    ProfilingWorkloadRunner runner([] { return 2; });
    runner.startGPUStressTask();
    if (!runner.hasGPUWorker() && !lavapipeInstalled()) GTEST_SKIP() << "no Vulkan driver";
    ASSERT_TRUE(runner.hasGPUWorker());
    EXPECT_EQ(runner.taskCount(), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // a pass is under way
    runner.stop();
    EXPECT_FALSE(runner.hasGPUWorker());
    EXPECT_EQ(runner.taskCount(), 0u);
}

}  // namespace
}  // namespace kelvo

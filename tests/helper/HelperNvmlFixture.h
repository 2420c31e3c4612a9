// The real kelvo-helperd on the fake board, with NVML played by the stand-in library whose
// calls land in `driverLog`.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "tests/helper/HelperTestSupport.h"

namespace kelvo::test_support {

class HelperWithFakeNvml : public ::testing::Test {
protected:
    void SetUp() override {
        buildHelperBoard(sys);
        runtime = makeTempDir("kelvo-helper-nvml");
        driverLog = runtime / "nvml.log";
        daemon = std::make_unique<HelperDaemon>(
            sys.root().string(), runtime,
            std::vector<std::string>{"--nvml-library", KELVO_FAKE_NVML_LIBRARY});
        daemon->setEnvironment("KELVO_FAKE_NVML_LOG", driverLog.string());
        ASSERT_TRUE(daemon->start()) << daemon->log();
    }
    void TearDown() override {
        daemon.reset();
        std::error_code ec;
        std::filesystem::remove_all(runtime, ec);
    }

    FakeSysfs sys;
    std::filesystem::path runtime;
    std::filesystem::path driverLog;
    std::unique_ptr<HelperDaemon> daemon;
};

}  // namespace kelvo::test_support

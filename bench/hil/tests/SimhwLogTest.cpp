// hil_metrics' log reading and metrics on small hand-written logs; every expectation is worked
// out from the same input rows the log is written from.
#include <gtest/gtest.h>

#include <cmath>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "QualityMetrics.h"
#include "ReportWriter.h"
#include "SimhwLog.h"
#include "foundation/sim/MachineFile.h"

using namespace kelvo;

namespace {

struct InputRow {
    double cpuLoad;
    double gpuLoad;
    double cpuC;
    double gpuC;
    bool cpuThrottling;
    double fan1RPM;
    double fan2RPM;
};

// Two fans, like PlantConfig's default machine; one crosses the CPU limit, one the GPU limit.
const std::vector<InputRow> kRows = {
    {0.03, 0.02, 45.5, 40.0, false, 1200, 1300}, {0.90, 0.04, 71.25, 42.0, false, 2400, 2600},
    {0.95, 0.04, 89.5, 44.0, true, 4100, 4300},  {0.95, 0.80, 86.0, 85.5, false, 5000, 5200},
    {0.10, 0.80, 70.0, 79.0, false, 3300, 3500},
};

const quality::MetricLimits kLimits;

class SimhwLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/hil-test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    // The log as kelvo-simhw writes it: header, then one row a second.
    std::filesystem::path writeLog(const std::vector<InputRow>& rows) {
        const auto path = dir_ / "run.csv";
        std::ofstream file(path);
        file << "time_s,cpu_load,gpu_load,cpu_c,gpu_c,sink_c,cpu_mhz,gpu_mhz,cpu_throttling,"
                "gpu_throttling,total_w,fan1_pwm,fan1_enable,fan1_rpm,fan2_pwm,fan2_enable,"
                "fan2_rpm\n";
        for (std::size_t i = 0; i < rows.size(); ++i) {
            const InputRow& r = rows[i];
            file << i + 1 << ',' << r.cpuLoad << ',' << r.gpuLoad << ',' << r.cpuC << ',' << r.gpuC
                 << ",40,4000,1800," << (r.cpuThrottling ? 1 : 0) << ",0,50,128,1," << r.fan1RPM
                 << ",128,1," << r.fan2RPM << '\n';
        }
        return path;
    }

    std::filesystem::path dir_;
};

struct Expected {
    double peak = 0;
    double overLimit = 0;
    double throttled = 0;
    double meanRPM = 0;
    double meanDb = 0;
};

Expected expectedFor(const std::vector<InputRow>& rows) {
    Expected e;
    for (const auto& r : rows) {
        e.peak = std::max({e.peak, r.cpuC, r.gpuC});
        if (r.cpuC > kLimits.cpuLimitC || r.gpuC > kLimits.gpuLimitC) e.overLimit += 1;
        if (r.cpuThrottling) e.throttled += 1;
        e.meanRPM += (r.fan1RPM + r.fan2RPM) / 2;
        // The default fans: 30 dB(A) at 2000 rpm each, 50 dB a decade of speed, summed as power.
        e.meanDb +=
            std::pow(10.0, 3.0) * (std::pow(r.fan1RPM / 2000, 5) + std::pow(r.fan2RPM / 2000, 5));
    }
    e.meanRPM /= static_cast<double>(rows.size());
    e.meanDb = 10 * std::log10(e.meanDb / static_cast<double>(rows.size()));
    return e;
}

}  // namespace

TEST_F(SimhwLogTest, RowFromEveryLoggedSecond) {
    const sim::PlantConfig plant;
    std::string error;
    const auto seconds = hil::readSimhwLog(writeLog(kRows), plant, -1, &error);
    ASSERT_TRUE(seconds) << error;
    ASSERT_EQ(seconds->size(), kRows.size());
    EXPECT_DOUBLE_EQ((*seconds)[1].load.cpu, kRows[1].cpuLoad);
    EXPECT_FALSE((*seconds)[0].state.firmwareControl);

    const Expected expected = expectedFor(kRows);
    ASSERT_GT(expected.overLimit, 0);  // the input must exercise the limit check
    const quality::QualityRow row = hil::evaluateLog(*seconds, plant).row;
    EXPECT_DOUBLE_EQ(row.peakC, expected.peak);
    EXPECT_DOUBLE_EQ(row.overLimitS, expected.overLimit);
    EXPECT_DOUBLE_EQ(row.throttledS, expected.throttled);
    EXPECT_DOUBLE_EQ(row.meanRPM, expected.meanRPM);
}

TEST_F(SimhwLogTest, OnlyTheFirstRowsCount) {
    const sim::PlantConfig plant;
    std::string error;
    const auto seconds = hil::readSimhwLog(writeLog(kRows), plant, 2, &error);
    ASSERT_TRUE(seconds) << error;
    ASSERT_EQ(seconds->size(), 2u);
    const std::vector<InputRow> firstTwo(kRows.begin(), kRows.begin() + 2);
    const Expected expected = expectedFor(firstTwo);
    const quality::QualityRow row = hil::evaluateLog(*seconds, plant).row;
    EXPECT_DOUBLE_EQ(row.peakC, expected.peak);
    EXPECT_DOUBLE_EQ(row.overLimitS, 0);
    EXPECT_DOUBLE_EQ(row.meanRPM, expected.meanRPM);
}

TEST_F(SimhwLogTest, ALogShorterThanAskedIsAnError) {
    const sim::PlantConfig plant;
    std::string error;
    EXPECT_FALSE(hil::readSimhwLog(writeLog(kRows), plant, 6, &error));
    EXPECT_NE(error.find("only 5 rows"), std::string::npos) << error;
}

TEST_F(SimhwLogTest, AFanCountOtherThanTheMachinesIsAnError) {
    sim::PlantConfig plant;
    plant.fans.resize(1);
    std::string error;
    EXPECT_FALSE(hil::readSimhwLog(writeLog(kRows), plant, -1, &error));
    EXPECT_NE(error.find("more fans"), std::string::npos) << error;
    plant.fans.resize(3, plant.fans.front());
    EXPECT_FALSE(hil::readSimhwLog(writeLog(kRows), plant, -1, &error));
    EXPECT_NE(error.find("no column fan3_rpm"), std::string::npos) << error;
}

TEST_F(SimhwLogTest, AMalformedNumberIsAnError) {
    const auto path = writeLog(kRows);
    std::ofstream(path, std::ios::app) << "6,0.1,0.1,oops,40,40,4000,1800,0,0,50,1,1,1,1,1,1\n";
    std::string error;
    EXPECT_FALSE(hil::readSimhwLog(path, sim::PlantConfig{}, -1, &error));
    EXPECT_NE(error.find("line 7: bad cpu_c"), std::string::npos) << error;
}

// The tool itself: control_quality's header, one row named as asked, and one chart.
TEST_F(SimhwLogTest, ToolWritesControlQualityColumnsAndAChart) {
    const auto log = writeLog(kRows);
    std::string error;
    ASSERT_TRUE(
        sim::writeMachineFile(dir_ / "machine.json", {"two-fans", sim::PlantConfig{}}, &error))
        << error;
    const std::string command =
        std::string(HIL_METRICS_BIN) + " --rows 5 --csv " + (dir_ / "out.csv").string() +
        " --svg-dir " + (dir_ / "svg").string() + " --run " + (dir_ / "machine.json").string() +
        " compile fancontrol " + log.string() + " > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);

    std::ifstream csv(dir_ / "out.csv");
    std::string header;
    std::string line;
    ASSERT_TRUE(std::getline(csv, header));
    EXPECT_EQ(header, quality::ReportWriter::csvHeader());
    ASSERT_TRUE(std::getline(csv, line));
    EXPECT_EQ(line.rfind("two-fans,fancontrol,compile,", 0), 0u) << line;
    std::vector<std::string> cells;
    std::stringstream stream(line);
    for (std::string cell; std::getline(stream, cell, ',');) cells.push_back(cell);
    ASSERT_EQ(cells.size(), 13u);
    const Expected expected = expectedFor(kRows);
    EXPECT_NEAR(std::stod(cells[3]), expected.peak, 1e-3);
    EXPECT_NEAR(std::stod(cells[5]), expected.overLimit, 0.05);
    EXPECT_NEAR(std::stod(cells[8]), expected.meanRPM, 0.05);
    EXPECT_NEAR(std::stod(cells[11]), expected.meanDb, 1e-3);
    EXPECT_FALSE(std::getline(csv, line));
    EXPECT_TRUE(std::filesystem::exists(dir_ / "svg" / "two-fans-compile.svg"));

    // Asking for more seconds than the log holds fails the tool.
    const std::string tooMany = std::string(HIL_METRICS_BIN) + " --rows 6 --run " +
                                (dir_ / "machine.json").string() + " compile fancontrol " +
                                log.string() + " > /dev/null 2>&1";
    EXPECT_NE(std::system(tooMany.c_str()), 0);
}

// kelvo-simhw mounted for real: the kernel's view of the tree (links, reads, writes with their
// errors, truncation), faults through the fault file, and how it refuses and ends.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>
#include <vector>

#include "tests/simhw/SimhwProcess.h"

namespace {

using namespace kelvo::test_support;
using namespace std::chrono_literals;

class SimhwMount : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string why = fuseUnavailableReason(); !why.empty())
            GTEST_SKIP() << "kelvo-simhw cannot mount here: " << why;
        char pattern[] = "/tmp/kelvo-simhw-test-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
        ::chmod(dir_.c_str(), 0755);
    }
    void TearDown() override {
        sim_.reset();
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
    }
    SimhwProcess& sim() {
        if (!sim_) sim_ = std::make_unique<SimhwProcess>(dir_, kTestMachine);
        return *sim_;
    }

    std::filesystem::path dir_;
    std::unique_ptr<SimhwProcess> sim_;
};

constexpr const char* kChip = "sys/class/hwmon/hwmon2/";

TEST_F(SimhwMount, ServesTheTreeThroughTheKernel) {
    ASSERT_TRUE(sim().start()) << sim().log();
    EXPECT_EQ(readAttribute(sim().at("sys/class/hwmon/hwmon0/name")), "coretemp");
    EXPECT_EQ(readAttribute(sim().at(std::string(kChip) + "fan1_label")), "CPU fan");
    // Class entries are links into the device tree, as on a real machine.
    EXPECT_TRUE(std::filesystem::is_symlink(sim().at("sys/class/hwmon/hwmon2")));
    EXPECT_EQ(std::filesystem::canonical(sim().at(std::string(kChip) + "device")),
              sim().at("sys/devices/platform/nct6775.656"));
    // Every attribute reports 4096 bytes, and reads give the value now.
    EXPECT_EQ(std::filesystem::file_size(sim().at(std::string(kChip) + "fan1_input")), 4096u);
    const auto stat = readAttribute(sim().at("proc/stat"));
    ASSERT_TRUE(stat);
    EXPECT_TRUE(stat->starts_with("cpu "));
    EXPECT_EQ(readAttribute(sim().at("sys/class/hwmon/hwmon0/temp9_input")), std::nullopt);
}

TEST_F(SimhwMount, WritesTakeEffectAndInvalidOnesAreRefusedWithEinval) {
    ASSERT_TRUE(sim().start()) << sim().log();
    const auto enable = sim().at(std::string(kChip) + "pwm1_enable");
    const auto pwm = sim().at(std::string(kChip) + "pwm1");
    EXPECT_EQ(writeAttribute(enable, "1\n"), 0);
    EXPECT_EQ(writeAttribute(pwm, "255\n"), 0);
    EXPECT_EQ(readAttribute(pwm), "255");
    EXPECT_EQ(slurp(sim().at("simhw/writes")).substr(0, 25), "fan1 pwm 1\nfan1 enable 1\n");
    EXPECT_EQ(writeAttribute(pwm, "256\n"), EINVAL);
    EXPECT_EQ(writeAttribute(enable, "9"), EINVAL);
    EXPECT_EQ(readAttribute(pwm), "255");
    EXPECT_EQ(readAttribute(enable), "1");
    // Read-only attributes stay so, even for root.
    EXPECT_NE(writeAttribute(sim().at(std::string(kChip) + "fan1_input"), "5"), 0);
    // The fan follows the duty.
    EXPECT_TRUE(pollUntil(
        [&] {
            auto rpm = readAttribute(sim().at(std::string(kChip) + "fan1_input"));
            return rpm && std::stoi(*rpm) > 3900;
        },
        15s));
}

TEST_F(SimhwMount, OpeningWithTruncationIsIgnoredAsSysfsDoes) {
    ASSERT_TRUE(sim().start()) << sim().log();
    const auto enable = sim().at(std::string(kChip) + "pwm1_enable");
    // What a C++ ofstream does: open with O_TRUNC, then write.
    std::ofstream(enable) << "1\n";
    EXPECT_EQ(readAttribute(enable), "1");
    EXPECT_EQ(writeAttribute(enable, "2", O_WRONLY | O_TRUNC), 0);
    EXPECT_EQ(readAttribute(enable), "2");
}

TEST_F(SimhwMount, AWriteOfAWholeBufferEndsAtItsFirstNul) {
    ASSERT_TRUE(sim().start()) << sim().log();
    const auto enable = sim().at(std::string(kChip) + "pwm1_enable");
    ASSERT_EQ(writeAttribute(enable, "1"), 0);
    EXPECT_EQ(writeAttribute(enable, std::string("2") + std::string(63, '\0')), 0);
    EXPECT_EQ(readAttribute(enable), "2");
}

TEST_F(SimhwMount, FaultsWrittenToTheFaultFileActAtOnce) {
    ASSERT_TRUE(sim().start()) << sim().log();
    const auto enable = sim().at(std::string(kChip) + "pwm1_enable");
    ASSERT_EQ(writeAttribute(enable, "1"), 0);
    EXPECT_EQ(sim().fault("takeback sys/class/hwmon/hwmon2/pwm1\n"), 0);
    EXPECT_EQ(readAttribute(enable), "2");
    EXPECT_EQ(sim().fault("eio sys/class/hwmon/hwmon2/pwm2\n"), 0);
    EXPECT_EQ(writeAttribute(sim().at(std::string(kChip) + "pwm2"), "10"), EIO);
    EXPECT_EQ(sim().fault("vanish sys/class/hwmon/hwmon0/temp1_input\n"), 0);
    EXPECT_FALSE(std::filesystem::exists(sim().at("sys/class/hwmon/hwmon0/temp1_input")));
    EXPECT_EQ(sim().fault("rebind sys/class/hwmon/hwmon2\n"), 0);
    EXPECT_FALSE(std::filesystem::exists(sim().at("sys/class/hwmon/hwmon2")));
    EXPECT_EQ(readAttribute(sim().at("sys/class/hwmon/hwmon3/name")), "nct6798");
    EXPECT_EQ(sim().fault("clear\n"), 0);
    EXPECT_TRUE(std::filesystem::exists(sim().at("sys/class/hwmon/hwmon0/temp1_input")));
    EXPECT_EQ(sim().fault("melt sys/class/hwmon/hwmon3/pwm1\n"), EINVAL);
    EXPECT_NE(sim().log().find("fault refused"), std::string::npos);
}

TEST_F(SimhwMount, LogsOneRowASecond) {
    ASSERT_TRUE(sim().start()) << sim().log();
    ASSERT_TRUE(pollUntil(
        [&] {
            std::ifstream csv(sim().csvPath());
            int lines = 0;
            for (std::string line; std::getline(csv, line);) ++lines;
            return lines >= 4;
        },
        20s));
    std::ifstream csv(sim().csvPath());
    std::string header;
    std::getline(csv, header);
    EXPECT_EQ(header.rfind("time_s,cpu_load,gpu_load,cpu_c,gpu_c", 0), 0u) << header;
    EXPECT_NE(header.find("fan2_pwm,fan2_enable,fan2_rpm"), std::string::npos);
    std::string first;
    std::getline(csv, first);
    EXPECT_EQ(first.rfind("1,", 0), 0u) << first;
}

TEST_F(SimhwMount, FollowingTheHostLoadHeatsWithWhatTheHostDoes) {
    ASSERT_TRUE(sim().start({"--follow-host-load"})) << sim().log();
    std::atomic<bool> busy = true;
    std::vector<std::thread> burners;
    for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); ++i)
        burners.emplace_back([&busy] {
            while (busy.load(std::memory_order_relaxed)) {
            }
        });
    const auto loads = [&] {
        std::vector<double> values;
        std::ifstream csv(sim().csvPath());
        std::string line;
        std::getline(csv, line);
        while (std::getline(csv, line)) {
            const auto first = line.find(',');
            values.push_back(std::stod(line.substr(first + 1)));
        }
        return values;
    };
    const bool sawLoad = pollUntil(
        [&] {
            const auto values = loads();
            return std::any_of(values.begin(), values.end(), [](double v) { return v > 0.5; });
        },
        30s);
    busy = false;
    for (auto& burner : burners) burner.join();
    EXPECT_TRUE(sawLoad) << slurp(sim().csvPath());
    for (double load : loads()) {
        EXPECT_GE(load, 0.0);
        EXPECT_LE(load, 1.0);
    }
}

TEST_F(SimhwMount, SigtermUnmountsCleanly) {
    ASSERT_TRUE(sim().start()) << sim().log();
    ::kill(sim().pid(), SIGTERM);
    const auto status = sim().waitExit(10s);
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << sim().log();
    EXPECT_FALSE(std::filesystem::exists(sim().mountPoint() / "sys"));
    EXPECT_TRUE(std::filesystem::is_empty(sim().mountPoint()));
}

TEST_F(SimhwMount, ASecondInstanceOnTheSameMountPointIsRefused) {
    ASSERT_TRUE(sim().start()) << sim().log();
    SimhwProcess second(dir_ / "second", kTestMachine);
    const int code = second.runToExit(
        {KELVO_SIMHW_BIN, "--machine", second.machinePath().string(), sim().mountPoint().string()});
    EXPECT_EQ(code, 1);
    EXPECT_NE(second.log().find("already a mount point"), std::string::npos) << second.log();
    EXPECT_EQ(readAttribute(sim().at("sys/class/hwmon/hwmon0/name")), "coretemp");
}

TEST_F(SimhwMount, BadInputGetsOneLineAndLeavesNothingMounted) {
    SimhwProcess& s = sim();
    const std::string mount = s.mountPoint().string();
    const std::string machine = s.machinePath().string();
    const auto write = [&](const char* name, const char* text) {
        std::ofstream(dir_ / name) << text;
        return (dir_ / name).string();
    };
    const std::string broken = write("broken.json", "{\"name\": \"x\", \"ambientC\": }");
    const std::string badTrace = write("trace.json",
                                       "{\"name\": \"t\", \"segments\": "
                                       "[{\"seconds\": 5, \"cpu\": 1.5, \"gpu\": 0}]}");
    std::filesystem::create_directories(dir_ / "full");
    std::ofstream(dir_ / "full" / "x") << "x";
    std::ofstream(dir_ / "plain") << "x";

    struct Case {
        std::vector<std::string> arguments;
        int code;
        std::string says;
    };
    const std::vector<Case> cases = {
        {{"--machine", (dir_ / "missing.json").string(), mount}, 1, "missing.json"},
        {{"--machine", broken, mount}, 1, "broken.json"},
        {{"--machine", machine, "--trace", badTrace, mount}, 1, "trace.json"},
        {{"--machine", machine, (dir_ / "full").string()}, 1, "not empty"},
        {{"--machine", machine, (dir_ / "plain").string()}, 1, "not a directory"},
        {{"--machine", machine, (dir_ / "nowhere").string()}, 1, "no such directory"},
        {{"--machine", machine}, 2, "no mount point"},
        {{"--machine", machine, "--trace", badTrace, "--follow-host-load", mount}, 2, "exclude"},
        {{"--speed", "3", mount}, 2, "unknown option"},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(s.logPath());
        std::vector<std::string> argv = {KELVO_SIMHW_BIN};
        argv.insert(argv.end(), c.arguments.begin(), c.arguments.end());
        EXPECT_EQ(s.runToExit(argv), c.code) << s.log();
        const std::string log = s.log();
        EXPECT_NE(log.find(c.says), std::string::npos) << log;
        EXPECT_EQ(log.rfind("kelvo-simhw: ", 0), 0u) << log;
        EXPECT_TRUE(std::filesystem::is_empty(s.mountPoint()));
    }
}

}  // namespace

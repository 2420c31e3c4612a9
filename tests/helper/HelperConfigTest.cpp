// The helper's configuration file: floors and forbidden fans enforced on the real daemon, and a
// malformed file that keeps it from starting.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>

#include "foundation/helper_protocol/HelperClient.h"
#include "foundation/helper_protocol/HelperStatusReport.h"
#include "helper/HelperConfig.h"
#include "tests/helper/HelperTestSupport.h"

namespace kelvo {
namespace {

namespace hp = helper_protocol;
using helperd::HelperConfig;
using test_support::buildHelperBoard;
using test_support::FakeSysfs;
using test_support::HelperDaemon;
using test_support::kChip;
using test_support::kFan1;
using test_support::kFan2;
using test_support::kFan3;

void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

struct RunResult {
    int status = -1;
    std::string output;
};

// Runs the helper to completion (it is expected to refuse to start) and captures its stderr.
RunResult runHelper(const std::string& arguments) {
    RunResult result;
    // Bounded, so that a helper that hangs fails the test (status 124) instead of stalling it.
    FILE* pipe = ::popen(
        ("timeout 20 " + std::string(KELVO_HELPERD_BIN) + " " + arguments + " 2>&1").c_str(), "r");
    if (!pipe) return result;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) result.output += buffer;
    result.status = ::pclose(pipe);
    return result;
}

class HelperConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        buildHelperBoard(sys);
        runtime = test_support::makeTempDir("kelvo-helper-conf");
        config = runtime / "helperd.conf";
    }
    void TearDown() override {
        daemon.reset();
        std::error_code ec;
        std::filesystem::remove_all(runtime, ec);
    }
    void startWith(const std::string& text) {
        writeFile(config, text);
        daemon = std::make_unique<HelperDaemon>(
            sys.root().string(), runtime, std::vector<std::string>{"--config", config.string()});
        ASSERT_TRUE(daemon->start()) << daemon->log();
    }
    // What the helper says when it refuses `text`; fails the test when it starts instead.
    RunResult refusal(const std::string& text) {
        writeFile(config, text);
        return runHelper("--sysfs-root " + sys.root().string() + " --runtime-dir " +
                         (runtime / "run").string() + " --config " + config.string());
    }
    std::string file(const char* name) const {
        return sys.read(std::string(kChip) + name).value_or("");
    }

    FakeSysfs sys;
    std::filesystem::path runtime;
    std::filesystem::path config;
    std::unique_ptr<HelperDaemon> daemon;
};

TEST_F(HelperConfigTest, RequestBelowTheFloorIsRefusedAndChangesNothing) {
    startWith(std::string("# quiet but never stopped\nfloor ") + kFan1 + " 50%\n");
    const auto before = test_support::pwmFiles(sys);
    HelperClient client(daemon->socketPath());
    const HelperCallResult low = client.call(hp::Request::targetPWM(kFan1, 100));
    ASSERT_EQ(low.failure, HelperCallResult::Failure::none) << low.error;
    EXPECT_FALSE(low.reply.ok);
    EXPECT_EQ(low.reply.code, hp::codes::belowFloor);
    EXPECT_NE(low.reply.message.find("floor 128"), std::string::npos) << low.reply.message;
    // fan1 has no fanN_min and max 4000: 1000 rpm maps to duty 64, below the floor as well.
    const HelperCallResult lowRpm = client.call(hp::Request::targetRPM(kFan1, 1000));
    EXPECT_EQ(lowRpm.reply.code, hp::codes::belowFloor) << lowRpm.reply.message;
    EXPECT_EQ(test_support::pwmFiles(sys), before);

    const HelperCallResult atFloor = client.call(hp::Request::targetPWM(kFan1, 128));
    ASSERT_TRUE(atFloor.ok()) << atFloor.errorText();
    EXPECT_EQ(file("pwm1"), "128");
    EXPECT_EQ(file("pwm1_enable"), "1");
    // Other fans have no floor.
    EXPECT_TRUE(client.call(hp::Request::targetPWM(kFan2, 10)).ok());
}

TEST_F(HelperConfigTest, ForbiddenFanCannotBeTaken) {
    startWith(std::string("forbid ") + kFan3 + "\n");
    const auto before = test_support::pwmFiles(sys);
    HelperClient client(daemon->socketPath());
    for (const hp::Request& request :
         {hp::Request::targetPWM(kFan3, 200), hp::Request::targetRPM(kFan3, 900)}) {
        const HelperCallResult refused = client.call(request);
        ASSERT_EQ(refused.failure, HelperCallResult::Failure::none) << refused.error;
        EXPECT_EQ(refused.reply.code, hp::codes::forbidden);
        EXPECT_NE(refused.reply.message.find(kFan3), std::string::npos) << refused.reply.message;
    }
    EXPECT_EQ(test_support::pwmFiles(sys), before);
    EXPECT_TRUE(client.call(hp::Request::targetPWM(kFan1, 200)).ok());
}

TEST_F(HelperConfigTest, StatusShowsFloorsAndForbiddenFans) {
    startWith(std::string("floor ") + kFan1 + " 90   # comment after an entry\nforbid " + kFan2 +
              "\n");
    HelperClient client(daemon->socketPath());
    const HelperStatusResult status = client.status();
    ASSERT_TRUE(status.ok) << status.error;
    ASSERT_TRUE(status.status.config.has_value());
    EXPECT_EQ(status.status.config->file, config.string());
    EXPECT_EQ(status.status.config->floors,
              (std::vector<std::pair<std::string, int>>{{kFan1, 90}}));
    EXPECT_EQ(status.status.config->forbidden, std::vector<std::string>{kFan2});
    const std::string text = formatHelperStatus(status.status, daemon->socketPath());
    EXPECT_NE(text.find("configuration: " + config.string()), std::string::npos) << text;
    EXPECT_NE(text.find(std::string("floor ") + kFan1 + " pwm 90 (35%)"), std::string::npos)
        << text;
    EXPECT_NE(text.find(std::string("forbidden ") + kFan2), std::string::npos) << text;
}

TEST_F(HelperConfigTest, MalformedConfigurationRefusesToStartNamingTheLine) {
    const std::string fan = kFan1;
    const struct {
        std::string text;
        std::string expected;  // after "<file>:"
    } cases[] = {
        {"# ok\nflor " + fan + " 10\n", "2: unknown keyword 'flor'"},
        {"floor " + fan + " 256\n", "1: bad duty cycle '256'"},
        {"floor " + fan + " 101%\n", "1: bad duty cycle '101%'"},
        {"floor " + fan + " ten\n", "1: bad duty cycle 'ten'"},
        {"\n\nfloor " + fan + "\n", "3: floor " + fan + " needs a duty cycle"},
        {"forbid\n", "1: forbid needs a fan identity"},
        {"floor " + fan + " 10\nfloor " + fan + " 20\n", "2: duplicate floor for " + fan},
        {"forbid " + fan + "\nforbid " + fan + "\n", "2: duplicate forbid for " + fan},
        {"# long\nforbid " + std::string(2000, 'x') + "\n", "2: line longer than"},
    };
    for (const auto& bad : cases) {
        const RunResult result = refusal(bad.text);
        EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) != 0)
            << bad.text << result.output;
        EXPECT_EQ(result.output.find("kelvo-helperd: " + config.string() + ":" + bad.expected), 0u)
            << result.output;
        EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 1) << result.output;
    }
    // Over the size limit, even when every line is a comment.
    const RunResult large = refusal(std::string(70 * 1024, '#'));
    EXPECT_NE(large.status, 0);
    EXPECT_NE(large.output.find(config.string() + ": larger than 64 KiB"), std::string::npos)
        << large.output;
}

TEST_F(HelperConfigTest, MissingConfigFileIsAnErrorOnlyWhenNamed) {
    const RunResult missing =
        runHelper("--sysfs-root " + sys.root().string() + " --runtime-dir " +
                  (runtime / "run").string() + " --config " + (runtime / "absent.conf").string());
    EXPECT_NE(missing.status, 0);
    EXPECT_NE(missing.output.find("absent.conf: cannot open"), std::string::npos) << missing.output;

    const auto loaded = HelperConfig::load((runtime / "absent.conf").string(), false);
    EXPECT_TRUE(loaded.ok);
    EXPECT_TRUE(loaded.config.file.empty());
    EXPECT_TRUE(loaded.config.floors.empty());
}

TEST_F(HelperConfigTest, AFifoAsTheConfigurationIsRefusedWithoutHanging) {
    const auto fifo = runtime / "fifo.conf";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    // No writer ever opens the FIFO: a helper that waited for one would be stopped by timeout
    // (status 124) instead of refusing.
    const RunResult result = runHelper("--sysfs-root " + sys.root().string() + " --runtime-dir " +
                                       (runtime / "run").string() + " --config " + fifo.string());
    EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 1) << result.output;
    EXPECT_NE(result.output.find(fifo.string() + ": not a regular file"), std::string::npos)
        << result.output;
}

TEST_F(HelperConfigTest, AConfigurationInADirectoryOthersCanWriteIsRefused) {
    const auto open = runtime / "open";
    std::filesystem::create_directory(open);
    ::chmod(open.c_str(), 0777);
    const auto inside = open / "helperd.conf";
    writeFile(inside, std::string("floor ") + kFan1 + " 50%\n");
    const RunResult result = runHelper("--sysfs-root " + sys.root().string() + " --runtime-dir " +
                                       (runtime / "run").string() + " --config " + inside.string());
    EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 1) << result.output;
    EXPECT_NE(result.output.find(open.string() + " is writable by group or others"),
              std::string::npos)
        << result.output;

    // Sticky, like /tmp: others cannot replace the file, so it is accepted.
    ::chmod(open.c_str(), 01777);
    EXPECT_TRUE(HelperConfig::load(inside.string(), true).ok);
}

TEST_F(HelperConfigTest, AConfigurationInADirectoryOfAnotherUserIsRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "handing the directory to another user needs root";
    const auto theirs = runtime / "theirs";
    std::filesystem::create_directory(theirs);
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    const auto inside = theirs / "helperd.conf";
    writeFile(inside, std::string("floor ") + kFan1 + " 50%\n");
    ::chmod(inside.c_str(), 0644);  // root's own file, which nobody may replace by renaming
    const RunResult result = runHelper("--sysfs-root " + sys.root().string() + " --runtime-dir " +
                                       (runtime / "run").string() + " --config " + inside.string());
    EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 1) << result.output;
    EXPECT_NE(result.output.find(theirs.string() + " is owned by uid 65534"), std::string::npos)
        << result.output;
}

TEST_F(HelperConfigTest, AFloorOrForbidOnAnAbsentFanIsWarnedAboutAndShownInStatus) {
    const std::string absent = "it87@/sys/devices/platform/it87.656#fan9";
    const std::string gone = "nct6775@/sys/devices/platform/nct6775.2592#fan1";
    startWith("floor " + absent + " 50%\nfloor " + std::string(kFan1) + " 20%\nforbid " + gone +
              "\n");
    const std::string log = daemon->log();
    EXPECT_NE(log.find("floor on " + absent + ", a fan that does not exist"), std::string::npos)
        << log;
    EXPECT_NE(log.find("forbid on " + gone + ", a fan that does not exist"), std::string::npos)
        << log;
    EXPECT_EQ(log.find(std::string("floor on ") + kFan1), std::string::npos) << log;

    HelperClient client(daemon->socketPath());
    const HelperStatusResult status = client.status();
    ASSERT_TRUE(status.ok) << status.error;
    const std::string text = formatHelperStatus(status.status, daemon->socketPath());
    EXPECT_NE(text.find("floor " + absent + " pwm 128 (50%), no such fan"), std::string::npos)
        << text;
    EXPECT_NE(text.find("forbidden " + gone + ", no such fan"), std::string::npos) << text;
    EXPECT_NE(text.find(std::string("floor ") + kFan1 + " pwm 51 (20%)\n"), std::string::npos)
        << text;
    // The fans that exist are served as before.
    EXPECT_TRUE(client.call(hp::Request::targetPWM(kFan1, 60)).ok());
}

TEST(HelperConfigParse, PercentRoundsToTheNearestDutyAndCommentsNeedAWordStart) {
    const auto loaded = HelperConfig::parse(
        "floor a@/sys/x#fan1 0%\nfloor a@/sys/x#fan2 100%\n  floor a@/sys/x#fan3 33% # c\n", "f");
    ASSERT_TRUE(loaded.ok) << loaded.error;
    EXPECT_EQ(loaded.config.floorOf("a@/sys/x#fan1"), 0);
    EXPECT_EQ(loaded.config.floorOf("a@/sys/x#fan2"), 255);
    EXPECT_EQ(loaded.config.floorOf("a@/sys/x#fan3"), 84);
    EXPECT_FALSE(loaded.config.floorOf("a@/sys/x#fan4").has_value());
    EXPECT_EQ(HelperConfig::parse("forbid a b\n", "f").error, "f:1: forbid takes one fan identity");
}

TEST(HelperConfigProtocol, ConfigReplyRoundTrips) {
    hp::ConfigInfo info;
    info.file = "/etc/kelvo/helperd.conf";
    info.floors = {{kFan1, 40}, {kFan2, 255}};
    info.forbidden = {kFan3};
    info.sleepHandling = true;
    const auto decoded = hp::decodeConfigInfo(hp::encodeConfigInfo(info));
    ASSERT_TRUE(decoded.ok()) << decoded.error;
    EXPECT_EQ(*decoded.value, info);
    hp::Fields extra = hp::encodeConfigInfo(info);
    extra.set("floor.5.fan", "x");
    EXPECT_FALSE(hp::decodeConfigInfo(extra).ok());
}

}  // namespace
}  // namespace kelvo

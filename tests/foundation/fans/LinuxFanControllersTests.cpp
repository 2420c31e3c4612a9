#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/fans/HelperFanController.h"
#include "foundation/fans/HybridFanController.h"
#include "foundation/fans/LocalFanController.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace kelvo {
namespace {

using test_support::FakeSysfs;

constexpr const char* kFan1 = "it87@/sys/devices/platform/it87.656#fan1";
constexpr const char* kFan2 = "it87@/sys/devices/platform/it87.656#fan2";
constexpr const char* kAcpiFan = "acpi_fan@/sys/devices/platform/PNP0C0B:00#fan1";

// Discovery order is by identity: the ACPI fan (no PWM) first, then it87 fan1 and fan2.
void buildBoard(const FakeSysfs& sys) {
    const std::string superIo = sys.addHwmon(0, "it87", "platform/it87.656");
    sys.write(superIo + "/fan1_input", "1200\n");
    sys.write(superIo + "/fan1_max", "4000\n");
    sys.write(superIo + "/pwm1", "90\n");
    sys.write(superIo + "/pwm1_enable", "2\n");
    sys.write(superIo + "/fan2_input", "800\n");
    sys.write(superIo + "/fan2_min", "500\n");
    sys.write(superIo + "/fan2_max", "2500\n");
    sys.write(superIo + "/pwm2", "60\n");
    sys.write(superIo + "/pwm2_enable", "2\n");
    const std::string acpi = sys.addHwmon(1, "acpi_fan", "platform/PNP0C0B:00");
    sys.write(acpi + "/fan1_input", "2100\n");
}

std::shared_ptr<LocalFanController> localFor(const FakeSysfs& sys) {
    return std::make_shared<LocalFanController>(
        std::make_shared<HwmonFanService>(sys.root().string()));
}

std::shared_ptr<HelperFanController> absentHelper(const FakeSysfs& sys) {
    return std::make_shared<HelperFanController>(sys.path("run/kelvo/helper.sock").string());
}

// ----- LocalFanController --------------------------------------------------------------------

TEST(LinuxLocalFanController, LinearMapSpansMinimumToMaximum) {
    EXPECT_EQ(LocalFanController::linearPWMForRPM(2000, 0, 4000), 128);  // 127.5 rounds up
    EXPECT_EQ(LocalFanController::linearPWMForRPM(1000, 0, 4000), 64);
    EXPECT_EQ(LocalFanController::linearPWMForRPM(1500, 500, 2500), 128);
    EXPECT_EQ(LocalFanController::linearPWMForRPM(2500, 500, 2500), 255);
    EXPECT_EQ(LocalFanController::linearPWMForRPM(400, 500, 2500), 0);
    EXPECT_EQ(LocalFanController::linearPWMForRPM(9000, 0, 4000), 255);
    // Unknown maximum: 5000 RPM.
    EXPECT_EQ(LocalFanController::linearPWMForRPM(1000, 0, 0), 51);
    // A minimum at or above the maximum is not usable; the map starts at 0.
    EXPECT_EQ(LocalFanController::linearPWMForRPM(1000, 3000, 2000), 128);
}

TEST(LinuxLocalFanController, ReadsEveryFanByIdentity) {
    FakeSysfs sys;
    buildBoard(sys);
    LocalFanController controller(std::make_shared<HwmonFanService>(sys.root().string()));
    EXPECT_EQ(controller.typeName(), "LocalFanController");

    const FanReadResult read = controller.readFans();
    ASSERT_TRUE(read.ok) << read.error;
    ASSERT_EQ(read.fans.size(), 3u);
    EXPECT_EQ(read.fans[0].name, kAcpiFan);
    EXPECT_EQ(read.fans[0].currentRPM, 2100);
    EXPECT_EQ(read.fans[1].name, kFan1);
    EXPECT_EQ(read.fans[1].currentRPM, 1200);
    EXPECT_EQ(read.fans[1].maxRPM, 4000);
    EXPECT_EQ(read.fans[2].name, kFan2);
    EXPECT_EQ(read.fans[2].minRPM, 500);
    EXPECT_EQ(read.fans[2].maxRPM, 2500);
    for (const auto& fan : read.fans) EXPECT_EQ(fan.targetRPM, 0) << fan.name;
}

TEST(LinuxLocalFanController, NoFanHardwareReadsEmptyAndRefusesTargets) {
    FakeSysfs sys;
    LocalFanController controller(std::make_shared<HwmonFanService>(sys.root().string()));
    const FanReadResult read = controller.readFans();
    EXPECT_TRUE(read.ok);
    EXPECT_TRUE(read.fans.empty());

    const FanResult set = controller.setTargets({});
    EXPECT_FALSE(set.ok);
    EXPECT_EQ(set.error, "no controllable fans found");
}

TEST(LinuxLocalFanController, SpeedOnlyFansAreNotControllable) {
    FakeSysfs sys;
    const std::string acpi = sys.addHwmon(0, "acpi_fan", "platform/PNP0C0B:00");
    sys.write(acpi + "/fan1_input", "2100\n");
    LocalFanController controller(std::make_shared<HwmonFanService>(sys.root().string()));
    ASSERT_EQ(controller.readFans().fans.size(), 1u);

    const FanResult set = controller.setTargets({1500});
    EXPECT_FALSE(set.ok);
    EXPECT_EQ(set.error, "no controllable fans found");
    EXPECT_FALSE(controller.holdsControl());
}

TEST(LinuxLocalFanController, TargetsBecomeLinearPWMAndReleaseRestoresFirmwareControl) {
    FakeSysfs sys;
    buildBoard(sys);
    LocalFanController controller(std::make_shared<HwmonFanService>(sys.root().string()));

    const FanResult set = controller.setTargets({0, 2000, 0});
    ASSERT_TRUE(set.ok) << set.error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "1");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "128");
    // A zero target leaves an untouched fan exactly as the firmware had it.
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2_enable"), "2");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2"), "60");
    EXPECT_TRUE(controller.holdsControl());
    EXPECT_EQ(controller.readFans().fans[1].targetRPM, 2000);

    const FanResult released = controller.releaseToAutomatic();
    ASSERT_TRUE(released.ok) << released.error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "2");
    EXPECT_FALSE(controller.holdsControl());
    EXPECT_EQ(controller.readFans().fans[1].targetRPM, 0);
}

TEST(LinuxLocalFanController, ZeroTargetGivesThatFanBackOnly) {
    FakeSysfs sys;
    buildBoard(sys);
    LocalFanController controller(std::make_shared<HwmonFanService>(sys.root().string()));

    ASSERT_TRUE(controller.setTargets({0, 2000, 1500}).ok);
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2"), "128");
    ASSERT_TRUE(controller.setTargets({0, 0, 1500}).ok);
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "2");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2_enable"), "1");
    EXPECT_TRUE(controller.holdsControl());
    ASSERT_TRUE(controller.setTargets({0, 0, 0}).ok);
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2_enable"), "2");
    EXPECT_FALSE(controller.holdsControl());
}

TEST(LinuxLocalFanController, TargetCountMustMatchTheFans) {
    FakeSysfs sys;
    buildBoard(sys);
    LocalFanController controller(std::make_shared<HwmonFanService>(sys.root().string()));
    const FanResult set = controller.setTargets({2000});
    EXPECT_FALSE(set.ok);
    EXPECT_NE(set.error.find("3"), std::string::npos) << set.error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "90");
}

TEST(LinuxLocalFanController, WriteFailureIsReportedWithThePath) {
    FakeSysfs sys;
    buildBoard(sys);
    std::filesystem::remove(sys.path("sys/class/hwmon/hwmon0/pwm1"));
    sys.mkdir("sys/class/hwmon/hwmon0/pwm1");
    LocalFanController controller(std::make_shared<HwmonFanService>(sys.root().string()));

    const FanResult set = controller.setTargets({0, 2000, 1500});
    EXPECT_FALSE(set.ok);
    EXPECT_NE(set.error.find("hwmon0/pwm1:"), std::string::npos) << set.error;
    EXPECT_NE(set.error.find(std::strerror(EISDIR)), std::string::npos) << set.error;
    // The healthy fan was still driven; only it is held.
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2"), "128");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "2");
    ASSERT_TRUE(controller.releaseToAutomatic().ok);
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2_enable"), "2");
    EXPECT_FALSE(controller.holdsControl());
}

// Runs in a child process: as root the only way to meet EACCES is to give up root first.
TEST(LinuxLocalFanControllerDeathTest, PermissionDeniedIsNamed) {
    FakeSysfs sys;
    buildBoard(sys);
    std::filesystem::permissions(
        sys.root(), std::filesystem::perms::owner_all | std::filesystem::perms::group_read |
                        std::filesystem::perms::group_exec | std::filesystem::perms::others_read |
                        std::filesystem::perms::others_exec);
    for (const char* file : {"pwm1", "pwm1_enable"}) {
        std::filesystem::permissions(sys.path(std::string("sys/class/hwmon/hwmon0/") + file),
                                     std::filesystem::perms::owner_read |
                                         std::filesystem::perms::group_read |
                                         std::filesystem::perms::others_read);
    }
    const std::string root = sys.root().string();
    const auto attempt = [&root] {
        if (::geteuid() == 0) {
            constexpr uid_t kNobody = 65534;
            if (::setgroups(0, nullptr) != 0 || ::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) {
                std::_Exit(3);
            }
        }
        LocalFanController controller(std::make_shared<HwmonFanService>(root));
        const FanResult set = controller.setTargets({0, 2000, 0});
        std::fprintf(stderr, "%s\n", set.error.c_str());
        std::_Exit(set.ok || controller.holdsControl() ? 1 : 0);
    };
    EXPECT_EXIT(attempt(), ::testing::ExitedWithCode(0), "permission denied.*pwm1_enable");
}

// ----- HelperFanController -------------------------------------------------------------------

TEST(LinuxHelperFanController, MissingSocketMeansHelperUnavailable) {
    FakeSysfs sys;
    HelperFanController helper(sys.path("run/kelvo/helper.sock").string());
    EXPECT_EQ(helper.typeName(), "HelperFanController");
    EXPECT_STREQ(HelperFanController::serviceName, "org.kelvo.helper");
    EXPECT_FALSE(helper.helperReachable());

    const FanReadResult read = helper.readFans();
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(read.error, "helper unavailable");
    const FanResult set = helper.setTargets({1500});
    EXPECT_FALSE(set.ok);
    EXPECT_EQ(set.error, "helper unavailable");
    EXPECT_FALSE(helper.helperVersion().has_value());
    EXPECT_TRUE(helper.releaseToAutomatic().ok);
    EXPECT_FALSE(helper.holdsControl());
}

TEST(LinuxHelperFanController, PathThatIsNotASocketIsUnavailable) {
    FakeSysfs sys;
    sys.write("helper.sock", "not a socket\n");
    HelperFanController helper(sys.path("helper.sock").string());
    EXPECT_FALSE(helper.helperReachable());
    EXPECT_EQ(helper.readFans().error, "helper unavailable");
}

TEST(LinuxHelperFanController, SilentListenerIsNotResponding) {
    FakeSysfs sys;
    const std::string path = sys.path("helper.sock").string();
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, path.data(), path.size());
    ASSERT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 8), 0);

    // Connections queue in the backlog but nothing ever answers.
    HelperFanController helper(path);
    EXPECT_TRUE(helper.helperReachable());
    const FanReadResult read = helper.readFans();
    EXPECT_FALSE(read.ok);
    EXPECT_EQ(read.error, "helper not responding");
    EXPECT_EQ(helper.setTargets({1500}).error, "helper not responding");
    EXPECT_FALSE(helper.helperVersion().has_value());
    EXPECT_FALSE(helper.holdsControl());

    ::close(listener);
    EXPECT_FALSE(helper.helperReachable());  // the socket file remains, nobody listens
    EXPECT_EQ(helper.readFans().error, "helper unavailable");
}

// ----- HybridFanController -------------------------------------------------------------------

TEST(LinuxHybridFanController, WithoutFallbackReportsTheHelperErrorAndWritesNothing) {
    FakeSysfs sys;
    buildBoard(sys);
    HybridFanController hybrid(absentHelper(sys), localFor(sys), false);
    EXPECT_EQ(hybrid.typeName(), "HybridFanController");
    EXPECT_FALSE(hybrid.allowLocalWriteFallback());

    const FanResult set = hybrid.setTargets({0, 2000, 1500});
    EXPECT_FALSE(set.ok);
    EXPECT_EQ(set.error, "helper unavailable");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "90");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "2");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm2"), "60");
    EXPECT_FALSE(hybrid.holdsControl());
    EXPECT_FALSE(hybrid.helperVersion().has_value());
}

TEST(LinuxHybridFanController, ReadsFallBackToLocalWithoutWritePermission) {
    FakeSysfs sys;
    buildBoard(sys);
    HybridFanController hybrid(absentHelper(sys), localFor(sys), false);
    const FanReadResult read = hybrid.readFans();
    ASSERT_TRUE(read.ok) << read.error;
    ASSERT_EQ(read.fans.size(), 3u);
    EXPECT_EQ(read.fans[1].name, kFan1);
}

TEST(LinuxHybridFanController, WithFallbackWritesLocallyAndReleasesBoth) {
    FakeSysfs sys;
    buildBoard(sys);
    HybridFanController hybrid(absentHelper(sys), localFor(sys), true);
    EXPECT_TRUE(hybrid.allowLocalWriteFallback());

    const FanResult set = hybrid.setTargets({0, 2000, 0});
    ASSERT_TRUE(set.ok) << set.error;
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1"), "128");
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "1");
    EXPECT_TRUE(hybrid.holdsControl());

    ASSERT_TRUE(hybrid.releaseToAutomatic().ok);
    EXPECT_EQ(sys.read("sys/class/hwmon/hwmon0/pwm1_enable"), "2");
    EXPECT_FALSE(hybrid.holdsControl());
}

TEST(LinuxHybridFanController, FallbackFailureCarriesBothReasons) {
    FakeSysfs sys;  // no fans at all
    HybridFanController hybrid(absentHelper(sys), localFor(sys), true);
    const FanResult set = hybrid.setTargets({2000});
    EXPECT_FALSE(set.ok);
    EXPECT_NE(set.error.find("helper unavailable"), std::string::npos) << set.error;
    EXPECT_NE(set.error.find("no controllable fans found"), std::string::npos) << set.error;
}

}  // namespace
}  // namespace kelvo

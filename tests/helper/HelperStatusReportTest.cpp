#include "foundation/helper_protocol/HelperStatusReport.h"

#include <gtest/gtest.h>

namespace {

using namespace kelvo;
namespace hp = kelvo::helper_protocol;

HelperStatus statusWith(std::vector<hp::FanInfo> fans, std::vector<hp::SensorInfo> sensors) {
    HelperStatus status;
    status.version = {"1.2.3", 1};
    status.inventory.fans = std::move(fans);
    status.inventory.sensors = std::move(sensors);
    return status;
}

}  // namespace

TEST(HelperStatusReport, NamesEveryFanWithSpeedDutyModeAndHolder) {
    hp::FanInfo held{"nct6775@/sys/devices/platform/nct6775.656#fan1",
                     true,
                     1200,
                     300,
                     2400,
                     128,
                     1,
                     true,
                     false};
    hp::FanInfo automatic{
        "nct6775@/sys/devices/platform/nct6775.656#fan2", true, 800, 0, 0, 90, 2, false, false};
    hp::FanInfo noPwm{"acpi_fan@/sys/devices/platform/PNP0C0B:00#fan1",
                      false,
                      std::nullopt,
                      0,
                      0,
                      std::nullopt,
                      std::nullopt,
                      false,
                      false};
    hp::SensorInfo package{"coretemp@/sys/devices/platform/coretemp.0#temp1", "Package id 0",
                           52500};
    hp::SensorInfo unread{"k10temp@/sys/devices/pci0000:00/0000:00:18.3#temp1", "", std::nullopt};
    const std::string text = formatHelperStatus(
        statusWith({held, automatic, noPwm}, {package, unread}), "/run/kelvo/helper.sock");
    EXPECT_EQ(text,
              "kelvo-helperd 1.2.3 (protocol 1) at /run/kelvo/helper.sock\n"
              "3 fans:\n"
              "  nct6775@/sys/devices/platform/nct6775.656#fan1\n"
              "    1200 rpm (min 300, max 2400), pwm 128, mode manual, held by Kelvo\n"
              "  nct6775@/sys/devices/platform/nct6775.656#fan2\n"
              "    800 rpm, pwm 90, mode automatic, not held\n"
              "  acpi_fan@/sys/devices/platform/PNP0C0B:00#fan1\n"
              "    speed unreadable, no PWM control\n"
              "2 sensors:\n"
              "  coretemp@/sys/devices/platform/coretemp.0#temp1 \"Package id 0\" 52.5 °C\n"
              "  k10temp@/sys/devices/pci0000:00/0000:00:18.3#temp1 unreadable\n");
}

TEST(HelperStatusReport, AnEmptyMachineSaysSo) {
    EXPECT_EQ(formatHelperStatus(statusWith({}, {}), "/tmp/h.sock"),
              "kelvo-helperd 1.2.3 (protocol 1) at /tmp/h.sock\n0 fans\n0 sensors\n");
}

TEST(HelperStatusReport, ModesReadAsPeopleSayThem) {
    EXPECT_EQ(pwmModeText(0), "full speed");
    EXPECT_EQ(pwmModeText(1), "manual");
    EXPECT_EQ(pwmModeText(2), "automatic");
    EXPECT_EQ(pwmModeText(5), "automatic (firmware mode 5)");
    EXPECT_EQ(pwmModeText(std::nullopt), "unknown");
}

TEST(HelperStatusReport, AFloorOrForbidOnAFanThatIsNotThereSaysSo) {
    hp::FanInfo present{
        "nct6775@/sys/devices/platform/nct6775.656#fan1", true, 800, 0, 0, 90, 2, false, false};
    HelperStatus status = statusWith({present}, {});
    hp::ConfigInfo config;
    config.file = "/etc/kelvo/helperd.conf";
    config.floors = {{"nct6775@/sys/devices/platform/nct6775.656#fan1", 51},
                     {"nct6775@/sys/devices/platform/nct6775.656#fan7", 128}};
    config.forbidden = {"nct6775@/sys/devices/platform/nct6775.656#fan1", "nvidia@GPU-0#fan0"};
    status.config = config;
    const std::string text = formatHelperStatus(status, "/run/kelvo/helper.sock");
    EXPECT_NE(text.find("configuration: /etc/kelvo/helperd.conf\n"
                        "  floor nct6775@/sys/devices/platform/nct6775.656#fan1 pwm 51 (20%)\n"
                        "  floor nct6775@/sys/devices/platform/nct6775.656#fan7 pwm 128 (50%), "
                        "no such fan\n"
                        "  forbidden nct6775@/sys/devices/platform/nct6775.656#fan1\n"
                        "  forbidden nvidia@GPU-0#fan0, no such fan\n"),
              std::string::npos)
        << text;
}

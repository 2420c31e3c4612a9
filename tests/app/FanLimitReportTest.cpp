// Each stored limit that cannot be used is an event, once per value.
#include <gtest/gtest.h>

#include <QSettings>
#include <QTemporaryDir>

#include "app/FanSettingsModel.h"
#include "app_common/FanSettings.h"
#include "tests/foundation/LinuxFakeSysfs.h"

using namespace kelvo;
using kelvo::test_support::FakeSysfs;

TEST(FanLimitReport, EachUnusableLimitIsReportedOncePerValue) {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("k.conf")), QSettings::IniFormat};
    FakeSysfs sys;
    settings.setValue(QString::fromLatin1(fan_settings::cpuQuietKey), 30);
    settings.sync();
    FanSettingsModel model(&settings, sys.root().string(), {});
    std::vector<std::string> reported;
    // Found before anyone listened: said as soon as someone does.
    model.setReport([&](const std::string& message) { reported.push_back(message); });
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_NE(reported[0].find("CPU quiet limit"), std::string::npos) << reported[0];
    model.reload();
    model.reload();
    EXPECT_EQ(reported.size(), 1u);
    settings.setValue(QString::fromLatin1(fan_settings::cpuQuietKey), 200);
    settings.sync();
    model.reload();
    ASSERT_EQ(reported.size(), 2u);
    EXPECT_NE(reported[1].find("200"), std::string::npos) << reported[1];
}

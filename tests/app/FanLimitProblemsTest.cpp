// Stored limits that cannot be used are not dropped in silence.
#include <gtest/gtest.h>

#include <QSettings>
#include <QTemporaryDir>

#include "app/FanSettingsModel.h"
#include "app_common/FanSettings.h"
#include "tests/foundation/LinuxFakeSysfs.h"

using namespace kelvo;
using kelvo::test_support::FakeSysfs;

namespace {
struct LimitRig {
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("k.conf")), QSettings::IniFormat};
    FakeSysfs sys;
    UserLimits applied;
    std::unique_ptr<FanSettingsModel> make() {
        return std::make_unique<FanSettingsModel>(
            &settings, sys.root().string(),
            [this](const FanChoices&, const UserLimits& limits) { applied = limits; });
    }
    void store(const char* key, const QVariant& value) {
        settings.setValue(QString::fromLatin1(key), value);
        settings.sync();
    }
};
}  // namespace

TEST(FanLimitProblems, AStoredLimitOutOfRangeIsShownInThePane) {
    LimitRig rig;
    rig.store(fan_settings::cpuQuietKey, 30);
    rig.store(fan_settings::gpuQuietKey, QStringLiteral("hot"));
    auto model = rig.make();
    model->applyToEngine();
    EXPECT_EQ(rig.applied.cpuQuietC, UserLimits{}.cpuQuietC);
    EXPECT_EQ(rig.applied.gpuQuietC, UserLimits{}.gpuQuietC);
    const std::string message = model->limitMessage().toStdString();
    EXPECT_NE(message.find(fan_settings::cpuQuietKey), std::string::npos) << message;
    EXPECT_NE(message.find("'hot'"), std::string::npos) << message;
}

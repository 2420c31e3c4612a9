#include <gtest/gtest.h>

#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>

#include "app/FanSettingsModel.h"
#include "app_common/FanSettings.h"
#include "tests/foundation/LinuxFakeSysfs.h"

using namespace kelvo;
using kelvo::test_support::FakeSysfs;

namespace {
const QString kFan1 = QStringLiteral("nct6798@/sys/devices/platform/nct6775.656#fan1");
const QString kPump = QStringLiteral("nct6798@/sys/devices/platform/nct6775.656#fan2");

class FanSettingsModelTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string board = sys.addHwmon(2, "nct6798", "platform/nct6775.656");
        sys.write(board + "/fan1_input", "900\n");
        sys.write(board + "/fan2_input", "2400\n");
        sys.write(board + "/fan2_label", "Pump\n");
    }
    std::unique_ptr<FanSettingsModel> make() {
        return std::make_unique<FanSettingsModel>(&settings, sys.root().string(),
                                                  [this](const FanChoices& c, const UserLimits& l) {
                                                      applied = c;
                                                      appliedLimits = l;
                                                      ++applications;
                                                  });
    }
    QTemporaryDir dir;
    QSettings settings{dir.filePath(QStringLiteral("k.conf")), QSettings::IniFormat};
    FakeSysfs sys;
    FanChoices applied;
    UserLimits appliedLimits;
    int applications = 0;
};
}  // namespace

TEST_F(FanSettingsModelTest, ThePumpReachesTheEngineFixedAtFull) {
    auto model = make();
    model->applyToEngine();
    ASSERT_TRUE(applied.contains(kPump.toStdString()));
    EXPECT_EQ(formatFanChoice(applied.at(kPump.toStdString())), "fixed 100");
    EXPECT_FALSE(applied.contains(kFan1.toStdString()));
    ASSERT_EQ(model->fans().size(), 2);
    EXPECT_EQ(model->fans()[1].toMap().value("choice").toString(), QStringLiteral("fixed"));
}

TEST_F(FanSettingsModelTest, AChoiceIsStoredAndApplied) {
    auto model = make();
    QSignalSpy fansChanged(model.get(), &FanSettingsModel::fansChanged);
    EXPECT_TRUE(model->setChoice(kFan1, QStringLiteral("firmware")));
    EXPECT_EQ(fansChanged.count(), 1);
    EXPECT_EQ(applied.at(kFan1.toStdString()).kind, FanChoiceKind::firmware);
    EXPECT_EQ(fan_settings::readChoices(settings).at(kFan1.toStdString()).kind,
              FanChoiceKind::firmware);
    EXPECT_FALSE(model->setChoice(QStringLiteral("unknown#fan3"), QStringLiteral("auto")));
    EXPECT_FALSE(model->setChoice(kFan1, QStringLiteral("fixed"), 140));
    EXPECT_TRUE(model->setMinimum(kFan1, 25));
    EXPECT_EQ(formatFanChoice(applied.at(kFan1.toStdString())), "firmware min 25");
}

TEST_F(FanSettingsModelTest, AnOutOfRangeLimitIsRefusedWithAMessage) {
    auto model = make();
    QSignalSpy message(model.get(), &FanSettingsModel::limitMessageChanged);
    EXPECT_FALSE(model->setLimit(QStringLiteral("cpu"), 30));
    EXPECT_EQ(message.count(), 1);
    EXPECT_FALSE(model->limitMessage().isEmpty());
    EXPECT_EQ(model->cpuQuietLimit(), UserLimits{}.cpuQuietC);
    EXPECT_FALSE(settings.contains(fan_settings::cpuQuietKey));
    EXPECT_TRUE(model->setLimit(QStringLiteral("cpu"), 80));
    EXPECT_TRUE(model->limitMessage().isEmpty());
    EXPECT_EQ(model->cpuQuietLimit(), 80);
    EXPECT_EQ(appliedLimits.cpuQuietC, 80);
    EXPECT_EQ(settings.value(fan_settings::cpuQuietKey).toDouble(), 80);
}

TEST_F(FanSettingsModelTest, ReloadPicksUpWhatAnotherProcessWrote) {
    auto model = make();
    {
        QSettings other(settings.fileName(), QSettings::IniFormat);
        fan_settings::writeChoices(other, {{kFan1.toStdString(), *parseFanChoice("fixed 40")}});
        fan_settings::writeLimit(other, UserLimitKind::performanceTarget, 65);
    }
    QSignalSpy limits(model.get(), &FanSettingsModel::limitsChanged);
    model->reload();
    EXPECT_EQ(limits.count(), 1);
    EXPECT_EQ(model->performanceTarget(), 65);
    EXPECT_EQ(formatFanChoice(applied.at(kFan1.toStdString())), "fixed 40");
    EXPECT_EQ(appliedLimits.performanceTargetC, 65);
}

TEST_F(FanSettingsModelTest, LiveSpeedsComeFromTheSnapshot) {
    auto model = make();
    TelemetrySample sample;
    sample.fanNames = {kFan1.toStdString(), "Simulated fan 1"};
    sample.fanCurrentRPM = {1234, 800};
    model->updateSpeeds(sample);
    ASSERT_EQ(model->fans().size(), 3);
    EXPECT_EQ(model->fans()[0].toMap().value("rpm").toDouble(), 1234);
    EXPECT_EQ(model->fans()[2].toMap().value("identity").toString(),
              QStringLiteral("Simulated fan 1"));
}

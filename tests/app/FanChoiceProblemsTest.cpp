// Stored fan choices that cannot be read, or that would slow a pump, as they reach the control
// engine through the Fans pane's model: fail safe, and said once.
#include <gtest/gtest.h>

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include "app/FanSettingsModel.h"
#include "app_common/FanSettings.h"
#include "foundation/control/ControlEngine.h"
#include "foundation/core/EventRing.h"
#include "tests/foundation/ControlTestFakes.h"
#include "tests/foundation/LinuxFakeSysfs.h"

using namespace kelvo;
using kelvo::test_support::FakeSysfs;

namespace {
const std::string kFan1 = "nct6798@/sys/devices/platform/nct6775.656#fan1";
const std::string kPump = "nct6798@/sys/devices/platform/nct6775.656#fan2";
const std::string kFan3 = "nct6798@/sys/devices/platform/nct6775.656#fan3";

class FanChoiceProblems : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string board = sys.addHwmon(2, "nct6798", "platform/nct6775.656");
        sys.write(board + "/fan1_input", "900\n");
        sys.write(board + "/fan2_input", "2400\n");
        sys.write(board + "/fan2_label", "Pump\n");
        sys.write(board + "/fan3_input", "700\n");
        telemetry->next.cpuTemperatureC = 50;
        engine = std::make_unique<ControlEngine>(
            telemetry, std::make_shared<fakes::RecordingFans>(), nullptr, ring, nullptr);
    }
    // The model as Kelvo runs it: what it applies goes to the engine.
    std::unique_ptr<FanSettingsModel> make() {
        return std::make_unique<FanSettingsModel>(settings.get(), sys.root().string(),
                                                  [this](const FanChoices& c, const UserLimits&) {
                                                      applied = c;
                                                      engine->setFanChoices(c);
                                                  });
    }
    void storeRaw(const QString& value) {
        settings->setValue(QString::fromLatin1(fan_settings::choicesKey), value);
        settings->sync();
    }
    // A settings file as written by hand.
    void writeFileByHand(const QByteArray& text) {
        settings.reset();
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(text);
        file.close();
        settings = std::make_unique<QSettings>(path, QSettings::IniFormat);
    }
    FanChoice appliedFor(const std::string& identity, const std::string& label = {}) const {
        FanState fan;
        fan.name = identity;
        fan.label = label;
        return effectiveFanChoice(fan, applied);
    }
    int eventsNaming(const std::string& what) const {
        int count = 0;
        for (const auto& event : ring->recent(1000))
            if (event.message.find(what) != std::string::npos) ++count;
        return count;
    }
    std::string allEvents() const {
        std::string text;
        for (const auto& event : ring->recent(1000)) text += event.message + "\n";
        return text;
    }

    QTemporaryDir dir;
    QString path = dir.filePath(QStringLiteral("k.conf"));
    std::unique_ptr<QSettings> settings = std::make_unique<QSettings>(path, QSettings::IniFormat);
    FakeSysfs sys;
    std::shared_ptr<fakes::ScriptedTelemetry> telemetry =
        std::make_shared<fakes::ScriptedTelemetry>();
    std::shared_ptr<EventRing> ring = std::make_shared<EventRing>(1000, 1e9);
    std::unique_ptr<ControlEngine> engine;
    FanChoices applied;
};
}  // namespace

// One bad entry: that fan is left to the firmware, the readable entries keep their meaning, and
// the problem is said once however often the same value is read again.
TEST_F(FanChoiceProblems, AnEntryThatCannotBeReadLeavesOnlyThatFanWithTheFirmware) {
    storeRaw(
        QString::fromStdString("{\"" + kFan1 + "\":\"fixed 150\",\"" + kFan3 + "\":\"fixed 40\"}"));
    auto model = make();
    model->applyToEngine();
    model->reload();
    model->reload();
    EXPECT_EQ(appliedFor(kFan1).kind, FanChoiceKind::firmware);
    EXPECT_EQ(appliedFor(kFan3).kind, FanChoiceKind::fixed);
    EXPECT_EQ(appliedFor(kFan3).fixedPercent, 40);
    EXPECT_EQ(eventsNaming(kFan1), 1) << allEvents();
    EXPECT_EQ(eventsNaming("150"), 1) << allEvents();
    EXPECT_EQ(eventsNaming(kFan3), 0) << allEvents();
    // Fixed, then broken in another way: said again.
    storeRaw(QString::fromStdString("{\"" + kFan1 + "\":\"turbo\"}"));
    model->reload();
    EXPECT_EQ(eventsNaming("turbo"), 1) << allEvents();
    EXPECT_EQ(appliedFor(kFan1).kind, FanChoiceKind::firmware);
}

// The whole value cannot be read: no fan is driven, and the event says how to fix it.
TEST_F(FanChoiceProblems, AValueThatCannotBeReadLeavesEveryFanWithTheFirmware) {
    storeRaw(QString::fromStdString("{\"" + kFan1 + "\":\"auto\""));
    auto model = make();
    model->applyToEngine();
    model->reload();
    EXPECT_EQ(appliedFor(kFan1).kind, FanChoiceKind::firmware);
    EXPECT_EQ(appliedFor(kFan3).kind, FanChoiceKind::firmware);
    EXPECT_EQ(appliedFor("it87@/sys/devices/platform/it87.656#fan9").kind, FanChoiceKind::firmware);
    EXPECT_EQ(eventsNaming("kelvoctl fan"), 1) << allEvents();
    // Setting one fan rewrites the whole value, which is readable again.
    ASSERT_TRUE(model->setChoice(QString::fromStdString(kFan3), QStringLiteral("fixed"), 30));
    EXPECT_EQ(appliedFor(kFan3).kind, FanChoiceKind::fixed);
    EXPECT_EQ(appliedFor(kFan1).kind, FanChoiceKind::automatic);
    EXPECT_EQ(fan_settings::readChoices(*settings).size(), 1u);
}

// A settings file written by hand with the JSON unquoted: QSettings splits it at the commas and
// takes its quotes away. The fan the user meant to leave alone is not driven.
TEST_F(FanChoiceProblems, AHandWrittenValueQSettingsMangledDrivesNoFan) {
    writeFileByHand(QByteArray("[General]\nkelvo.fans.choices={\"") + kFan1.c_str() +
                    "\":\"firmware\",\"" + kFan3.c_str() + "\":\"auto\"}\n");
    auto model = make();
    model->applyToEngine();
    EXPECT_EQ(appliedFor(kFan1).kind, FanChoiceKind::firmware);
    EXPECT_EQ(appliedFor(kFan3).kind, FanChoiceKind::firmware);
    EXPECT_EQ(eventsNaming("kelvoctl fan"), 1) << allEvents();
}

// "min 20" alone on a pump is what kelvoctl stores as "fixed 100 min 20": full speed.
TEST_F(FanChoiceProblems, AStoredMinimumOnAPumpKeepsItAtFullSpeed) {
    storeRaw(QString::fromStdString("{\"" + kPump + "\":\"min 20\"}"));
    auto model = make();
    model->applyToEngine();
    // The engine may not see the label: what it is given must hold on its own.
    const FanChoice choice = appliedFor(kPump);
    EXPECT_EQ(choice.kind, FanChoiceKind::fixed);
    EXPECT_EQ(choice.fixedPercent, 100);
    FanState pump;
    pump.name = kPump;
    pump.minRPM = 800;
    pump.maxRPM = 3000;
    for (double duty : {0.0, 0.2, 0.5})
        EXPECT_DOUBLE_EQ(fanTargetRPM(pump, choice, duty), 3000) << duty;
}

// Stopping a pump is never allowed: a stored "stop on" is refused with an event, once.
TEST_F(FanChoiceProblems, AStopStoredForAPumpIsIgnoredWithAnEvent) {
    storeRaw(QString::fromStdString("{\"" + kPump + "\":\"fixed 100 stop on\"}"));
    auto model = make();
    model->applyToEngine();
    model->reload();
    EXPECT_EQ(appliedFor(kPump).stopWhenCool, false);
    EXPECT_EQ(eventsNaming(kPump), 1) << allEvents();
}

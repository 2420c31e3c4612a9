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
    EXPECT_EQ(formatFanChoice(applied.at(kPump.toStdString())), "fixed 100 stop off");
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

namespace {
ControlSnapshot snapshotWith(const QString& identity, bool canStop, bool firmwareStops) {
    ControlSnapshot snapshot;
    FanState fan;
    fan.name = identity.toStdString();
    fan.currentRPM = 0;
    fan.canStop = canStop;
    fan.firmwareStops = firmwareStops;
    snapshot.fans.push_back(fan);
    snapshot.sample.fanNames.push_back(fan.name);
    snapshot.sample.fanCurrentRPM.push_back(0);
    return snapshot;
}

QVariantMap entryFor(const FanSettingsModel& model, const QString& identity) {
    for (const QVariant& fan : model.fans())
        if (fan.toMap().value("identity").toString() == identity) return fan.toMap();
    return {};
}
}  // namespace

TEST_F(FanSettingsModelTest, TheStopSwitchWaitsUntilTheFanIsKnownToStop) {
    auto model = make();
    QVariantMap fan = entryFor(*model, kFan1);
    EXPECT_FALSE(fan.value("stopAvailable").toBool());
    EXPECT_FALSE(fan.value("stopWhenCool").toBool());
    EXPECT_TRUE(fan.value("stopNote").toString().contains("calibrate"))
        << fan.value("stopNote").toString().toStdString();
    // The back-end saw it stand still under the firmware's curve: on by default.
    model->updateFromSnapshot(snapshotWith(kFan1, true, true));
    fan = entryFor(*model, kFan1);
    EXPECT_TRUE(fan.value("stopAvailable").toBool());
    EXPECT_TRUE(fan.value("stopWhenCool").toBool());
    EXPECT_TRUE(fan.value("stopNote").toString().isEmpty());
    const QVariantMap pump = entryFor(*model, kPump);
    EXPECT_FALSE(pump.value("stopAvailable").toBool());
    EXPECT_FALSE(pump.value("stopWhenCool").toBool());
    EXPECT_EQ(pump.value("stopNote").toString(), QStringLiteral("A pump never stops."));
}

TEST_F(FanSettingsModelTest, TheStopSwitchIsStoredAndAppliedButNeverForAPump) {
    auto model = make();
    model->updateFromSnapshot(snapshotWith(kFan1, true, true));
    QSignalSpy fansChanged(model.get(), &FanSettingsModel::fansChanged);
    ASSERT_TRUE(model->setStopWhenCool(kFan1, false));
    EXPECT_EQ(fansChanged.count(), 1);
    EXPECT_FALSE(entryFor(*model, kFan1).value("stopWhenCool").toBool());
    EXPECT_EQ(formatFanChoice(applied.at(kFan1.toStdString())), "auto stop off");
    EXPECT_EQ(formatFanChoice(fan_settings::readChoices(settings).at(kFan1.toStdString())),
              "auto stop off");
    ASSERT_TRUE(model->setMinimum(kFan1, 30));
    EXPECT_TRUE(entryFor(*model, kFan1).value("stopNote").toString().contains("minimum"));
    EXPECT_FALSE(model->setStopWhenCool(kPump, true));
    EXPECT_FALSE(fan_settings::readChoices(settings).contains(kPump.toStdString()));
    EXPECT_EQ(applied.at(kPump.toStdString()).stopWhenCool, false);
}

TEST_F(FanSettingsModelTest, AStoppedFanAndACalibrationShowAndAnUnchangedTickIsSilent) {
    auto model = make();
    ControlSnapshot snapshot = snapshotWith(kFan1, true, false);
    snapshot.stoppedFans.insert(kFan1.toStdString());
    FanCalibrationStatus running;
    running.running = true;
    running.progress = 0.5;
    running.secondsLeft = 40;
    snapshot.calibrations[kFan1.toStdString()] = running;
    QSignalSpy fansChanged(model.get(), &FanSettingsModel::fansChanged);
    model->updateFromSnapshot(snapshot);
    EXPECT_EQ(fansChanged.count(), 1);
    QVariantMap fan = entryFor(*model, kFan1);
    EXPECT_TRUE(fan.value("stopped").toBool());
    EXPECT_TRUE(fan.value("calibrating").toBool());
    EXPECT_DOUBLE_EQ(fan.value("calibrationProgress").toDouble(), 0.5);
    EXPECT_EQ(fan.value("calibrationText").toString(),
              QStringLiteral("Calibrating: 50 %, about 40 s left"));
    EXPECT_TRUE(fan.value("calibrationNote").toString().contains("loud"));
    model->updateFromSnapshot(snapshot);
    EXPECT_EQ(fansChanged.count(), 1);
    FanCalibrationStatus done;
    done.succeeded = false;
    done.message = "the fan did not follow its duty";
    snapshot.calibrations[kFan1.toStdString()] = done;
    snapshot.stoppedFans.clear();
    model->updateFromSnapshot(snapshot);
    EXPECT_EQ(fansChanged.count(), 2);
    fan = entryFor(*model, kFan1);
    EXPECT_FALSE(fan.value("stopped").toBool());
    EXPECT_FALSE(fan.value("calibrating").toBool());
    EXPECT_EQ(fan.value("calibrationText").toString(),
              QStringLiteral("Calibration failed: the fan did not follow its duty"));
}

TEST_F(FanSettingsModelTest, CalibrationRequestsReachTheEngineOnceEach) {
    // A request left from before Kelvo started is not acted on.
    fan_settings::writeCalibrationRequest(settings, {QStringLiteral("old"), kFan1.toStdString()});
    auto model = make();
    std::vector<std::string> asked;
    model->setCalibrate([&](const std::string& identity) { asked.push_back(identity); });
    model->reload();
    EXPECT_TRUE(asked.empty());
    EXPECT_TRUE(model->calibrate(kFan1));
    EXPECT_FALSE(model->calibrate(QStringLiteral("unknown#fan9")));
    ASSERT_EQ(asked.size(), 1u);
    fan_settings::writeCalibrationRequest(settings, {QStringLiteral("r1"), kPump.toStdString()});
    model->reload();
    model->reload();
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[1], kPump.toStdString());
    fan_settings::writeCalibrationRequest(settings, {QStringLiteral("r2"), kPump.toStdString()});
    model->reload();
    EXPECT_EQ(asked.size(), 3u);
}

namespace {
FanCoupling coupling(const QString& identity, std::optional<double> cpuShare,
                     std::optional<double> gpuShare, double confidence) {
    FanCoupling c;
    c.identity = identity.toStdString();
    c.cpuShare = cpuShare;
    c.gpuShare = gpuShare;
    c.confidence = confidence;
    c.probes = 3;
    return c;
}
}  // namespace

TEST_F(FanSettingsModelTest, AKnownCouplingSaysWhichDieWithItsShareAndConfidence) {
    EXPECT_EQ(FanSettingsModel::couplingText(coupling(kFan1, 0.86, 0.2, 0.85)),
              QStringLiteral("Cools mostly: CPU (86 % of the fans' CPU cooling, speed for speed); "
                             "confidence 85 %"));
    EXPECT_EQ(FanSettingsModel::couplingText(coupling(kFan1, std::nullopt, 0.7, 0.5)),
              QStringLiteral("Cools mostly: GPU (70 % of the fans' GPU cooling, speed for speed); "
                             "confidence 50 %"));
    EXPECT_EQ(FanSettingsModel::couplingText(coupling(kFan1, 0.4, 0.55, 0.9)),
              QStringLiteral("Cools mostly: CPU and GPU (40 % of the fans' CPU cooling, 55 % of "
                             "their GPU cooling, speed for speed); confidence 90 %"));
    // Once the quiet mode shares the work by it, the line says what that means for the fan.
    EXPECT_EQ(FanSettingsModel::couplingText(coupling(kFan1, 0.86, 0.2, 0.85), true),
              QStringLiteral("Cools mostly: CPU (86 % of the fans' CPU cooling, speed for speed); "
                             "confidence 85 %; the quiet mode raises it first when the CPU needs "
                             "air"));
    EXPECT_EQ(FanSettingsModel::couplingText(coupling(kFan1, 0.4, 0.55, 0.9), true),
              QStringLiteral("Cools mostly: CPU and GPU (40 % of the fans' CPU cooling, 55 % of "
                             "their GPU cooling, speed for speed); confidence 90 %; the quiet mode "
                             "raises it first when the CPU or the GPU needs air"));
}

TEST_F(FanSettingsModelTest, AnUnknownCouplingSaysItIsNotMeasuredYet) {
    const QString unknown = QStringLiteral(
        "Cooling not measured yet: in the quiet modes Kelvo measures it with small, slow speed "
        "changes while the machine is busy.");
    EXPECT_EQ(FanSettingsModel::couplingText(coupling(kFan1, std::nullopt, std::nullopt, 0)),
              unknown);
    // Before any snapshot, every fan is unknown.
    auto model = make();
    const QVariantMap fan = entryFor(*model, kFan1);
    EXPECT_EQ(fan.value("coolsMostly").toString(), QString());
    EXPECT_EQ(fan.value("couplingConfidence").toDouble(), -1);
    EXPECT_EQ(fan.value("couplingText").toString(), unknown);
}

// Shares whose confidence is 0 are noise: the pane names no die and says it is not known yet.
TEST_F(FanSettingsModelTest, ACouplingNotSureAtAllNamesNoDie) {
    const QString notKnown = QStringLiteral(
        "Cooling not known yet: the swells measured so far do not show which part this fan cools "
        "(confidence 0 %).");
    EXPECT_EQ(FanSettingsModel::couplingText(coupling(kFan1, 0.9, 0.1, 0)), notKnown);
    auto model = make();
    ControlSnapshot snapshot = snapshotWith(kFan1, true, false);
    snapshot.couplings = {coupling(kFan1, 0.9, 0.1, 0)};
    model->updateFromSnapshot(snapshot);
    QVariantMap fan = entryFor(*model, kFan1);
    EXPECT_EQ(fan.value("coolsMostly").toString(), QString());
    EXPECT_EQ(fan.value("couplingConfidence").toDouble(), 0);
    EXPECT_EQ(fan.value("couplingText").toString(), notKnown);
    // A little sure is enough to name it.
    snapshot.couplings = {coupling(kFan1, 0.9, 0.1, 0.05)};
    model->updateFromSnapshot(snapshot);
    fan = entryFor(*model, kFan1);
    EXPECT_EQ(fan.value("coolsMostly").toString(), QStringLiteral("CPU"));
    EXPECT_TRUE(fan.value("couplingText").toString().startsWith("Cools mostly: CPU"))
        << fan.value("couplingText").toString().toStdString();
}

TEST_F(FanSettingsModelTest, ASnapshotsCouplingsReachTheirFansAndAnUnchangedOneIsSilent) {
    auto model = make();
    ControlSnapshot snapshot = snapshotWith(kFan1, true, false);
    model->updateFromSnapshot(snapshot);
    QSignalSpy fansChanged(model.get(), &FanSettingsModel::fansChanged);
    // Listed in the engine's order, not the pane's: each reaches its fan by identity.
    snapshot.couplings = {coupling(kPump, 0.1, 0.9, 0.7), coupling(kFan1, 0.9, 0.1, 0.85)};
    model->updateFromSnapshot(snapshot);
    EXPECT_EQ(fansChanged.count(), 1);
    QVariantMap fan = entryFor(*model, kFan1);
    EXPECT_EQ(fan.value("coolsMostly").toString(), QStringLiteral("CPU"));
    EXPECT_DOUBLE_EQ(fan.value("couplingConfidence").toDouble(), 0.85);
    EXPECT_EQ(fan.value("couplingText").toString(),
              QStringLiteral("Cools mostly: CPU (90 % of the fans' CPU cooling, speed for speed); "
                             "confidence 85 %"));
    const QVariantMap pump = entryFor(*model, kPump);
    EXPECT_EQ(pump.value("coolsMostly").toString(), QStringLiteral("GPU"));
    EXPECT_DOUBLE_EQ(pump.value("couplingConfidence").toDouble(), 0.7);
    // A pump is never Kelvo's to share the work with: the pane says nothing about it.
    EXPECT_EQ(pump.value("couplingText").toString(), QString());
    model->updateFromSnapshot(snapshot);
    EXPECT_EQ(fansChanged.count(), 1);
    // Probing started over: the engine knows nothing, and neither does the pane.
    snapshot.couplings.clear();
    model->updateFromSnapshot(snapshot);
    EXPECT_EQ(fansChanged.count(), 2);
    fan = entryFor(*model, kFan1);
    EXPECT_EQ(fan.value("coolsMostly").toString(), QString());
    EXPECT_EQ(fan.value("couplingConfidence").toDouble(), -1);
    EXPECT_TRUE(fan.value("couplingText").toString().startsWith("Cooling not measured yet"));
}

TEST_F(FanSettingsModelTest, TheSharingSwitchIsStoredAppliedAndSaysWhatItMeansForEachFan) {
    auto model = make();
    std::vector<bool> shared;
    model->setApplyShare([&](bool share) { shared.push_back(share); });
    // On as shipped, with nothing stored.
    EXPECT_TRUE(model->shareWork());
    model->applyToEngine();
    EXPECT_EQ(shared, std::vector<bool>{true});

    QSignalSpy changed(model.get(), &FanSettingsModel::shareWorkChanged);
    model->setShareWork(false);
    EXPECT_EQ(changed.count(), 1);
    EXPECT_FALSE(model->shareWork());
    EXPECT_EQ(shared.back(), false);
    EXPECT_EQ(settings.value(fan_settings::shareKey).toString(), QStringLiteral("off"));
    // Off, a fan is not going to be measured, and its line says so.
    EXPECT_EQ(entryFor(*model, kFan1).value("couplingText").toString(),
              QStringLiteral("Cooling not measured: sharing the work among the fans is off, so "
                             "every fan follows one speed."));
    // What was measured before is still shown, without the quiet mode raising it first.
    EXPECT_EQ(FanSettingsModel::couplingText(coupling(kFan1, 0.86, 0.2, 0.85), false, false),
              QStringLiteral("Cools mostly: CPU (86 % of the fans' CPU cooling, speed for speed); "
                             "confidence 85 %"));
    model->setShareWork(false);
    EXPECT_EQ(changed.count(), 1);

    // kelvoctl turned it on again: a re-read picks it up and hands it on.
    {
        QSettings other(settings.fileName(), QSettings::IniFormat);
        fan_settings::writeShare(other, true);
    }
    model->reload();
    EXPECT_EQ(changed.count(), 2);
    EXPECT_TRUE(model->shareWork());
    EXPECT_EQ(shared.back(), true);
}

TEST_F(FanSettingsModelTest, AStoredSharingValueThatIsNeitherOnNorOffIsOnAndSaidOnce) {
    settings.setValue(fan_settings::shareKey, QStringLiteral("maybe"));
    settings.sync();
    auto model = make();
    std::vector<std::string> reported;
    model->setReport([&](const std::string& message) { reported.push_back(message); });
    EXPECT_TRUE(model->shareWork());
    EXPECT_TRUE(model->shareProblem().contains(QStringLiteral("'maybe'")));
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_NE(reported[0].find("neither 'on' nor 'off'"), std::string::npos);
    // The same file read again is not news.
    model->reload();
    EXPECT_EQ(reported.size(), 1u);
    // Set again from the pane: the problem is gone.
    model->setShareWork(true);
    EXPECT_TRUE(model->shareProblem().isEmpty());
    EXPECT_EQ(settings.value(fan_settings::shareKey).toString(), QStringLiteral("on"));
}

TEST_F(FanSettingsModelTest, MeasureAgainReachesTheEngineAndKelvoctlsRequestsOnceEach) {
    // A request left from before Kelvo started is not acted on.
    fan_settings::writeMeasureAgainRequest(settings, QStringLiteral("old"));
    auto model = make();
    EXPECT_FALSE(model->measureAgain());  // no engine to ask yet
    int asked = 0;
    model->setMeasureAgain([&] { ++asked; });
    model->reload();
    EXPECT_EQ(asked, 0);
    EXPECT_TRUE(model->measureAgain());
    EXPECT_EQ(asked, 1);
    fan_settings::writeMeasureAgainRequest(settings, QStringLiteral("r1"));
    model->reload();
    model->reload();
    EXPECT_EQ(asked, 2);
    fan_settings::writeMeasureAgainRequest(settings, QStringLiteral("r2"));
    model->reload();
    EXPECT_EQ(asked, 3);
}

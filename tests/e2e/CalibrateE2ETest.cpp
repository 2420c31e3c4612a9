// kelvoctl fan ID calibrate against a real headless Kelvo on the private session bus: the request
// travels through the settings and FanSettingsChanged, and kelvoctl prints Kelvo's own answer.
#include <gtest/gtest.h>

#include <QProcess>
#include <QProcessEnvironment>
#include <QSettings>
#include <QTemporaryDir>
#include <csignal>

#include "tests/e2e/KelvoProcess.h"

namespace {

TEST(CalibrateE2E, KelvoctlPrintsWhatARunningKelvoAnswers) {
    QTemporaryDir home;
    QTemporaryDir emptySysfs;
    const QString fan = QStringLiteral("Simulated fan 1");
    {
        // kelvoctl knows a fan hwmon does not show by its stored choice.
        QSettings settings(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("kelvo.fans.choices"),
                          QStringLiteral(R"({"Simulated fan 1":"auto"})"));
    }
    KelvoProcess kelvo(home);
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("status=monitoring")));

    QProcess ctl;
    ctl.setProcessEnvironment(homeEnvironment(home));
    ctl.setProcessChannelMode(QProcess::MergedChannels);
    ctl.start(QStringLiteral(KELVOCTL_BIN),
              {QStringLiteral("--sysfs-root"), emptySysfs.path(), QStringLiteral("fan"), fan,
               QStringLiteral("calibrate")});
    // Well past kelvoctl's own 3 minute limit: it always ends first.
    ASSERT_TRUE(ctl.waitForFinished(240000));
    const QString output = QString::fromUtf8(ctl.readAll());
    EXPECT_FALSE(output.contains(QStringLiteral("no running Kelvo answered")))
        << output.toStdString();
    // Either Kelvo's back-end calibrates the fan and says what it does, or Kelvo says why not.
    const bool started =
        output.contains(QStringLiteral("Calibrating ") + fan +
                        QStringLiteral(": it runs from full speed down to its lowest speed"));
    const bool refused = output.contains(QStringLiteral("Cannot calibrate ") + fan);
    EXPECT_TRUE(started || refused) << output.toStdString();
    if (refused) {
        EXPECT_EQ(ctl.exitCode(), 1) << output.toStdString();
    }
    if (ctl.exitCode() == 0) {
        EXPECT_TRUE(
            output.contains(QStringLiteral("Calibration of ") + fan + QStringLiteral(" finished")))
            << output.toStdString();
    }
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
}

}  // namespace

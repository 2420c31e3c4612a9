// kelvoctl fans share and fans measure-again against a real headless Kelvo on the private session
// bus: both travel through the settings and FanSettingsChanged, and Kelvo records what it did.
#include <gtest/gtest.h>

#include <QProcess>
#include <QProcessEnvironment>
#include <QSettings>
#include <QTemporaryDir>
#include <csignal>
#include <string>

#include "tests/EventLoopWait.h"
#include "tests/e2e/KelvoProcess.h"
#include "tests/e2e/LiveDatabase.h"

namespace {

// Deadlines for what must happen: they only matter when it never does.
constexpr int kDeadlineMs = 20000;

int kelvoctl(const QTemporaryDir& home, const QStringList& args, QString* output = nullptr) {
    QProcess ctl;
    ctl.setProcessEnvironment(homeEnvironment(home));
    ctl.setProcessChannelMode(QProcess::MergedChannels);
    ctl.start(QStringLiteral(KELVOCTL_BIN), args);
    EXPECT_TRUE(ctl.waitForFinished(30000));
    if (output) *output = QString::fromUtf8(ctl.readAll());
    return ctl.exitCode();
}

bool recorded(const QTemporaryDir& home, const std::string& start) {
    return kelvo::testing::waitFor(
        [&] {
            return queryNumber(home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")),
                               "SELECT COUNT(*) FROM events WHERE message LIKE '" + start + "%'") >
                   0;
        },
        kDeadlineMs);
}

TEST(FanSharingE2E, KelvoctlTurnsTheSharingOffAndAsksARunningKelvoToMeasureAgain) {
    QTemporaryDir home;
    KelvoProcess kelvo(home);
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("status=monitoring")));

    QString output;
    EXPECT_EQ(kelvoctl(home, {QStringLiteral("fans"), QStringLiteral("measure-again")}, &output), 0)
        << output.toStdString();
    EXPECT_TRUE(recorded(home, "Fan cooling measurements dropped as asked: every fan follows"));

    EXPECT_EQ(
        kelvoctl(home, {QStringLiteral("fans"), QStringLiteral("share"), QStringLiteral("off")},
                 &output),
        0)
        << output.toStdString();
    EXPECT_TRUE(recorded(home, "Sharing the work among the fans is off"));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);

    // Stored: the next launch starts with it off and says so.
    KelvoProcess again(home);
    again.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(again.waitForLine(QStringLiteral("status=monitoring")));
    EXPECT_TRUE(kelvo::testing::waitFor(
        [&] {
            return queryNumber(home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")),
                               "SELECT COUNT(*) FROM events WHERE message LIKE "
                               "'Sharing the work among the fans is off%'") >= 2;
        },
        kDeadlineMs));
    EXPECT_EQ(again.stopWith(SIGTERM), 0);
}

}  // namespace

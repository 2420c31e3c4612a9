// The kelvo binary itself: it opens the dashboard when a display exists and explains itself
// when none does.
#include <gtest/gtest.h>
#include <signal.h>

#include <QProcess>
#include <QProcessEnvironment>
#include <QTemporaryDir>

namespace {

QProcessEnvironment isolatedEnvironment(const QTemporaryDir& home) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    return env;
}

TEST(KelvoLaunch, WithoutADisplayItSaysSoAndPointsAtHeadless) {
    QTemporaryDir home;
    QProcessEnvironment env = isolatedEnvironment(home);
    env.remove(QStringLiteral("DISPLAY"));
    env.remove(QStringLiteral("WAYLAND_DISPLAY"));
    env.remove(QStringLiteral("QT_QPA_PLATFORM"));
    QProcess kelvo;
    kelvo.setProcessEnvironment(env);
    kelvo.start(QStringLiteral(KELVO_BIN), {QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(kelvo.waitForFinished(20000));
    EXPECT_EQ(kelvo.exitCode(), 1);
    const QString err = QString::fromUtf8(kelvo.readAllStandardError());
    EXPECT_TRUE(err.contains(QStringLiteral("no display found"))) << err.toStdString();
    EXPECT_TRUE(err.contains(QStringLiteral("--headless"))) << err.toStdString();
}

TEST(KelvoLaunch, WithADisplayItDrawsTheDashboardAndStopsCleanlyOnSigint) {
    QTemporaryDir home;
    QProcess kelvo;
    kelvo.setProcessEnvironment(isolatedEnvironment(home));
    kelvo.start(QStringLiteral(KELVO_BIN), {QStringLiteral("--harness-simulated-fans"),
                                            QStringLiteral("--report-first-frame")});
    ASSERT_TRUE(kelvo.waitForStarted());
    QString err;
    for (int i = 0; i < 100 && !err.contains(QStringLiteral("first dashboard frame")); ++i) {
        kelvo.waitForReadyRead(300);
        err += QString::fromUtf8(kelvo.readAllStandardError());
    }
    EXPECT_TRUE(err.contains(QStringLiteral("kelvo: first dashboard frame after")))
        << err.toStdString();
    ::kill(static_cast<pid_t>(kelvo.processId()), SIGINT);
    ASSERT_TRUE(kelvo.waitForFinished(20000));
    EXPECT_EQ(kelvo.exitCode(), 0);
    EXPECT_TRUE(QString::fromUtf8(kelvo.readAllStandardOutput())
                    .contains(QStringLiteral("fans released to automatic control")));
}

}  // namespace

// The kelvo binary itself: it opens the dashboard when a display exists and explains itself
// when none does.
#include <gtest/gtest.h>
#include <signal.h>

#include <QDeadlineTimer>
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
    // A deadline, not a count of reads: every line Kelvo writes ends one wait early.
    const QDeadlineTimer deadline(30000);
    while (!deadline.hasExpired() && !err.contains(QStringLiteral("first dashboard frame"))) {
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

namespace {

TEST(KelvoLaunch, ASecondLaunchHandsOverToTheRunningKelvoAndLeaves) {
    QTemporaryDir home;
    QProcess session;
    session.setProcessEnvironment(isolatedEnvironment(home));
    session.setWorkingDirectory(home.path());
    // Both launches share one private session bus.
    const QString script = QStringLiteral(
        "\"$0\" --harness-simulated-fans --report-first-frame 2>first.err & pid=$!\n"
        "for i in $(seq 150); do grep -q 'first dashboard frame' first.err && break; sleep 0.2; "
        "done\n"
        "\"$0\" --harness-simulated-fans; second=$?\n"
        "kill -INT $pid; wait $pid; echo \"second=$second first=$?\"\n");
    session.start(QStringLiteral("dbus-run-session"),
                  {QStringLiteral("--"), QStringLiteral("bash"), QStringLiteral("-c"), script,
                   QStringLiteral(KELVO_BIN)});
    ASSERT_TRUE(session.waitForFinished(90000));
    const QString out = QString::fromUtf8(session.readAllStandardOutput());
    EXPECT_TRUE(out.contains(QStringLiteral("kelvo: already running; its dashboard is shown")))
        << out.toStdString();
    EXPECT_TRUE(out.contains(QStringLiteral("second=0 first=0"))) << out.toStdString();
    EXPECT_EQ(out.count(QStringLiteral("fans released to automatic control")), 1)
        << "only the first launch ran a runtime";
}

}  // namespace

// The real `kelvo` binary's command line: --help and --version answer without a display, a
// mistyped flag is an error with the usage that starts nothing, and --mode starts Kelvo in that
// mode and keeps it as the choice. Every other program answers --help and --version too.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include "tests/e2e/KelvoProcess.h"

namespace {

struct Answer {
    int exitCode = -1;
    QString out;
    QString err;
};

// Runs a program to its end with no display at all, in a private home.
Answer runProgram(const QString& program, const QTemporaryDir& home, const QStringList& args) {
    QProcess kelvo;
    auto env = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        env.remove(QString::fromLatin1(name));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
    kelvo.setProcessEnvironment(env);
    kelvo.start(program, args);
    if (!kelvo.waitForFinished(20000)) {
        kelvo.kill();
        kelvo.waitForFinished(5000);
        return {};
    }
    return {kelvo.exitStatus() == QProcess::NormalExit ? kelvo.exitCode() : -1,
            QString::fromUtf8(kelvo.readAllStandardOutput()),
            QString::fromUtf8(kelvo.readAllStandardError())};
}

Answer runKelvo(const QTemporaryDir& home, const QStringList& args) {
    return runProgram(QStringLiteral(KELVO_BIN), home, args);
}

TEST(KelvoCommandLineE2E, HelpAndVersionAnswerWithoutADisplay) {
    QTemporaryDir home;
    const Answer help = runKelvo(home, {QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0) << help.err.toStdString();
    EXPECT_TRUE(help.out.startsWith(QStringLiteral("usage: kelvo"))) << help.out.toStdString();
    EXPECT_TRUE(help.out.contains(QStringLiteral("--mode MODE")));
    EXPECT_TRUE(help.err.isEmpty()) << help.err.toStdString();
    const Answer version = runKelvo(home, {QStringLiteral("--version")});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out.trimmed(), QStringLiteral("kelvo " KELVO_VERSION_STRING
                                                    " (build " KELVO_BUILD_NUMBER_STRING ")"));
    EXPECT_FALSE(QFile::exists(home.filePath(QStringLiteral("data/Kelvo"))))
        << "asking for help or the version starts nothing";
}

TEST(KelvoCommandLineE2E, AMistypedFlagIsAnErrorWithTheUsageAndStartsNothing) {
    QTemporaryDir home;
    for (const QStringList& args :
         {QStringList{QStringLiteral("--bogus")},
          QStringList{QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fan")},
          QStringList{QStringLiteral("--headless"), QStringLiteral("--mode"),
                      QStringLiteral("loud")}}) {
        const Answer answer = runKelvo(home, args);
        EXPECT_EQ(answer.exitCode, 2) << args.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(answer.err.startsWith(QStringLiteral("kelvo: "))) << answer.err.toStdString();
        EXPECT_TRUE(answer.err.contains(QStringLiteral("usage: kelvo")));
        EXPECT_TRUE(answer.out.isEmpty()) << answer.out.toStdString();
    }
    EXPECT_FALSE(QFile::exists(home.filePath(QStringLiteral("data/Kelvo"))))
        << "no runtime was started, so no database was made";
}

TEST(KelvoCommandLineE2E, ModeStartsKelvoInThatModeAndKeepsItAsTheChoice) {
    QTemporaryDir home;
    {
        KelvoProcess kelvo(home);
        kelvo.start({QStringLiteral("--headless"), QStringLiteral("--simulated-fans"),
                     QStringLiteral("--mode"), QStringLiteral("quiet")});
        ASSERT_TRUE(kelvo.waitForLine(QStringLiteral(" mode=quiet status="))) << kelvo.transcript();
        for (const QString& line : kelvo.lines)
            EXPECT_FALSE(line.contains(QStringLiteral(" mode=")) &&
                         !line.contains(QStringLiteral(" mode=quiet ")))
                << "every line is in the asked-for mode: " << line.toStdString();
        EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    }
    // The next launch without --mode keeps it, as a choice made in the window would be kept.
    KelvoProcess again(home);
    again.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(again.waitForLine(QStringLiteral(" mode=quiet status="))) << again.transcript();
    EXPECT_EQ(again.stopWith(SIGTERM), 0);
}

TEST(KelvoCommandLineE2E, EveryProgramAnswersHelpAndVersionAndRefusesAFlagItDoesNotKnow) {
    QTemporaryDir home;
    for (const auto& [program, name] :
         {std::pair{KELVOCTL_BIN, "kelvoctl"}, std::pair{KELVO_HELPERD_BIN, "kelvo-helperd"},
          std::pair{KELVO_SIMHW_BIN, "kelvo-simhw"}}) {
        const QString path = QString::fromLatin1(program);
        const Answer help = runProgram(path, home, {QStringLiteral("--help")});
        EXPECT_EQ(help.exitCode, 0) << name << ": " << help.err.toStdString();
        EXPECT_TRUE(help.out.startsWith(QStringLiteral("usage: ") + QString::fromLatin1(name)))
            << name << ": " << help.out.toStdString();
        const Answer version = runProgram(path, home, {QStringLiteral("--version")});
        EXPECT_EQ(version.exitCode, 0) << name;
        EXPECT_TRUE(version.out.contains(QStringLiteral(KELVO_VERSION_STRING)))
            << name << ": " << version.out.toStdString();
        const Answer bogus = runProgram(path, home, {QStringLiteral("--bogus")});
        EXPECT_EQ(bogus.exitCode, 2) << name;
        EXPECT_TRUE(bogus.err.contains(QStringLiteral("usage: "))) << name;
    }
}

// A machine with nothing under /sys/class/hwmon (a VM, a container): without a window the user
// reads why nothing happens on standard error, with what to try.
TEST(KelvoCommandLineE2E, AnEmptyMachineIsExplainedOnStandardError) {
    QTemporaryDir home;
    ASSERT_TRUE(QDir().mkpath(home.filePath(QStringLiteral("sys/class/hwmon"))));
    KelvoProcess kelvo(home);
    kelvo.process.setReadChannel(QProcess::StandardError);
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--sysfs-root"), home.path(),
                 QStringLiteral("--helper-socket"), home.filePath(QStringLiteral("none.sock"))});
    EXPECT_TRUE(kelvo.waitForLine(
        QStringLiteral("^kelvo: This machine shows Kelvo no temperature sensor and no fan .*"
                       "kelvo --simulated-fans\\.$"),
        60000))
        << kelvo.transcript();
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
}

}  // namespace

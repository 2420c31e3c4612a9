// kelvoctl never hands a terminal the control characters it was given: an escape sequence in a
// fan identity, a choice or a limit comes back written out (\x1b), not acted on.
#include <gtest/gtest.h>

#include <QProcess>
#include <QProcessEnvironment>
#include <QSettings>
#include <QTemporaryDir>

#include "tests/foundation/LinuxFakeSysfs.h"

using kelvo::test_support::FakeSysfs;

namespace {

struct Output {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

class KelvoctlTerminal : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(config.isValid());
        const std::string board = sys.addHwmon(2, "nct6798", "platform/nct6775.656");
        sys.write(board + "/fan1_input", "900\n");
    }
    Output run(QStringList args) {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), config.path());
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                   QStringLiteral("unix:path=/nonexistent/kelvo-test-bus"));
        process.setProcessEnvironment(env);
        args.prepend(QString::fromStdString(sys.root().string()));
        args.prepend(QStringLiteral("--sysfs-root"));
        process.start(QStringLiteral(KELVOCTL_BIN), args);
        EXPECT_TRUE(process.waitForFinished(30000));
        return {process.exitCode(), process.readAllStandardOutput(),
                process.readAllStandardError()};
    }
    QTemporaryDir config;
    FakeSysfs sys;
};

// No C0 control but tab and newline, no DEL, and no C1 control, raw or UTF-8 encoded.
bool terminalSafe(const QByteArray& text) {
    for (qsizetype i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte < 0x20 && byte != '\t' && byte != '\n') || byte == 0x7f) return false;
        if (byte == 0xc2 && i + 1 < text.size()) {
            const auto next = static_cast<unsigned char>(text[i + 1]);
            if (next >= 0x80 && next <= 0x9f) return false;
        }
    }
    return true;
}

const QString kClear = QStringLiteral("\x1b[2J");
const QString kFan1 = QStringLiteral("nct6798@/sys/devices/platform/nct6775.656#fan1");

TEST_F(KelvoctlTerminal, AnUnknownFanIsQuotedWithItsEscapesWrittenOut) {
    const Output r =
        run({QStringLiteral("fan"), QStringLiteral("evil") + kClear, QStringLiteral("auto")});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(terminalSafe(r.err)) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("unknown fan 'evil\\x1b[2J'")) << r.err.toStdString();
}

TEST_F(KelvoctlTerminal, AnUnknownChoiceIsQuotedWithItsEscapesWrittenOut) {
    const Output r = run({QStringLiteral("fan"), kFan1, QStringLiteral("fixed"),
                          QStringLiteral("5") + kClear + QStringLiteral("\x7f\u009b")});
    EXPECT_NE(r.exitCode, 0);
    EXPECT_TRUE(terminalSafe(r.err)) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("\\x1b[2J")) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains("\\x7f")) << r.err.toStdString();
}

TEST_F(KelvoctlTerminal, ModeCooldownLimitAndCommandWordsAreEscaped) {
    for (const QStringList& args :
         {QStringList{QStringLiteral("mode"), QStringLiteral("quiet") + kClear},
          QStringList{QStringLiteral("cooldown"), kClear},
          QStringList{QStringLiteral("limits"), kClear, QStringLiteral("80")},
          QStringList{QStringLiteral("helper"), kClear},
          QStringList{kClear, QStringLiteral("x")}}) {
        const Output r = run(args);
        EXPECT_NE(r.exitCode, 0) << args.join(QLatin1Char(' ')).toStdString();
        EXPECT_TRUE(terminalSafe(r.err)) << r.err.toStdString();
        EXPECT_TRUE(terminalSafe(r.out)) << r.out.toStdString();
        EXPECT_TRUE(r.err.contains("\\x1b[2J")) << r.err.toStdString();
    }
}

TEST_F(KelvoctlTerminal, AStoredIdentityIsListedWithItsEscapesWrittenOut) {
    // A fan named in the settings that hwmon does not show is listed as it is stored.
    const Output set = run({QStringLiteral("fan"), kFan1, QStringLiteral("auto")});
    ASSERT_EQ(set.exitCode, 0) << set.err.toStdString();
    {
        QSettings settings(config.filePath(QStringLiteral("Kelvo/Kelvo.conf")),
                           QSettings::IniFormat);
        const QString key = QStringLiteral("kelvo.fans.choices");
        QString stored = settings.value(key).toString();
        ASSERT_FALSE(stored.isEmpty());
        // JSON spells the controls out; the parsed identity holds them raw.
        stored.replace(QStringLiteral("nct6798@"), QStringLiteral("nct\\u001b]0;owned\\u0007@"));
        settings.setValue(key, stored);
    }
    const Output r = run({QStringLiteral("fans")});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(terminalSafe(r.out)) << r.out.toStdString();
}

}  // namespace

// A `kelvo` process for the end-to-end tests, with its own settings and data folders under a
// temporary home; killed when destroyed.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

// The environment of a program that uses the settings and data folders under `home` (kelvo, or
// a kelvoctl that talks to it).
inline QProcessEnvironment homeEnvironment(const QTemporaryDir& home) {
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
    return env;
}

class KelvoProcess {
public:
    explicit KelvoProcess(const QTemporaryDir& home) {
        process.setProcessEnvironment(homeEnvironment(home));
        process.setProcessChannelMode(QProcess::SeparateChannels);
    }
    ~KelvoProcess() {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    KelvoProcess(const KelvoProcess&) = delete;
    KelvoProcess& operator=(const KelvoProcess&) = delete;

    void start(const QStringList& args) {
        process.start(QStringLiteral(KELVO_BIN), args);
        ASSERT_TRUE(process.waitForStarted(10000));
    }
    // Waits for a stdout line matching `pattern`; lines seen so far are kept in `lines`.
    bool waitForLine(const QString& pattern, int timeoutMs = 20000) {
        QRegularExpression re(pattern);
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < timeoutMs) {
            while (process.canReadLine()) {
                QString line = QString::fromUtf8(process.readLine()).trimmed();
                lines << line;
                if (re.match(line).hasMatch()) return true;
            }
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
            process.waitForReadyRead(50);
        }
        return false;
    }
    // Sends `signal` and waits for the exit; the exit code, or -1 after a crash or a time-out.
    int stopWith(int signal) {
        ::kill(static_cast<pid_t>(process.processId()), signal);
        QElapsedTimer timer;
        timer.start();
        while (process.state() != QProcess::NotRunning && timer.elapsed() < 15000) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
            process.waitForFinished(50);
        }
        output += QString::fromUtf8(process.readAllStandardOutput());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    std::string transcript() const { return lines.join(QLatin1Char('\n')).toStdString(); }

    QProcess process;
    QStringList lines;
    QString output;
};

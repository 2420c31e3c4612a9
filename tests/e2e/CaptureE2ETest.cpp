// `kelvo --headless --capture` as a script uses it: SIGINT wraps the capture up and the last
// line of output is the bundle; a capture whose process was killed is resumed by the next one.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <csignal>
#include <functional>
#include <map>

#include "foundation/store/SQLiteStore.h"
#include "tests/ZipEntries.h"
#include "tests/e2e/LiveDatabase.h"

namespace {

class CaptureProcess {
public:
    explicit CaptureProcess(const QTemporaryDir& home) {
        auto env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("KELVO_REPO_ROOT"), home.filePath(QStringLiteral("repo")));
        process.setProcessEnvironment(env);
    }
    ~CaptureProcess() {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }
    void start(const QString& notes) {
        process.start(QStringLiteral(KELVO_BIN),
                      {QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans"),
                       QStringLiteral("--capture"), QStringLiteral("--capture-notes"), notes});
        ASSERT_TRUE(process.waitForStarted(10000));
    }
    // Waits until `count` card lines have been printed.
    bool waitForCardLines(int count, int timeoutMs = 30000) {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < timeoutMs) {
            stdoutText += QString::fromUtf8(process.readAllStandardOutput());
            if (stdoutText.count(QStringLiteral(" mode=")) >= count) return true;
            process.waitForReadyRead(100);
        }
        return false;
    }
    // Waits until `condition` holds, reading the output meanwhile.
    bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 30000) {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < timeoutMs) {
            stdoutText += QString::fromUtf8(process.readAllStandardOutput());
            stderrText += QString::fromUtf8(process.readAllStandardError());
            if (condition()) return true;
            process.waitForReadyRead(100);
        }
        return condition();
    }
    bool waitForStderr(const QString& text, int timeoutMs = 30000) {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < timeoutMs) {
            stderrText += QString::fromUtf8(process.readAllStandardError());
            stdoutText += QString::fromUtf8(process.readAllStandardOutput());
            if (stderrText.contains(text)) return true;
            process.waitForReadyRead(100);
        }
        return false;
    }
    int finish(int signal, int timeoutMs = 60000) {
        ::kill(static_cast<pid_t>(process.processId()), signal);
        process.waitForFinished(timeoutMs);
        stdoutText += QString::fromUtf8(process.readAllStandardOutput());
        stderrText += QString::fromUtf8(process.readAllStandardError());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    QString lastLine() const {
        const auto lines = stdoutText.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        return lines.isEmpty() ? QString() : lines.last();
    }
    QProcess process;
    QString stdoutText, stderrText;
};

// Samples the first run holds so far, read while kelvo writes them.
long long runSamples(const QTemporaryDir& home) {
    return queryNumber(home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")),
                       "SELECT COUNT(*) FROM run_samples WHERE run_id = 1");
}

// The bundle's entries by their path inside the capture folder.
std::map<std::string, std::string> bundleEntries(const QString& path) {
    std::map<std::string, std::string> entries;
    for (auto& [name, content] : kelvo::test::zipEntries(path.toLocal8Bit().toStdString()))
        entries[name.substr(name.find('/') + 1)] = std::move(content);
    return entries;
}

TEST(CaptureE2E, SigintWrapsTheCaptureUpAndPrintsTheBundleLast) {
    QTemporaryDir home;
    CaptureProcess kelvo(home);
    kelvo.start(QStringLiteral("scripted run"));
    ASSERT_TRUE(kelvo.waitForStderr(QStringLiteral("capture run 1 started")));
    // Card lines printed before the run started would say nothing about its samples: wait for
    // the samples themselves.
    ASSERT_TRUE(kelvo.waitUntil([&] { return runSamples(home) >= 2; }));
    EXPECT_EQ(kelvo.finish(SIGINT), 0) << kelvo.stderrText.toStdString();
    const QString bundle = kelvo.lastLine();
    EXPECT_TRUE(bundle.endsWith(QStringLiteral(".kelvocapture"))) << bundle.toStdString();
    EXPECT_TRUE(bundle.startsWith(home.filePath(QStringLiteral("repo/Docs/profiles/"))));
    ASSERT_TRUE(QFileInfo::exists(bundle));
    const auto entries = bundleEntries(bundle);
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_NE(entries.at("run.json").find("\"notes\": \"scripted run\""), std::string::npos);
    EXPECT_GE(std::count(entries.at("samples.csv").begin(), entries.at("samples.csv").end(), '\n'),
              3);
    EXPECT_TRUE(kelvo.stderrText.contains(
        QStringLiteral("Capture stopped. Export packaged and revealed in the file manager.")));
}

TEST(CaptureE2E, ACaptureKilledMidwayIsResumedAndExportedByTheNextLaunch) {
    QTemporaryDir home;
    {
        CaptureProcess first(home);
        first.start(QStringLiteral("killed"));
        ASSERT_TRUE(first.waitForStderr(QStringLiteral("capture run 1 started")));
        ASSERT_TRUE(first.waitUntil([&] { return runSamples(home) >= 3; }));
        first.finish(SIGKILL);
    }
    std::size_t recordedBeforeKill = 0;
    {
        kelvo::SQLiteStore store(
            home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")).toStdString());
        ASSERT_TRUE(store.activeRun().has_value());
        recordedBeforeKill = store.runSamples(1).size();
    }
    ASSERT_GE(recordedBeforeKill, 1u);
    CaptureProcess second(home);
    second.start(QStringLiteral("second run"));
    ASSERT_TRUE(second.waitForStderr(QStringLiteral("capture run 1 resumed")))
        << second.stderrText.toStdString();
    // The resumed run records again; one card line later its resumption has been published too,
    // so the signal finds a running capture.
    ASSERT_TRUE(second.waitUntil(
        [&] { return runSamples(home) > static_cast<long long>(recordedBeforeKill); }));
    const int cards = static_cast<int>(second.stdoutText.count(QStringLiteral(" mode=")));
    ASSERT_TRUE(second.waitForCardLines(cards + 1));
    EXPECT_EQ(second.finish(SIGINT), 0) << second.stderrText.toStdString();
    const auto entries = bundleEntries(second.lastLine());
    ASSERT_EQ(entries.size(), 4u);
    const auto& json = entries.at("run.json");
    EXPECT_NE(json.find("\"id\": 1,"), std::string::npos);
    // The notes of both launches, the first ones kept.
    EXPECT_NE(json.find("\"notes\": \"killed\\nsecond run\""), std::string::npos) << json;
    // Samples from both processes: everything recorded before the kill, and more after it.
    const auto& csv = entries.at("samples.csv");
    const auto rows = static_cast<std::size_t>(std::count(csv.begin(), csv.end(), '\n')) - 1;
    EXPECT_GT(rows, recordedBeforeKill);
}

}  // namespace

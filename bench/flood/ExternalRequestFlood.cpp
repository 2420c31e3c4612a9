// kelvo_external_flood: what a flood of external mode requests costs a running Kelvo. Starts
// `kelvo --headless --harness-simulated-fans --allow-external-control` on the session bus (run
// it under dbus-run-session), sends N SetMode signals as fast as the bus takes them, alternating
// two modes, then one genuine request, and prints Kelvo's CPU time and resident memory before
// and after, and how long the genuine request took to show on Kelvo's status line.
//
//   dbus-run-session -- kelvo_external_flood [--requests N]
//
// With --fan-settings N it sends N FanSettingsChanged signals instead (the signal needs no
// --allow-external-control) and prints the events that stored, how much the database grew,
// Kelvo's resident memory before and after and its peak, its CPU time, and the longest gap
// between its once-a-second status lines from the flood's start to 20 s after it.
//
//   dbus-run-session -- kelvo_external_flood --fan-settings 50000
#include <unistd.h>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>

namespace {

double cpuSeconds(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly)) return -1;
    const QByteArray text = stat.readAll();
    // Fields after the command name, which ends at the last ')'.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13) return -1;
    return (fields[11].toDouble() + fields[12].toDouble()) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

long residentKiB(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

long peakResidentKiB(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:")) return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

// The database with its write-ahead log: what the events cost on disk.
qint64 databaseBytes(const QString& path) {
    qint64 total = 0;
    for (const QString& suffix : {QString(), QStringLiteral("-wal")})
        total += QFileInfo(path + suffix).exists() ? QFileInfo(path + suffix).size() : 0;
    return total;
}

// Rows of the events table whose message holds `text`, through the sqlite3 shell; -1 without it.
long storedEvents(const QString& path, const QString& text) {
    QProcess sqlite;
    sqlite.start(
        QStringLiteral("sqlite3"),
        {QStringLiteral("-readonly"), path,
         QStringLiteral("SELECT COUNT(*) FROM events WHERE message LIKE '%%1%';").arg(text)});
    if (!sqlite.waitForFinished(30000) || sqlite.exitCode() != 0) return -1;
    return sqlite.readAllStandardOutput().trimmed().toLong();
}

bool sendFanSettingsChanged() {
    auto message = QDBusMessage::createSignal(QStringLiteral("/org/kelvo/ExternalControl"),
                                              QStringLiteral("org.kelvo.ExternalControl"),
                                              QStringLiteral("FanSettingsChanged"));
    return QDBusConnection::sessionBus().send(message);
}

// Status lines as they arrive, for the longest gap between two of them.
struct StatusGaps {
    QElapsedTimer clock;
    qint64 last = 0;  // the flood's start counts as a line: silence from then on is a gap
    qint64 longest = 0;
    long lines = 0;
    void read(QProcess& kelvo) {
        while (kelvo.canReadLine()) {
            if (!kelvo.readLine().contains("status=")) continue;
            note(clock.elapsed());
            ++lines;
        }
    }
    void note(qint64 now) {
        longest = std::max(longest, now - last);
        last = now;
    }
};

int fanSettingsFlood(QProcess& kelvo, const QString& database, int count) {
    const qint64 pid = kelvo.processId();
    const QString text = QStringLiteral("re-read from the settings");
    const long eventsBefore = storedEvents(database, text);
    const qint64 bytesBefore = databaseBytes(database);
    const double cpuBefore = cpuSeconds(pid);
    const long rssBefore = residentKiB(pid);
    StatusGaps gaps;
    gaps.clock.start();
    for (int i = 0; i < count; ++i) {
        sendFanSettingsChanged();
        if (i % 500 == 0) {
            QDBusConnection::sessionBus().interface();  // let the bus drain what is queued
            kelvo.waitForReadyRead(0);
            gaps.read(kelvo);
        }
    }
    QDBusConnection::sessionBus().interface();
    const double sendSeconds = gaps.clock.elapsed() / 1000.0;
    QElapsedTimer after;
    after.start();
    while (after.elapsed() < 20000) {
        kelvo.waitForReadyRead(20);
        gaps.read(kelvo);
    }
    gaps.note(gaps.clock.elapsed());  // a silence still going on at the end counts too
    const double span = gaps.clock.elapsed() / 1000.0;
    const double cpu = cpuSeconds(pid) - cpuBefore;
    std::printf("flood: %d FanSettingsChanged signals sent in %.2f s\n", count, sendSeconds);
    std::printf("events stored for them: %ld\n", storedEvents(database, text) - eventsBefore);
    std::printf("database growth: %lld bytes\n",
                static_cast<long long>(databaseBytes(database) - bytesBefore));
    std::printf("kelvo resident memory: %ld KiB before, %ld KiB after, peak %ld KiB\n", rssBefore,
                residentKiB(pid), peakResidentKiB(pid));
    std::printf("kelvo CPU over the %.1f s from the flood's start: %.2f s\n", span, cpu);
    std::printf("longest gap between status lines: %.2f s (%ld status lines in %.1f s)\n",
                gaps.longest / 1000.0, gaps.lines, span);
    kelvo.terminate();
    kelvo.waitForFinished(15000);
    return 0;
}

bool sendMode(const QString& mode) {
    auto message = QDBusMessage::createSignal(QStringLiteral("/org/kelvo/ExternalControl"),
                                              QStringLiteral("org.kelvo.ExternalControl"),
                                              QStringLiteral("SetMode"));
    message.setArguments({QVariantMap{{QStringLiteral("mode"), mode}}});
    return QDBusConnection::sessionBus().send(message);
}

// Reads Kelvo's status lines until one holds `text`; false after `timeoutMs`.
bool waitForLine(QProcess& kelvo, const QByteArray& text, int timeoutMs) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        while (kelvo.canReadLine())
            if (kelvo.readLine().contains(text)) return true;
        kelvo.waitForReadyRead(20);
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const qsizetype at = arguments.indexOf(QStringLiteral("--requests"));
    const int requests = at >= 0 && at + 1 < arguments.size() ? arguments[at + 1].toInt() : 10000;
    const qsizetype fanAt = arguments.indexOf(QStringLiteral("--fan-settings"));
    const int fanSettings =
        fanAt >= 0 && fanAt + 1 < arguments.size() ? arguments[fanAt + 1].toInt() : 0;
    if (!QDBusConnection::sessionBus().isConnected()) {
        std::fprintf(stderr, "kelvo_external_flood: no session bus (use dbus-run-session)\n");
        return 2;
    }
    QTemporaryDir home;
    QProcess kelvo;
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
    kelvo.setProcessEnvironment(env);
    kelvo.start(QStringLiteral(KELVO_BIN),
                {QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans"),
                 QStringLiteral("--allow-external-control")});
    if (!kelvo.waitForStarted(10000) || !waitForLine(kelvo, "status=monitoring", 30000)) {
        std::fprintf(stderr, "kelvo_external_flood: kelvo did not start\n");
        return 1;
    }
    if (fanSettings > 0)
        return fanSettingsFlood(kelvo, home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite")),
                                fanSettings);
    const qint64 pid = kelvo.processId();
    const double cpuBefore = cpuSeconds(pid);
    const long rssBefore = residentKiB(pid);
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < requests; ++i)
        sendMode(i % 2 ? QStringLiteral("quiet") : QStringLiteral("performance"));
    QDBusConnection::sessionBus().interface();  // flush what is queued
    const double sendSeconds = clock.elapsed() / 1000.0;
    QElapsedTimer genuine;
    genuine.start();
    sendMode(QStringLiteral("quietHybrid"));
    const bool applied = waitForLine(kelvo, "mode=quietHybrid", 120000);
    const double delay = genuine.elapsed() / 1000.0;
    // Let anything still queued run out, then read the cost.
    waitForLine(kelvo, "never printed", 3000);
    const double cpuAfter = cpuSeconds(pid);
    const long rssAfter = residentKiB(pid);
    const double span = clock.elapsed() / 1000.0;
    std::printf("flood: %d SetMode signals sent in %.2f s\n", requests, sendSeconds);
    std::printf(
        "genuine request after the flood: %s after %.3f s (shown on the next status line, "
        "at most one 1 s tick)\n",
        applied ? "applied" : "NOT applied", delay);
    std::printf("kelvo CPU over the %.1f s from the flood's start: %.2f s (%.1f %% of one core)\n",
                span, cpuAfter - cpuBefore, 100 * (cpuAfter - cpuBefore) / span);
    std::printf("kelvo resident memory: %ld KiB before, %ld KiB after\n", rssBefore, rssAfter);
    kelvo.terminate();
    kelvo.waitForFinished(15000);
    return applied ? 0 : 1;
}

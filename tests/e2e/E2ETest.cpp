// End-to-end checks of the real binaries on a private session bus (run under dbus-run-session).
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>
#include <csignal>

#include "foundation/store/SQLiteStore.h"
#include "tests/EventLoopWait.h"
#include "tests/e2e/KelvoProcess.h"
#include "tests/e2e/LiveDatabase.h"
#include "tests/foundation/LinuxFakeSysfs.h"

namespace {

// Stands in for the desktop's notification service and records what Kelvo posts.
class FakeNotifications : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
public:
    QStringList titles;
    QStringList bodies;
    int capabilityRequests = 0;
public slots:
    QStringList GetCapabilities() {
        ++capabilityRequests;
        return {QStringLiteral("body")};
    }
    uint Notify(const QString&, uint, const QString&, const QString& summary, const QString& body,
                const QStringList&, const QVariantMap&, int) {
        titles << summary;
        bodies << body;
        return static_cast<uint>(titles.size());
    }
};

struct CtlResult {
    int exitCode;
    QString stderrText;
    QString stdoutText;
};

CtlResult kelvoctl(const QStringList& args) {
    QProcess ctl;
    ctl.start(QStringLiteral(KELVOCTL_BIN), args);
    ctl.waitForFinished(10000);
    return {ctl.exitCode(), QString::fromUtf8(ctl.readAllStandardError()),
            QString::fromUtf8(ctl.readAllStandardOutput())};
}

QString databasePath(const QTemporaryDir& home) {
    return home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite"));
}

std::vector<std::string> eventMessages(const QTemporaryDir& home) {
    kelvo::SQLiteStore store(databasePath(home).toStdString());
    std::vector<std::string> messages;
    for (const auto& e : store.recentEvents(1000)) messages.push_back(e.message);
    return messages;
}

int countContaining(const std::vector<std::string>& messages, const std::string& text) {
    int n = 0;
    for (const auto& m : messages)
        if (m.find(text) != std::string::npos) ++n;
    return n;
}

using kelvo::testing::processFor;
using kelvo::testing::waitFor;

// Deadlines for what must happen: they only matter when it never does.
constexpr int kDeadlineMs = 20000;

void sendSignal(const char* member, const QVariantList& arguments) {
    auto message = QDBusMessage::createSignal(QStringLiteral("/org/kelvo/ExternalControl"),
                                              QStringLiteral("org.kelvo.ExternalControl"),
                                              QString::fromLatin1(member));
    message.setArguments(arguments);
    ASSERT_TRUE(QDBusConnection::sessionBus().send(message));
}

// A headless kelvo on the simulated machine that takes requests from other processes, once its
// first status line is out.
void startAcceptingExternalControl(KelvoProcess& kelvo) {
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans"),
                 QStringLiteral("--allow-external-control")});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("status=monitoring")));
}

// The control mode kelvo saved in its settings.
QString savedMode(const QTemporaryDir& home) {
    QSettings settings(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                       QSettings::IniFormat);
    return settings.value(QStringLiteral("kelvo.control.mode")).toString();
}

}  // namespace

TEST(Headless, PrintsLiveLinesAndStopsCleanlyOnSigterm) {
    QTemporaryDir home;
    KelvoProcess kelvo(home);
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(
        kelvo.waitForLine(QStringLiteral("mode=systemAuto status=monitoring cpu=\\d+\\.\\dC")));
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("fans=\\d+,\\d+rpm warning=(no|yes)")));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    EXPECT_TRUE(kelvo.output.contains(QStringLiteral("fans released")));
    EXPECT_TRUE(QFile::exists(databasePath(home)));
    auto messages = eventMessages(home);
    EXPECT_EQ(countContaining(messages, "Startup build identity: app "), 1);
    EXPECT_EQ(countContaining(messages, "External mode control disabled for this launch"), 1);
}

// The failures a server user must know about reach standard error as they happen: here a
// settings file that cannot be read and a database that cannot be opened, then moved aside.
TEST(Headless, EveryFailureEventIsALineOnStandardError) {
    QTemporaryDir home;
    QDir().mkpath(home.filePath(QStringLiteral("config/Kelvo")));
    QDir().mkpath(home.filePath(QStringLiteral("data/Kelvo")));
    {
        QFile settings(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")));
        ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
        settings.write("[General]\nkelvo.control.mode=quiet\n");
    }
    // Unreadable for a root test run too: a folder where the file should be.
    ASSERT_TRUE(QFile::remove(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf"))));
    ASSERT_TRUE(QDir().mkpath(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf"))));
    {
        QFile database(databasePath(home));
        ASSERT_TRUE(database.open(QIODevice::WriteOnly));
        database.write(QByteArray(8192, 'x'));  // not a database at all
    }
    KelvoProcess kelvo(home);
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=systemAuto status=monitoring")));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    const QString errors = QString::fromUtf8(kelvo.process.readAllStandardError());
    const QStringList failures =
        errors.split(QLatin1Char('\n')).filter(QStringLiteral("kelvo: failure: "));
    EXPECT_EQ(failures.filter(QStringLiteral("could not be read")).size(), 1)
        << errors.toStdString();
    EXPECT_EQ(failures.filter(QStringLiteral("moved aside")).size(), 1) << errors.toStdString();
    for (const QString& line : failures)
        EXPECT_TRUE(line.startsWith(QStringLiteral("kelvo: failure: ")));
}

TEST(Headless, SigintReleasesFansThatKelvoHeld) {
    QTemporaryDir home;
    {
        QSettings settings(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("quiet"));
    }
    KelvoProcess kelvo(home);
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=quiet status=controlling")));
    EXPECT_EQ(kelvo.stopWith(SIGINT), 0);
    auto messages = eventMessages(home);
    EXPECT_GE(
        countContaining(messages, "Fans released to automatic control (control loop stopped)"), 1);
}

TEST(ExternalControl, KelvoctlSwitchesModeAndCooldownWhenAllowed) {
    QTemporaryDir home;
    KelvoProcess kelvo(home);
    ASSERT_NO_FATAL_FAILURE(startAcceptingExternalControl(kelvo));
    const CtlResult switched = kelvoctl({QStringLiteral("mode"), QStringLiteral("quiet")});
    EXPECT_EQ(switched.exitCode, 0) << switched.stderrText.toStdString();
    EXPECT_EQ(switched.stdoutText, QStringLiteral("kelvoctl: Kelvo switched to Quiet.\n"));
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=quiet status=controlling")));
    const CtlResult again = kelvoctl({QStringLiteral("mode"), QStringLiteral("quiet")});
    EXPECT_EQ(again.exitCode, 0) << again.stderrText.toStdString();
    EXPECT_EQ(again.stdoutText, QStringLiteral("kelvoctl: Kelvo was already in Quiet.\n"));
    EXPECT_EQ(kelvoctl({QStringLiteral("cooldown"), QStringLiteral("on")}).exitCode, 0);
    // The request is a signal on the bus: wait until the loop has recorded the cooldown.
    EXPECT_TRUE(waitFor(
        [&] {
            return queryNumber(databasePath(home),
                               "SELECT COUNT(*) FROM events "
                               "WHERE message LIKE 'Cooldown started%'") > 0;
        },
        kDeadlineMs));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    EXPECT_EQ(savedMode(home), QStringLiteral("quiet"));
    auto messages = eventMessages(home);
    EXPECT_EQ(countContaining(messages, "External mode control enabled for this launch"), 1);
    EXPECT_EQ(countContaining(messages, "Control mode changed to Quiet"), 1);
    EXPECT_EQ(countContaining(messages, "Cooldown started"), 1);
}

// A flood of requests costs a handful of applications, not one each: the newest wins, and the
// genuine request after the flood is the one that stays.
TEST(ExternalControl, AFloodOfRequestsIsCoalescedAndTheLastOneWins) {
    QTemporaryDir home;
    KelvoProcess kelvo(home);
    ASSERT_NO_FATAL_FAILURE(startAcceptingExternalControl(kelvo));
    constexpr int kFlood = 10000;
    for (int i = 0; i < kFlood; ++i) {
        const QString mode = i % 2 ? QStringLiteral("quiet") : QStringLiteral("performance");
        sendSignal("SetMode", {QVariantMap{{QStringLiteral("mode"), mode}}});
    }
    sendSignal("SetMode", {QVariantMap{{QStringLiteral("mode"), QStringLiteral("quietHybrid")}}});
    ASSERT_TRUE(
        kelvo.waitForLine(QStringLiteral("mode=quietHybrid status=controlling"), kDeadlineMs));
    // Nothing of the flood is still queued behind it.
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=quietHybrid")));
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=quietHybrid")));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    EXPECT_EQ(savedMode(home), QStringLiteral("quietHybrid"));
    const int changes = countContaining(eventMessages(home), "Control mode changed");
    EXPECT_GE(changes, 1);
    // One application per coalescing window at most: however slowly the flood went out, a
    // twentieth of its requests is far more windows than it spans.
    EXPECT_LE(changes, kFlood / 20)
        << changes << " mode changes recorded for " << kFlood << " requests";
}

// Accepted without --allow-external-control: it only makes Kelvo re-read its own settings.
TEST(ExternalControl, KelvoctlFanChoicesReachARunningKelvo) {
    QTemporaryDir home;
    kelvo::test_support::FakeSysfs sys;
    const std::string board = sys.addHwmon(1, "nct6798", "platform/nct6775.656");
    sys.write(board + "/fan1_input", "900\n");
    const QString root = QString::fromStdString(sys.root().string());
    KelvoProcess kelvo(home);
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans"),
                 QStringLiteral("--sysfs-root"), root});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("status=monitoring")));
    QProcess ctl;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
    ctl.setProcessEnvironment(env);
    ctl.start(QStringLiteral(KELVOCTL_BIN),
              {QStringLiteral("--sysfs-root"), root, QStringLiteral("fan"),
               QStringLiteral("nct6798@/sys/devices/platform/nct6775.656#fan1"),
               QStringLiteral("firmware")});
    ASSERT_TRUE(ctl.waitForFinished(10000));
    ASSERT_EQ(ctl.exitCode(), 0) << ctl.readAllStandardError().toStdString();
    EXPECT_TRUE(waitFor(
        [&] {
            return queryNumber(databasePath(home),
                               "SELECT COUNT(*) FROM events "
                               "WHERE message LIKE 'Fan choices and limits re-read%'") > 0;
        },
        kDeadlineMs));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
}

TEST(ExternalControl, KelvoctlSaysSoWhenNoKelvoAnswers) {
    const CtlResult unanswered = kelvoctl({QStringLiteral("mode"), QStringLiteral("quiet")});
    EXPECT_EQ(unanswered.exitCode, 1);
    EXPECT_TRUE(unanswered.stderrText.contains(QStringLiteral("no Kelvo answered")))
        << unanswered.stderrText.toStdString();
}

TEST(ExternalControl, RequestsAreIgnoredWithoutTheLaunchFlag) {
    QTemporaryDir home;
    KelvoProcess kelvo(home);
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--harness-simulated-fans")});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("status=monitoring")));
    // kelvoctl waits for Kelvo's answer and says why nothing happened.
    for (const QStringList& request :
         {QStringList{QStringLiteral("mode"), QStringLiteral("performance")},
          QStringList{QStringLiteral("cooldown"), QStringLiteral("on")}}) {
        const CtlResult refused = kelvoctl(request);
        EXPECT_EQ(refused.exitCode, 1) << refused.stderrText.toStdString();
        EXPECT_TRUE(refused.stderrText.contains(QStringLiteral("--allow-external-control")))
            << refused.stderrText.toStdString();
    }
    processFor(2500);
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=systemAuto status=monitoring")));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    auto messages = eventMessages(home);
    EXPECT_EQ(countContaining(messages, "Control mode changed"), 0);
    EXPECT_EQ(countContaining(messages, "Cooldown started"), 0);
}

TEST(ExternalControl, MalformedPayloadsAreDroppedWithoutEffect) {
    QTemporaryDir home;
    KelvoProcess kelvo(home);
    ASSERT_NO_FATAL_FAILURE(startAcceptingExternalControl(kelvo));
    const QString huge(200000, QLatin1Char('q'));
    sendSignal("SetMode", {QVariantMap{{QStringLiteral("mode"), 5}}});
    sendSignal("SetMode", {QVariantMap{{QStringLiteral("mode"), QStringLiteral("banana")}}});
    sendSignal("SetMode", {QVariantMap{{QStringLiteral("mode"), huge}}});
    sendSignal("SetMode", {QVariantMap{{QStringLiteral("mood"), QStringLiteral("quiet")}}});
    sendSignal("SetMode", {QVariantMap{}});
    sendSignal("SetMode", {QStringLiteral("quiet")});
    sendSignal("SetMode", {QVariantMap{{QStringLiteral("mode"), QStringLiteral("quiet")}}, 1});
    sendSignal("SetMode",
               {QVariantMap{{QStringLiteral("mode"),
                             QVariant::fromValue(QStringList{QStringLiteral("quiet")})}}});
    sendSignal("SetCooldown", {QVariantMap{{QStringLiteral("enabled"), QStringLiteral("maybe")}}});
    sendSignal("SetCooldown", {QVariantMap{{QStringLiteral("enabled"), 7}}});
    sendSignal("SetCooldown", {huge});
    // Then one good request: only it may have an effect.
    sendSignal("SetMode", {QVariantMap{{QStringLiteral("mode"), QStringLiteral("performance")}}});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=performance status=controlling")));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    auto messages = eventMessages(home);
    EXPECT_EQ(countContaining(messages, "Control mode changed"), 1);
    EXPECT_EQ(countContaining(messages, "Control mode changed to Performance"), 1);
    EXPECT_EQ(countContaining(messages, "Cooldown"), 0);
}

TEST(Kelvoctl, UnknownModeWordFailsWithTheListOfModes) {
    auto result = kelvoctl({QStringLiteral("mode"), QStringLiteral("turbo")});
    EXPECT_NE(result.exitCode, 0);
    EXPECT_EQ(result.stderrText.count(QLatin1Char('\n')), 1);
    for (const char* mode : {"systemAuto", "quiet", "quietHybrid", "performance"})
        EXPECT_TRUE(result.stderrText.contains(QLatin1String(mode))) << mode;
    EXPECT_NE(kelvoctl({QStringLiteral("cooldown"), QStringLiteral("maybe")}).exitCode, 0);
    EXPECT_NE(kelvoctl({QStringLiteral("mode")}).exitCode, 0);
}

TEST(Alerts, HelperlessDefaultLaunchFallsBackAndNotifiesOnce) {
    FakeNotifications notifications;
    auto bus = QDBusConnection::sessionBus();
    ASSERT_TRUE(bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &notifications,
                                   QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(bus.registerService(QStringLiteral("org.freedesktop.Notifications")));

    QTemporaryDir home;
    {
        QSettings settings(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("kelvo.control.mode"), QStringLiteral("quiet"));
    }
    // A machine with a CPU temperature, so that the helper is what is missing, whatever sensors
    // the machine running the test has.
    kelvo::test_support::FakeSysfs sys;
    const std::string coretemp = sys.addHwmon(0, "coretemp", "platform/coretemp.0");
    sys.write(coretemp + "/temp1_label", "Package id 0\n");
    sys.write(coretemp + "/temp1_input", "55000\n");
    sys.write("proc/stat", "cpu  100 0 100 1000 0 0 0 0 0 0\n");
    KelvoProcess kelvo(home);
    // Default back-end: the helper, which does not run here, and no local fallback.
    kelvo.start({QStringLiteral("--headless"), QStringLiteral("--sysfs-root"),
                 QString::fromStdString(sys.root().string())});
    ASSERT_TRUE(kelvo.waitForLine(QStringLiteral("mode=quiet status=fallback")));
    EXPECT_TRUE(waitFor(
        [&] { return notifications.titles.contains(QStringLiteral("Kelvo fallback mode")); },
        kDeadlineMs));
    // Two more card updates in fallback, each a chance to notify again: once is enough.
    EXPECT_TRUE(kelvo.waitForLine(QStringLiteral("mode=quiet status=fallback")));
    EXPECT_TRUE(kelvo.waitForLine(QStringLiteral("mode=quiet status=fallback")));
    EXPECT_EQ(kelvo.stopWith(SIGTERM), 0);
    bus.unregisterService(QStringLiteral("org.freedesktop.Notifications"));
    bus.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));

    EXPECT_EQ(notifications.capabilityRequests, 1);
    ASSERT_EQ(notifications.titles.count(QStringLiteral("Kelvo fallback mode")), 1);
    const auto index = notifications.titles.indexOf(QStringLiteral("Kelvo fallback mode"));
    EXPECT_EQ(notifications.bodies[index],
              QStringLiteral("Fan control released to system auto: helper unavailable"));
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "E2ETest.moc"

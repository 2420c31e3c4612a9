// Only logind's owner can announce a sleep to Kelvo: a PrepareForSleep forged by another peer,
// sent to Kelvo's own connection (which the bus does not filter) or to everyone, hands no fan
// to the firmware. A private dbus-daemon stands in for the system bus.
#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QProcess>
#include <QTemporaryDir>
#include <vector>

#include "app/SleepWatcher.h"
#include "tests/EventLoopWait.h"

using namespace kelvo;
using kelvo::testing::processFor;
using kelvo::testing::waitFor;

namespace {

const QString kPath = QStringLiteral("/org/freedesktop/login1");
const QString kInterface = QStringLiteral("org.freedesktop.login1.Manager");

QDBusMessage prepareForSleep(const QString& to, bool sleeping) {
    QDBusMessage message =
        to.isEmpty()
            ? QDBusMessage::createSignal(kPath, kInterface, QStringLiteral("PrepareForSleep"))
            : QDBusMessage::createTargetedSignal(to, kPath, kInterface,
                                                 QStringLiteral("PrepareForSleep"));
    message << sleeping;
    return message;
}

}  // namespace

TEST(SleepSender, APrepareForSleepFromAnyoneButLogindsOwnerIsIgnored) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString address = QStringLiteral("unix:path=") + dir.filePath(QStringLiteral("bus"));
    QProcess daemon;
    daemon.start(QStringLiteral("dbus-daemon"),
                 {QStringLiteral("--session"), QStringLiteral("--nofork"),
                  QStringLiteral("--nopidfile"), QStringLiteral("--address=") + address});
    if (!daemon.waitForStarted(10000)) GTEST_SKIP() << "dbus-daemon cannot be started here";
    const auto connect = [&](const QString& name) {
        QDBusConnection bus = QDBusConnection::connectToBus(address, name);
        if (!bus.isConnected()) QDBusConnection::disconnectFromBus(name);
        return bus;
    };
    ASSERT_TRUE(waitFor([&] { return connect(QStringLiteral("logind")).isConnected(); }, 15000));
    QDBusConnection logind = connect(QStringLiteral("logind"));
    QDBusConnection kelvo = connect(QStringLiteral("kelvo"));
    QDBusConnection forger = connect(QStringLiteral("forger"));
    ASSERT_TRUE(kelvo.isConnected() && forger.isConnected());
    ASSERT_TRUE(logind.registerService(QStringLiteral("org.freedesktop.login1")));

    std::vector<bool> changes;
    SleepWatcher::Callbacks callbacks;
    callbacks.changed = [&changes](bool sleeping) { changes.push_back(sleeping); };
    SleepWatcher watcher(callbacks);
    watcher.subscribe(kelvo);

    // Forged, addressed to Kelvo alone and to everyone.
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(forger.send(prepareForSleep(kelvo.baseService(), true)));
        ASSERT_TRUE(forger.send(prepareForSleep(QString(), true)));
    }
    processFor(1500);
    EXPECT_TRUE(changes.empty()) << "a forged signal was obeyed";
    EXPECT_FALSE(watcher.sleeping());

    // logind's own is obeyed, broadcast or addressed.
    ASSERT_TRUE(logind.send(prepareForSleep(QString(), true)));
    EXPECT_TRUE(waitFor([&] { return changes == std::vector<bool>{true}; }, 15000));
    // A forged wake does not end the sleep either.
    ASSERT_TRUE(forger.send(prepareForSleep(kelvo.baseService(), false)));
    processFor(1500);
    EXPECT_EQ(changes, std::vector<bool>{true});
    ASSERT_TRUE(logind.send(prepareForSleep(kelvo.baseService(), false)));
    EXPECT_TRUE(waitFor([&] { return changes == std::vector<bool>{true, false}; }, 15000));

    QDBusConnection::disconnectFromBus(QStringLiteral("logind"));
    QDBusConnection::disconnectFromBus(QStringLiteral("kelvo"));
    QDBusConnection::disconnectFromBus(QStringLiteral("forger"));
    daemon.terminate();
    daemon.waitForFinished(10000);
}

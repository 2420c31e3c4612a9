// kelvoctl fan ID calibrate against a stand-in for Kelvo on a private session bus: the request
// travels through the settings and FanSettingsChanged, the answer through Kelvo's event table.
#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDir>
#include <QObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <functional>
#include <memory>

#include "app_common/FanSettings.h"
#include "foundation/core/ExternalControl.h"
#include "foundation/store/SQLiteStore.h"
#include "tests/foundation/LinuxFakeSysfs.h"

using namespace kelvo;
using kelvo::test_support::FakeSysfs;

namespace {

const QString kFan1 = QStringLiteral("nct6798@/sys/devices/platform/nct6775.656#fan1");

// What Kelvo does on FanSettingsChanged, reduced to a callback.
class SettingsListener : public QObject {
    Q_OBJECT
public:
    std::function<void()> onChanged;
public slots:
    void changed() {
        if (onChanged) onChanged();
    }
};

class KelvoctlCalibrate : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home.isValid());
        const std::string board = sys.addHwmon(2, "nct6798", "platform/nct6775.656");
        sys.write(board + "/fan1_input", "900\n");
        QDir().mkpath(home.filePath(QStringLiteral("data/Kelvo")));
    }
    void TearDown() override {
        if (bus.state() != QProcess::NotRunning) {
            bus.terminate();
            bus.waitForFinished(5000);
        }
        if (!busName.isEmpty()) QDBusConnection::disconnectFromBus(busName);
    }
    QString databasePath() const {
        return home.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite"));
    }
    // A private dbus-daemon; the address it listens on.
    QString startBus() {
        bus.start(QStringLiteral("dbus-daemon"),
                  {QStringLiteral("--session"), QStringLiteral("--nofork"),
                   QStringLiteral("--nopidfile"), QStringLiteral("--print-address=1"),
                   QStringLiteral("--address=unix:path=") + home.filePath(QStringLiteral("bus"))});
        if (!bus.waitForStarted(10000)) return {};
        if (!QTest::qWaitFor([&] { return bus.canReadLine(); }, 10000)) return {};
        return QString::fromUtf8(bus.readLine()).trimmed();
    }
    // Listens for FanSettingsChanged on the bus as Kelvo does.
    bool listen(const QString& address) {
        busName = QStringLiteral("kelvoctl-calibrate-test");
        QDBusConnection connection = QDBusConnection::connectToBus(address, busName);
        if (!connection.isConnected()) return false;
        return connection.connect(
            QString(), ExternalControl::objectPath, ExternalControl::interfaceName,
            ExternalControl::fanSettingsChangedNotificationName, &listener, SLOT(changed()));
    }
    QProcessEnvironment environment(const QString& busAddress) const {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral("config")));
        env.insert(QStringLiteral("XDG_DATA_HOME"), home.filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress);
        return env;
    }
    struct Result {
        int exitCode = -1;
        QString out;
        QString err;
    };
    // Runs kelvoctl while this process's event loop answers for Kelvo.
    Result run(const QString& busAddress, QStringList args) {
        QProcess process;
        process.setProcessEnvironment(environment(busAddress));
        args.prepend(QString::fromStdString(sys.root().string()));
        args.prepend(QStringLiteral("--sysfs-root"));
        process.start(QStringLiteral(KELVOCTL_BIN), args);
        EXPECT_TRUE(process.waitForStarted(10000));
        EXPECT_TRUE(
            QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 60000));
        return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }
    std::optional<fan_settings::CalibrationRequest> storedRequest() {
        QSettings settings(home.filePath(QStringLiteral("config/Kelvo/Kelvo.conf")),
                           QSettings::IniFormat);
        return fan_settings::readCalibrationRequest(settings);
    }

    QTemporaryDir home;
    FakeSysfs sys;
    QProcess bus;
    QString busName;
    SettingsListener listener;
};

TEST_F(KelvoctlCalibrate, PrintsWhatKelvoRecordsUntilTheCalibrationFinishes) {
    const QString address = startBus();
    ASSERT_FALSE(address.isEmpty());
    ASSERT_TRUE(listen(address));
    SQLiteStore store(databasePath().toStdString());
    store.appendEvent(RuntimeEvent::make("Calibrating " + kFan1.toStdString() + ": an old one"));
    int requests = 0;
    listener.onChanged = [&] {
        auto request = storedRequest();
        ASSERT_TRUE(request);
        EXPECT_EQ(request->identity, kFan1.toStdString());
        ++requests;
        const std::string fan = request->identity;
        store.appendEvent(RuntimeEvent::make("Fan choices and limits re-read from the settings"));
        store.appendEvent(RuntimeEvent::make(
            "Calibrating " + fan +
            ": it runs from full speed down to its lowest speed and to a stop where it stops, "
            "about 90 s; the fan will be loud for part of it"));
        store.appendEvent(RuntimeEvent::make("Calibrating other#fan2: 25 % done, about 9 s left"));
        store.appendEvent(
            RuntimeEvent::make("Calibrating " + fan + ": 50 % done, about 45 s left"));
        store.appendEvent(
            RuntimeEvent::make("Calibration of " + fan + " finished: it stops under duty 40"));
    };
    const Result r = run(address, {QStringLiteral("fan"), kFan1, QStringLiteral("calibrate")});
    EXPECT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(requests, 1);
    EXPECT_TRUE(r.out.contains(QStringLiteral("the fan will be loud for part of it")))
        << r.out.toStdString();
    EXPECT_TRUE(r.out.contains(QStringLiteral("50 % done"))) << r.out.toStdString();
    EXPECT_TRUE(r.out.contains(QStringLiteral("finished: it stops under duty 40")))
        << r.out.toStdString();
    // Only this fan's events, and only those recorded after the request.
    EXPECT_FALSE(r.out.contains(QStringLiteral("other#fan2"))) << r.out.toStdString();
    EXPECT_FALSE(r.out.contains(QStringLiteral("an old one"))) << r.out.toStdString();
    EXPECT_FALSE(r.out.contains(QStringLiteral("re-read"))) << r.out.toStdString();
}

TEST_F(KelvoctlCalibrate, ARefusalIsAFailureWithKelvosReason) {
    const QString address = startBus();
    ASSERT_FALSE(address.isEmpty());
    ASSERT_TRUE(listen(address));
    SQLiteStore store(databasePath().toStdString());
    listener.onChanged = [&] {
        store.appendEvent(RuntimeEvent::make(
            "Cannot calibrate " + kFan1.toStdString() + ": this fan back-end cannot calibrate fans",
            true));
    };
    const Result r = run(address, {QStringLiteral("fan"), kFan1, QStringLiteral("calibrate")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("this fan back-end cannot calibrate fans")))
        << r.err.toStdString();
}

TEST_F(KelvoctlCalibrate, NobodyAnsweringMeansNoKelvoIsRunning) {
    const QString address = startBus();
    ASSERT_FALSE(address.isEmpty());
    SQLiteStore store(databasePath().toStdString());
    const Result r = run(address, {QStringLiteral("fan"), kFan1, QStringLiteral("calibrate")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("no running Kelvo answered"))) << r.err.toStdString();
    // The request stays for a Kelvo that starts later to ignore: it is older than that start.
    EXPECT_TRUE(storedRequest());
}

TEST_F(KelvoctlCalibrate, NoBusOrNoDatabaseOrAnUnknownFanFailsAtOnceWithTheReason) {
    SQLiteStore store(databasePath().toStdString());
    Result r = run(QStringLiteral("unix:path=/nonexistent/kelvo-test-bus"),
                   {QStringLiteral("fan"), kFan1, QStringLiteral("calibrate")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("no session bus"))) << r.err.toStdString();
    EXPECT_FALSE(storedRequest());

    const QString address = startBus();
    ASSERT_FALSE(address.isEmpty());
    r = run(address, {QStringLiteral("--database"), home.filePath(QStringLiteral("missing.sqlite")),
                      QStringLiteral("fan"), kFan1, QStringLiteral("calibrate")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("cannot read Kelvo's database")))
        << r.err.toStdString();
    EXPECT_FALSE(storedRequest());

    r = run(address,
            {QStringLiteral("fan"), QStringLiteral("nope#fan9"), QStringLiteral("calibrate")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(r.err.contains(QStringLiteral("unknown fan"))) << r.err.toStdString();
}

}  // namespace

#include "KelvoctlCalibrateTest.moc"

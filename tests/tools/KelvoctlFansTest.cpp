#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QSettings>
#include <QTemporaryDir>
#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <vector>

#include "app_common/FanSettings.h"
#include "foundation/core/FanCoupling.h"
#include "foundation/store/SQLiteStore.h"
#include "tests/foundation/LinuxFakeSysfs.h"

using namespace kelvo;
using kelvo::test_support::FakeSysfs;

namespace {

const QString kFan1 = QStringLiteral("nct6798@/sys/devices/platform/nct6775.656#fan1");
const QString kPump = QStringLiteral("nct6798@/sys/devices/platform/nct6775.656#fan2");
const QString kFan3 = QStringLiteral("nct6798@/sys/devices/platform/nct6775.656#fan3");

struct Result {
    int exitCode = -1;
    QString out;
    QString err;
};

class KelvoctlFans : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(config.isValid());
        const std::string board = sys.addHwmon(2, "nct6798", "platform/nct6775.656");
        sys.write(board + "/fan1_input", "900\n");
        sys.write(board + "/fan2_input", "2400\n");
        sys.write(board + "/fan2_label", "AIO Pump\n");
    }
    Result run(QStringList args) {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), config.path());
        // Kelvo's database is read from here: never the developer's own.
        env.insert(QStringLiteral("XDG_DATA_HOME"), config.filePath(QStringLiteral("data")));
        // No bus: the announcement must not reach a Kelvo the developer is running.
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                   QStringLiteral("unix:path=/nonexistent/kelvo-test-bus"));
        process.setProcessEnvironment(env);
        args.prepend(QString::fromStdString(sys.root().string()));
        args.prepend(QStringLiteral("--sysfs-root"));
        process.start(QStringLiteral(KELVOCTL_BIN), args);
        EXPECT_TRUE(process.waitForFinished(30000));
        return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }
    // Where Kelvo keeps its database under the XDG_DATA_HOME above.
    QString databasePath() const {
        return config.filePath(QStringLiteral("data/Kelvo/kelvo.sqlite"));
    }
    // Kelvo's database holding `evidence`, kept open as a running Kelvo keeps it: kelvoctl reads
    // beside it. fan3 turns too.
    std::unique_ptr<SQLiteStore> storeEvidence(
        const std::map<std::string, FanCouplingEvidence>& evidence) {
        sys.write("sys/class/hwmon/hwmon2/fan3_input", "1100\n");
        EXPECT_TRUE(QDir().mkpath(QFileInfo(databasePath()).path()));
        auto store = std::make_unique<SQLiteStore>(databasePath().toStdString());
        for (const auto& [identity, e] : evidence) EXPECT_TRUE(store->saveFanCoupling(identity, e));
        return store;
    }
    QSettings stored() {
        return QSettings(config.filePath(QStringLiteral("Kelvo/Kelvo.conf")), QSettings::IniFormat);
    }
    QTemporaryDir config;
    FakeSysfs sys;
};

QStringList lineFor(const QString& out, const QString& identity) {
    for (const QString& line : out.split(QLatin1Char('\n')))
        if (line.startsWith(identity + QLatin1Char(' ')))
            return line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    return {};
}

// The text under `column`'s heading in the fan's row, from the heading to the next one (the
// columns have fixed widths, and a value may hold spaces); "?" when the row or the heading is
// not there.
QString cell(const QString& out, const QString& identity, const QString& column) {
    const QStringList lines = out.split(QLatin1Char('\n'));
    const qsizetype start = lines.front().indexOf(column);
    if (start < 0) return QStringLiteral("?");
    qsizetype next = start + column.size();
    while (next < lines.front().size() && lines.front()[next] == QLatin1Char(' ')) ++next;
    const qsizetype length = next < lines.front().size() ? next - start : -1;
    for (const QString& line : lines)
        if (line.startsWith(identity + QLatin1Char(' '))) return line.mid(start, length).trimmed();
    return QStringLiteral("?");
}

}  // namespace

TEST_F(KelvoctlFans, ListsEveryFanWithLabelSpeedAndChoice) {
    const Result r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QStringList fan = lineFor(r.out, kFan1);
    ASSERT_GE(fan.size(), 7) << r.out.toStdString();
    EXPECT_EQ(fan[1], QStringLiteral("-"));
    EXPECT_EQ(fan[2], QStringLiteral("900"));
    EXPECT_EQ(fan[3], QStringLiteral("default"));  // stops where the firmware stops it
    EXPECT_EQ(fan[6], QStringLiteral("auto"));
    const QStringList pump = lineFor(r.out, kPump);
    EXPECT_TRUE(r.out.contains(QStringLiteral("AIO Pump"))) << r.out.toStdString();
    EXPECT_TRUE(pump.contains(QStringLiteral("2400"))) << r.out.toStdString();
    EXPECT_TRUE(lineFor(r.out, kPump).join(' ').contains(QStringLiteral("fixed 100")));
    EXPECT_TRUE(lineFor(r.out, kPump).contains(QStringLiteral("never"))) << r.out.toStdString();
}

// A graphics card's fan sits on a long PCI path and a board may label a header at length: the
// columns widen for them, and every other row's cells still start under their headings.
TEST_F(KelvoctlFans, LongLabelsAndDevicePathsKeepEveryCellUnderItsHeading) {
    const std::string card =
        sys.addHwmon(5, "amdgpu", "pci0000:00/0000:00:03.1/0000:09:00.0/0000:0a:00.0/0000:0b:00.0");
    sys.write(card + "/fan1_input", "1850\n");
    sys.write("sys/class/hwmon/hwmon2/fan3_input", "640\n");
    sys.write("sys/class/hwmon/hwmon2/fan3_label", "Front intake fans, lower pair\n");
    const Result r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QStringList lines = r.out.split(QLatin1Char('\n'));
    const QString& headings = lines.front();
    const QString gpuFan = QStringLiteral(
        "amdgpu@/sys/devices/pci0000:00/0000:00:03.1/0000:09:00.0/0000:0a:00.0/0000:0b:00.0#fan1");
    struct Row {
        QString identity, label, rpm, stop;
    };
    const std::vector<Row> rows{
        {kFan1, QStringLiteral("-"), QStringLiteral("900"), QStringLiteral("default")},
        {kPump, QStringLiteral("AIO Pump"), QStringLiteral("2400"), QStringLiteral("never")},
        {kFan3, QStringLiteral("Front intake fans, lower pair"), QStringLiteral("640"),
         QStringLiteral("default")},
        {gpuFan, QStringLiteral("-"), QStringLiteral("1850"), QStringLiteral("default")}};
    const qsizetype label = headings.indexOf(QStringLiteral("LABEL"));
    const qsizetype rpmEnd = headings.indexOf(QStringLiteral("RPM")) + 3;
    const qsizetype stop = headings.indexOf(QStringLiteral("STOP"));
    const qsizetype choice = headings.indexOf(QStringLiteral("CHOICE"));
    ASSERT_GT(label, gpuFan.size()) << r.out.toStdString();
    for (const Row& row : rows) {
        const auto line = std::find_if(lines.begin(), lines.end(), [&](const QString& l) {
            return l.startsWith(row.identity + QLatin1Char(' '));
        });
        ASSERT_NE(line, lines.end()) << row.identity.toStdString() << "\n" << r.out.toStdString();
        EXPECT_TRUE(line->mid(label).startsWith(row.label + QLatin1Char(' ')))
            << r.out.toStdString();
        EXPECT_TRUE(line->left(rpmEnd).endsWith(QLatin1Char(' ') + row.rpm)) << r.out.toStdString();
        EXPECT_TRUE(line->mid(stop).startsWith(row.stop + QLatin1Char(' '))) << r.out.toStdString();
        EXPECT_FALSE(line->mid(choice).startsWith(QLatin1Char(' '))) << r.out.toStdString();
        EXPECT_FALSE(line->endsWith(QLatin1Char(' '))) << r.out.toStdString();
    }
}

TEST_F(KelvoctlFans, StoresTheStopChoiceBesideTheOthersAndShowsIt) {
    Result r = run({QStringLiteral("fan"), kFan1, QStringLiteral("min"), QStringLiteral("20")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    r = run({QStringLiteral("fan"), kFan1, QStringLiteral("stop"), QStringLiteral("on")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    // Stored, but the minimum keeps the fan turning: kelvoctl says so.
    EXPECT_TRUE(r.out.contains(QStringLiteral("no stop while its minimum keeps it turning")))
        << r.out.toStdString();
    {
        QSettings settings = stored();
        EXPECT_EQ(formatFanChoice(fan_settings::readChoices(settings).at(kFan1.toStdString())),
                  "auto min 20 stop on");
    }
    r = run({QStringLiteral("fan"), kFan1, QStringLiteral("min"), QStringLiteral("0"),
             QStringLiteral("stop"), QStringLiteral("off")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    r = run({QStringLiteral("fans")});
    const QStringList fan = lineFor(r.out, kFan1);
    ASSERT_GE(fan.size(), 5) << r.out.toStdString();
    EXPECT_EQ(fan[3], QStringLiteral("off"));
    EXPECT_TRUE(fan.join(' ').endsWith(QStringLiteral("auto stop off"))) << r.out.toStdString();
}

TEST_F(KelvoctlFans, APumpIsNeverToldToStop) {
    const Result r =
        run({QStringLiteral("fan"), kPump, QStringLiteral("stop"), QStringLiteral("on")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("a pump never stops"))) << r.err.toStdString();
    QSettings settings = stored();
    EXPECT_FALSE(settings.contains(fan_settings::choicesKey));
}

TEST_F(KelvoctlFans, TheUsageNamesTheStopAndTheCalibration) {
    const Result r = run({QStringLiteral("--help")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(r.err.contains(QStringLiteral("stop on|off"))) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains(QStringLiteral("fan IDENTITY calibrate"))) << r.err.toStdString();
    const Result bad =
        run({QStringLiteral("fan"), kFan1, QStringLiteral("stop"), QStringLiteral("sometimes")});
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_TRUE(bad.err.contains(QStringLiteral("stop on|off"))) << bad.err.toStdString();
}

TEST_F(KelvoctlFans, StoresAChoiceAndShowsItAfterwards) {
    Result r = run({QStringLiteral("fan"), kFan1, QStringLiteral("fixed"), QStringLiteral("60")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    r = run({QStringLiteral("fan"), kFan1, QStringLiteral("min"), QStringLiteral("20")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    r = run({QStringLiteral("fan"), kPump, QStringLiteral("auto")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    QSettings settings = stored();
    const FanChoices choices = fan_settings::readChoices(settings);
    ASSERT_TRUE(choices.contains(kFan1.toStdString()));
    EXPECT_EQ(formatFanChoice(choices.at(kFan1.toStdString())), "fixed 60 min 20");
    EXPECT_EQ(formatFanChoice(choices.at(kPump.toStdString())), "auto");
    r = run({QStringLiteral("fans")});
    EXPECT_TRUE(lineFor(r.out, kFan1).join(' ').endsWith(QStringLiteral("fixed 60 min 20")))
        << r.out.toStdString();
    EXPECT_FALSE(lineFor(r.out, kPump).join(' ').contains(QStringLiteral("fixed")));
}

TEST_F(KelvoctlFans, AnUnknownFanIsOneLineListingTheFans) {
    const Result r =
        run({QStringLiteral("fan"), QStringLiteral("nope#fan9"), QStringLiteral("auto")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err.count(QLatin1Char('\n')), 1) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains(kFan1)) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains(kPump)) << r.err.toStdString();
    QSettings settings = stored();
    EXPECT_FALSE(settings.contains(fan_settings::choicesKey));
}

TEST_F(KelvoctlFans, AnUnknownChoiceIsOneLineListingTheChoices) {
    for (const QStringList& words : {QStringList{QStringLiteral("loud")},
                                     QStringList{QStringLiteral("fixed"), QStringLiteral("120")}}) {
        const Result r = run(QStringList{QStringLiteral("fan"), kFan1} + words);
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_EQ(r.err.count(QLatin1Char('\n')), 1) << r.err.toStdString();
        EXPECT_TRUE(r.err.contains(QStringLiteral("auto, firmware, fixed N, min N")))
            << r.err.toStdString();
    }
    QSettings settings = stored();
    EXPECT_FALSE(settings.contains(fan_settings::choicesKey));
}

TEST_F(KelvoctlFans, LimitsAreShownSetAndRefusedOutOfRange) {
    Result r = run({QStringLiteral("limits")});
    ASSERT_EQ(r.exitCode, 0);
    EXPECT_TRUE(r.out.contains(QStringLiteral("88.0"))) << r.out.toStdString();
    r = run({QStringLiteral("limits"), QStringLiteral("gpu"), QStringLiteral("80")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    {
        QSettings settings = stored();
        EXPECT_EQ(settings.value(fan_settings::gpuQuietKey).toDouble(), 80);
    }
    r = run({QStringLiteral("limits"), QStringLiteral("cpu"), QStringLiteral("45")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("refused"))) << r.err.toStdString();
    // The fake machine's CPU shuts down at 95 °C: 100 is refused though under the general cap.
    sys.write("sys/class/thermal/thermal_zone0/type", "x86_pkg_temp\n");
    sys.write("sys/class/thermal/thermal_zone0/trip_point_0_type", "critical\n");
    sys.write("sys/class/thermal/thermal_zone0/trip_point_0_temp", "95000\n");
    r = run({QStringLiteral("limits"), QStringLiteral("cpu"), QStringLiteral("100")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("95"))) << r.err.toStdString();
    QSettings settings = stored();
    EXPECT_FALSE(settings.contains(fan_settings::cpuQuietKey));
    r = run({QStringLiteral("limits"), QStringLiteral("fan"), QStringLiteral("80")});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err.count(QLatin1Char('\n')), 1) << r.err.toStdString();
}

// Stored choices that cannot be read: each fan shows the firmware it is left with and why,
// and the whole-value stand-in is not listed as a fan.
TEST_F(KelvoctlFans, ChoicesThatCannotBeReadAreSaidAndNoStandInIsListed) {
    {
        QSettings settings = stored();
        settings.setValue(QString::fromLatin1(fan_settings::choicesKey),
                          QStringLiteral("{\"%1\":\"fixed 150\"}").arg(kFan1));
    }
    Result r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(lineFor(r.out, kFan1).join(' ').contains(QStringLiteral("firmware (stored choice")))
        << r.out.toStdString();
    EXPECT_TRUE(r.err.contains(kFan1 + QStringLiteral(": the stored choice cannot be read")))
        << r.err.toStdString();

    {
        QSettings settings = stored();
        settings.setValue(QString::fromLatin1(fan_settings::choicesKey),
                          QStringLiteral("{\"%1\":\"auto\"").arg(kFan1));
    }
    r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(lineFor(r.out, QStringLiteral("*")).isEmpty()) << r.out.toStdString();
    EXPECT_TRUE(lineFor(r.out, kFan1).contains(QStringLiteral("firmware"))) << r.out.toStdString();
    EXPECT_TRUE(r.err.contains(QStringLiteral("cannot be read"))) << r.err.toStdString();
}

namespace {
// Six probes around `mean`, spread by `step` either side, alike at every lag (so whichever lag
// explains them best, they say the same).
DieEvidence probes(double mean, double step) {
    DieResponse r;
    for (int twice = 0; twice < 2; ++twice)
        for (double x : {mean - step, mean, mean + step}) r.add(x, 1);
    DieEvidence die;
    die.byLag.fill(r);
    return die;
}

// SURE as kelvoctl prints it.
QString sure(const FanCoupling& coupling) {
    return QString::number(std::lround(coupling.confidence * 100)) + QLatin1Char('%');
}
}  // namespace

// What a running Kelvo stored about which die each fan cools, weighed among the fans listed as
// the app weighs them among its fans.
TEST_F(KelvoctlFans, ShowsWhichDieEachFanCoolsFromKelvosDatabase) {
    // fan1 does most of the CPU's cooling, fan3 most of the GPU's; fan1's CPU answers spread
    // more than fan3's GPU answers, so kelvoctl is less sure of it. The pump has answers too,
    // but a pump is never Kelvo's to share the work with.
    const std::map<std::string, FanCouplingEvidence> evidence{
        {kFan1.toStdString(), {probes(1.0, 0.1), probes(0.1, 0.01)}},
        {kFan3.toStdString(), {probes(0.1, 0.01), probes(1.0, 0.05)}},
        {kPump.toStdString(), {probes(0.5, 0.01), probes(0.5, 0.01)}}};
    const auto store = storeEvidence(evidence);
    const std::vector<FanCoupling> expected =
        fanCouplings(evidence, {kFan1.toStdString(), kFan3.toStdString()});
    ASSERT_GT(expected[0].confidence, 0);
    ASSERT_NE(sure(expected[0]), sure(expected[1]));

    const Result r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.err.isEmpty()) << r.err.toStdString();
    EXPECT_EQ(cell(r.out, kFan1, QStringLiteral("COOLS")), QStringLiteral("CPU"))
        << r.out.toStdString();
    EXPECT_EQ(cell(r.out, kFan3, QStringLiteral("COOLS")), QStringLiteral("GPU"))
        << r.out.toStdString();
    EXPECT_EQ(cell(r.out, kPump, QStringLiteral("COOLS")), QStringLiteral("-"))
        << r.out.toStdString();
    EXPECT_EQ(cell(r.out, kFan1, QStringLiteral("SURE")), sure(expected[0])) << r.out.toStdString();
    EXPECT_EQ(cell(r.out, kFan3, QStringLiteral("SURE")), sure(expected[1])) << r.out.toStdString();
    EXPECT_EQ(cell(r.out, kFan1, QStringLiteral("CHOICE")), QStringLiteral("auto"))
        << r.out.toStdString();

    // A fan under auto control that has given no answers yet leaves every share unknown: the
    // shares are among all of them.
    ASSERT_TRUE(store->saveFanCoupling(kFan3.toStdString(), {}));
    const Result partial = run({QStringLiteral("fans")});
    ASSERT_EQ(partial.exitCode, 0) << partial.err.toStdString();
    EXPECT_EQ(cell(partial.out, kFan1, QStringLiteral("COOLS")), QStringLiteral("-"))
        << partial.out.toStdString();
    EXPECT_EQ(cell(partial.out, kFan1, QStringLiteral("SURE")), QStringLiteral("-"))
        << partial.out.toStdString();

    // Handed to the firmware, fan3 is no longer one of them: fan1 does all of the fans' work.
    ASSERT_EQ(run({QStringLiteral("fan"), kFan3, QStringLiteral("firmware")}).exitCode, 0);
    const Result alone = run({QStringLiteral("fans")});
    EXPECT_EQ(cell(alone.out, kFan1, QStringLiteral("COOLS")), QStringLiteral("CPU and GPU"))
        << alone.out.toStdString();
    EXPECT_EQ(cell(alone.out, kFan3, QStringLiteral("COOLS")), QStringLiteral("-"))
        << alone.out.toStdString();
}

TEST_F(KelvoctlFans, ShareOfNoConfidenceNamesNoDie) {
    // Answers that scatter over ten times their mean: the shares' error dwarfs them.
    const std::map<std::string, FanCouplingEvidence> evidence{
        {kFan1.toStdString(), {probes(1.0, 20), probes(0.1, 20)}},
        {kFan3.toStdString(), {probes(0.1, 20), probes(1.0, 20)}}};
    const auto store = storeEvidence(evidence);
    const std::vector<FanCoupling> expected =
        fanCouplings(evidence, {kFan1.toStdString(), kFan3.toStdString()});
    ASSERT_FALSE(coolsMostly(expected[0]).empty());
    ASSERT_EQ(expected[0].confidence, 0);

    const Result r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    for (const QString& fan : {kFan1, kFan3}) {
        EXPECT_EQ(cell(r.out, fan, QStringLiteral("COOLS")), QStringLiteral("-"))
            << r.out.toStdString();
        EXPECT_EQ(cell(r.out, fan, QStringLiteral("SURE")), QStringLiteral("0%"))
            << r.out.toStdString();
    }
}

TEST_F(KelvoctlFans, WithoutADatabaseTheCouplingIsUnknownAndNoDatabaseIsCreated) {
    const Result r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    // Kelvo has not run yet: nothing to say about it.
    EXPECT_TRUE(r.err.isEmpty()) << r.err.toStdString();
    for (const QString& fan : {kFan1, kPump}) {
        EXPECT_EQ(cell(r.out, fan, QStringLiteral("COOLS")), QStringLiteral("-"))
            << r.out.toStdString();
        EXPECT_EQ(cell(r.out, fan, QStringLiteral("SURE")), QStringLiteral("-"))
            << r.out.toStdString();
    }
    EXPECT_FALSE(QFileInfo::exists(databasePath()));
    EXPECT_FALSE(QFileInfo::exists(QFileInfo(databasePath()).path()));
}

TEST_F(KelvoctlFans, ADatabaseThatCannotBeReadIsOneLineAndLeftAsItWas) {
    ASSERT_TRUE(QDir().mkpath(QFileInfo(databasePath()).path()));
    const QByteArray junk = "plain text, whatever its name says";
    {
        QFile file(databasePath());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(junk);
    }
    const Result r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.err.count(QLatin1Char('\n')), 1) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains(QStringLiteral("could not be read"))) << r.err.toStdString();
    EXPECT_TRUE(r.err.contains(QStringLiteral("not a database"))) << r.err.toStdString();
    EXPECT_EQ(cell(r.out, kFan1, QStringLiteral("COOLS")), QStringLiteral("-"))
        << r.out.toStdString();
    EXPECT_EQ(cell(r.out, kFan1, QStringLiteral("SURE")), QStringLiteral("-"))
        << r.out.toStdString();
    QFile file(databasePath());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), junk);
}

TEST_F(KelvoctlFans, TheSharingAmongTheFansIsShownStoredAndOnlyOnOrOff) {
    Result r = run({QStringLiteral("fans")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains(QStringLiteral("\nSharing the work among the fans: on\n")))
        << r.out.toStdString();
    r = run({QStringLiteral("fans"), QStringLiteral("share"), QStringLiteral("off")});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_EQ(r.out, QStringLiteral("Sharing the work among the fans: off\n"));
    {
        QSettings settings = stored();
        EXPECT_FALSE(fan_settings::readShare(settings));
    }
    r = run({QStringLiteral("fans")});
    EXPECT_TRUE(r.out.contains(QStringLiteral("\nSharing the work among the fans: off\n")))
        << r.out.toStdString();
    // The table still comes first, under its headings.
    EXPECT_TRUE(r.out.startsWith(QStringLiteral("IDENTITY"))) << r.out.toStdString();

    for (const QStringList& bad : {QStringList{QStringLiteral("fans"), QStringLiteral("share")},
                                   QStringList{QStringLiteral("fans"), QStringLiteral("share"),
                                               QStringLiteral("sometimes")}}) {
        r = run(bad);
        EXPECT_EQ(r.exitCode, 2) << bad.join(' ').toStdString();
        EXPECT_TRUE(r.err.contains(QStringLiteral("fans share takes 'on' or 'off'")))
            << r.err.toStdString();
    }
    QSettings settings = stored();
    EXPECT_FALSE(fan_settings::readShare(settings));

    // A hand-edited value that is neither: on, and said.
    settings.setValue(fan_settings::shareKey, QStringLiteral("half"));
    settings.sync();
    r = run({QStringLiteral("fans")});
    EXPECT_TRUE(r.out.contains(QStringLiteral("Sharing the work among the fans: on")));
    EXPECT_TRUE(r.err.contains(QStringLiteral("neither 'on' nor 'off'"))) << r.err.toStdString();
    r = run({QStringLiteral("--help")});
    EXPECT_TRUE(r.err.contains(QStringLiteral("kelvoctl fans share <on|off>")))
        << r.err.toStdString();
}

TEST_F(KelvoctlFans, MeasureAgainNeedsARunningKelvoToAsk) {
    // A request left for a Kelvo started later would not be acted on: without a bus kelvoctl
    // says no Kelvo can be asked, and leaves nothing behind.
    const Result r = run({QStringLiteral("fans"), QStringLiteral("measure-again")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains(QStringLiteral("no session bus, so no running Kelvo can be asked")))
        << r.err.toStdString();
    QSettings settings = stored();
    EXPECT_FALSE(settings.contains(fan_settings::measureAgainRequestKey));
    const Result help = run({QStringLiteral("--help")});
    EXPECT_TRUE(help.err.contains(QStringLiteral("kelvoctl fans measure-again")))
        << help.err.toStdString();
}

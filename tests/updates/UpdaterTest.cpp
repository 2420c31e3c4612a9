#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include <QFileInfo>
#include <QProcess>
#include <QSignalSpy>

#include "UpdateTestRig.h"
#include "updates/UpdateInstaller.h"
#include "updates/Updater.h"

using kelvo::AppcastItem;
using kelvo::Updater;
using kelvo::test::FeedItem;
using kelvo::test::HttpResponse;
using kelvo::test::LocalHttpServer;
using kelvo::test::UpdateTestRig;

namespace {

// Waits for whichever outcome signal comes first.
struct Outcome {
    explicit Outcome(Updater& updater)
        : found(&updater, &Updater::updateFound),
          notFound(&updater, &Updater::updateNotFound),
          installed(&updater, &Updater::updateInstalled),
          failed(&updater, &Updater::updateFailed) {}

    bool wait(int timeoutMs = 10000) {
        QElapsedTimer timer;
        timer.start();
        while (count() == 0 && timer.elapsed() < timeoutMs) found.wait(50);
        return count() == 1;
    }
    qsizetype count() const {
        return found.size() + notFound.size() + installed.size() + failed.size();
    }
    QString failure() const {
        return failed.isEmpty() ? QString() : failed.front().at(0).toString();
    }
    AppcastItem foundItem() const { return found.front().at(0).value<AppcastItem>(); }

    QSignalSpy found, notFound, installed, failed;
};

class UpdaterTest : public ::testing::Test {
protected:
    UpdaterTest() { qRegisterMetaType<AppcastItem>(); }

    FeedItem release(const QString& version, const QByteArray& payload) {
        return FeedItem{version,
                        QStringLiteral("0.%1.0").arg(version),
                        QStringLiteral("/Kelvo-%1.AppImage").arg(version),
                        payload,
                        {},
                        {},
                        -1};
    }

    // Checks as the user would and, when offered, installs; returns the failure text or empty.
    QString checkAndInstall(Updater& updater) {
        Outcome check(updater);
        updater.checkForUpdates();
        if (!check.wait()) return QStringLiteral("no outcome of the check");
        if (!check.failed.isEmpty()) return check.failure();
        if (check.found.isEmpty()) return QStringLiteral("nothing offered");
        Outcome install(updater);
        updater.installUpdate(check.foundItem());
        if (!install.wait()) return QStringLiteral("no outcome of the install");
        return install.failure();
    }

    // When the last check happened, as the updater recorded it.
    QDateTime lastCheck() const {
        return rig.settings->value(QString::fromLatin1(Updater::kLastCheckKey)).toDateTime();
    }

    UpdateTestRig rig;
    LocalHttpServer server;
};

}  // namespace

TEST_F(UpdaterTest, AFullUpdateCycleInstallsTheVerifiedBuild) {
    ASSERT_TRUE(server.listening());
    const QString target = rig.installFile("installed build 10");
    const QByteArray next = QByteArray(300000, 'n') + "build 12";
    rig.publish(server,
                {release(QStringLiteral("11"), "build 11"), release(QStringLiteral("12"), next)});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));

    Outcome check(updater);
    QSignalSpy canCheck(&updater, &Updater::canCheckForUpdatesChanged);
    updater.checkForUpdates();
    EXPECT_FALSE(updater.canCheckForUpdates()) << "no second check while one runs";
    ASSERT_TRUE(check.wait());
    ASSERT_EQ(check.found.size(), 1) << check.failure().toStdString();
    EXPECT_TRUE(check.found.front().at(1).toBool());
    const AppcastItem offered = check.foundItem();
    EXPECT_EQ(offered.version, QStringLiteral("12"));
    EXPECT_EQ(offered.shortVersion, QStringLiteral("0.12.0"));
    EXPECT_EQ(offered.releaseNotesLink,
              QUrl(QStringLiteral("https://kelvo.invalid/notes/12.html")));
    EXPECT_TRUE(updater.canCheckForUpdates());
    EXPECT_EQ(canCheck.size(), 2);

    Outcome install(updater);
    QSignalSpy progress(&updater, &Updater::downloadProgress);
    updater.installUpdate(offered);
    ASSERT_TRUE(install.wait());
    ASSERT_EQ(install.installed.size(), 1) << install.failure().toStdString();
    EXPECT_EQ(install.installed.front().at(1).toString(), target);
    EXPECT_EQ(UpdateTestRig::readFile(target), next);
    EXPECT_EQ(UpdateTestRig::readFile(kelvo::UpdateInstaller::previousBuildPath(target)),
              QByteArray("installed build 10"));
    ASSERT_FALSE(progress.isEmpty());
    EXPECT_EQ(progress.back().at(0).toLongLong(), next.size());
    EXPECT_EQ(progress.back().at(1).toLongLong(), next.size());
    EXPECT_EQ(server.hits(QStringLiteral("/Kelvo-11.AppImage")), 0);
}

TEST_F(UpdaterTest, AFullUpdateCycleReplacesAnInstallDirectory) {
    const QString target = rig.path(QStringLiteral("opt-kelvo"));
    QDir().mkpath(target + QStringLiteral("/bin"));
    UpdateTestRig::writeFile(target + QStringLiteral("/bin/kelvo"), "old");
    const QString staged = rig.path(QStringLiteral("release"));
    QDir().mkpath(staged + QStringLiteral("/bin"));
    UpdateTestRig::writeFile(staged + QStringLiteral("/bin/kelvo"), "new");
    const QString archive = rig.path(QStringLiteral("release.tar.gz"));
    QProcess tar;
    tar.start(QStringLiteral("tar"),
              {QStringLiteral("-czf"), archive, QStringLiteral("-C"), staged, QStringLiteral(".")});
    ASSERT_TRUE(tar.waitForFinished(20000));
    FeedItem item = release(QStringLiteral("12"), UpdateTestRig::readFile(archive));
    item.path = QStringLiteral("/kelvo-12.tar.gz");
    rig.publish(server, {item});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    EXPECT_EQ(checkAndInstall(updater), QString());
    EXPECT_EQ(UpdateTestRig::readFile(target + QStringLiteral("/bin/kelvo")), QByteArray("new"));
}

TEST_F(UpdaterTest, NoNewerBuildMeansUpToDate) {
    const QString target = rig.installFile("installed");
    rig.publish(server,
                {release(QStringLiteral("9"), "old"), release(QStringLiteral("10"), "same")});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    Outcome check(updater);
    updater.checkForUpdates();
    ASSERT_TRUE(check.wait());
    ASSERT_EQ(check.notFound.size(), 1);
    EXPECT_TRUE(check.notFound.front().at(0).toBool());
}

TEST_F(UpdaterTest, FeedFailuresEndInAClearMessage) {
    const QString target = rig.installFile("installed");
    struct Case {
        const char* name;
        HttpResponse response;
        QString expected;
    };
    QByteArray huge = UpdateTestRig::feed({});
    huge.append(QByteArray(2 * 1024 * 1024, ' '));
    const QList<Case> cases = {
        {"http error", {500, "boom", -1}, QStringLiteral("the server answered HTTP 500")},
        {"malformed", {200, "<rss><channel><item>", -1}, QStringLiteral("not well-formed XML")},
        {"huge", {200, huge, -1}, QStringLiteral("larger than 1048576 bytes")},
        {"encoding",
         {200, UpdateTestRig::feed("<item><title>\xff\xfe</title></item>"), -1},
         QStringLiteral("not valid UTF-8")},
        {"missing fields",
         {200,
          UpdateTestRig::feed(
              "<item><title>x</title><enclosure url=\"http://127.0.0.1/\"/></item>"),
          -1},
         QStringLiteral("no usable item (item 1: no version)")},
    };
    for (const Case& c : cases) {
        const QString path =
            QStringLiteral("/%1.xml").arg(QString::fromLatin1(c.name).replace(' ', '-'));
        server.serve(path, c.response);
        Updater updater(rig.configuration(server.url(path), target));
        Outcome check(updater);
        updater.checkForUpdates();
        ASSERT_TRUE(check.wait()) << c.name;
        ASSERT_EQ(check.failed.size(), 1) << c.name;
        EXPECT_TRUE(check.failure().contains(c.expected))
            << c.name << ": " << check.failure().toStdString();
        EXPECT_TRUE(updater.canCheckForUpdates()) << c.name;
    }
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("installed"));
}

TEST_F(UpdaterTest, NoNetworkEndsInAClearMessage) {
    const QString target = rig.installFile("installed");
    const QUrl feed(
        QStringLiteral("http://127.0.0.1:%1/appcast.xml").arg(kelvo::test::closedLoopbackPort()));
    Updater updater(rig.configuration(feed, target));
    Outcome check(updater);
    updater.checkForUpdates();
    ASSERT_TRUE(check.wait());
    ASSERT_EQ(check.failed.size(), 1);
    EXPECT_TRUE(check.failure().startsWith(QStringLiteral("The update check failed: cannot fetch")))
        << check.failure().toStdString();
    EXPECT_TRUE(check.failed.front().at(1).toBool());
}

TEST_F(UpdaterTest, ATruncatedDownloadIsNotInstalled) {
    const QString target = rig.installFile("installed");
    const QByteArray payload(200000, 't');
    rig.publish(server, {release(QStringLiteral("12"), payload)});
    server.serve(QStringLiteral("/Kelvo-12.AppImage"), {200, payload, 1000});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    const QString failure = checkAndInstall(updater);
    EXPECT_TRUE(failure.startsWith(QStringLiteral("The update"))) << failure.toStdString();
    EXPECT_FALSE(failure.isEmpty());
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("installed"));
    EXPECT_FALSE(QFileInfo::exists(kelvo::UpdateInstaller::previousBuildPath(target)));
}

TEST_F(UpdaterTest, ADownloadLongerThanAnnouncedIsNotInstalled) {
    const QString target = rig.installFile("installed");
    FeedItem item = release(QStringLiteral("12"), QByteArray(5000, 'l'));
    item.length = 100;
    rig.publish(server, {item});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    EXPECT_EQ(checkAndInstall(updater),
              QStringLiteral("The update download failed: the download is longer than the 100 "
                             "bytes the feed announced."));
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("installed"));
}

TEST_F(UpdaterTest, ABadSignatureIsNotInstalled) {
    const QString target = rig.installFile("installed");
    FeedItem item = release(QStringLiteral("12"), "tampered build");
    item.signature = kelvo::UpdateSignature::sign("the build that was signed", rig.keys.secretKey);
    rig.publish(server, {item});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    EXPECT_EQ(
        checkAndInstall(updater),
        QStringLiteral("The update was not installed: the update's signature does not verify."));
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("installed"));
    EXPECT_FALSE(QFileInfo::exists(kelvo::UpdateInstaller::previousBuildPath(target)));
}

TEST_F(UpdaterTest, WithoutAPublicKeyNothingIsInstalled) {
    const QString target = rig.installFile("installed");
    rig.publish(server, {release(QStringLiteral("12"), "signed build")});
    auto configuration = rig.configuration(server.url(QStringLiteral("/appcast.xml")), target);
    configuration.publicKey.clear();
    Updater updater(configuration);
    EXPECT_FALSE(updater.allowsAutomaticUpdates());
    EXPECT_EQ(checkAndInstall(updater),
              QStringLiteral("The update was not installed: this build has no update signing key "
                             "configured, and Kelvo installs no unverified build."));
    EXPECT_EQ(server.hits(QStringLiteral("/Kelvo-12.AppImage")), 0);
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("installed"));
}

TEST_F(UpdaterTest, PreferencesPersistInTheSettings) {
    const QString target = rig.installFile("installed");
    {
        Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
        EXPECT_TRUE(updater.automaticallyChecksForUpdates());
        EXPECT_FALSE(updater.automaticallyDownloadsUpdates());
        EXPECT_EQ(updater.updateCheckInterval(), 86400);
        QSignalSpy intervalChanged(&updater, &Updater::updateCheckIntervalChanged);
        updater.setAutomaticallyChecksForUpdates(false);
        updater.setAutomaticallyDownloadsUpdates(true);
        updater.setUpdateCheckInterval(604800);
        updater.setUpdateCheckInterval(604800);
        EXPECT_EQ(intervalChanged.size(), 1) << "an unchanged value is not published";
        updater.setUpdateCheckInterval(10);
        EXPECT_EQ(updater.updateCheckInterval(), Updater::kMinimumCheckInterval);
        updater.setUpdateCheckInterval(604800);
    }
    Updater restored(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    EXPECT_FALSE(restored.automaticallyChecksForUpdates());
    EXPECT_TRUE(restored.automaticallyDownloadsUpdates());
    EXPECT_EQ(restored.updateCheckInterval(), 604800);
}

TEST_F(UpdaterTest, AScheduledCheckRunsAtTheIntervalWhileAutomaticChecksAreOn) {
    const QString target = rig.installFile("installed");
    rig.publish(server, {release(QStringLiteral("12"), "new")});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    updater.setUpdateCheckInterval(3600);
    Outcome check(updater);
    const QDateTime beforeStart = QDateTime::currentDateTimeUtc();
    updater.start(50);
    ASSERT_TRUE(check.wait());
    const QDateTime afterCheck = QDateTime::currentDateTimeUtc();
    ASSERT_EQ(check.found.size(), 1);
    EXPECT_FALSE(check.found.front().at(1).toBool()) << "a scheduled check, not the user's";
    // This check was recorded, and the next one is due one interval after it.
    const QDateTime last = lastCheck();
    EXPECT_LE(beforeStart, last);
    EXPECT_LE(last, afterCheck);
    EXPECT_EQ(updater.nextScheduledCheck(), last.addSecs(3600));
    updater.setAutomaticallyChecksForUpdates(false);
    EXPECT_FALSE(updater.nextScheduledCheck().isValid());
}

TEST_F(UpdaterTest, NoScheduledCheckRunsWhileAutomaticChecksAreOff) {
    const QString target = rig.installFile("installed");
    rig.publish(server, {release(QStringLiteral("12"), "new")});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    updater.setAutomaticallyChecksForUpdates(false);
    Outcome check(updater);
    updater.start(10);
    EXPECT_FALSE(updater.nextScheduledCheck().isValid()) << "nothing is scheduled";
    // And nothing reaches the feed meanwhile; a slow machine cannot make one appear.
    EXPECT_FALSE(check.wait(500));
    EXPECT_EQ(server.hits(QStringLiteral("/appcast.xml")), 0);
}

TEST_F(UpdaterTest, AScheduledCheckWithAutomaticDownloadsInstallsTheUpdate) {
    const QString target = rig.installFile("installed");
    rig.publish(server, {release(QStringLiteral("12"), "new build")});
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    updater.setAutomaticallyDownloadsUpdates(true);
    Outcome outcome(updater);
    updater.start(10);
    ASSERT_TRUE(outcome.wait());
    ASSERT_EQ(outcome.installed.size(), 1) << outcome.failure().toStdString();
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("new build"));
}

TEST_F(UpdaterTest, AScheduledCheckIsDueOneIntervalAfterTheLastOne) {
    const QString target = rig.installFile("installed");
    const QDateTime last = QDateTime::currentDateTimeUtc().addSecs(-1000);
    rig.settings->setValue(QString::fromLatin1(Updater::kLastCheckKey), last);
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    updater.setUpdateCheckInterval(3600);
    updater.start(0);
    EXPECT_EQ(updater.nextScheduledCheck(), last.addSecs(3600));
}

TEST_F(UpdaterTest, StartingRemovesThePreviousBuildKeptByTheLastInstall) {
    const QString target = rig.installFile("new build");
    const QString previous = kelvo::UpdateInstaller::previousBuildPath(target);
    UpdateTestRig::writeFile(previous, "old build");
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    EXPECT_TRUE(QFileInfo::exists(previous)) << "kept until the new build starts";
    updater.start();
    EXPECT_FALSE(QFileInfo::exists(previous));
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("new build"));
}

TEST_F(UpdaterTest, AMonthlyIntervalIsScheduledAMonthAhead) {
    const QString target = rig.installFile("installed");
    const QDateTime last = QDateTime::currentDateTimeUtc();
    rig.settings->setValue(QString::fromLatin1(Updater::kLastCheckKey), last);
    Updater updater(rig.configuration(server.url(QStringLiteral("/appcast.xml")), target));
    updater.setUpdateCheckInterval(2629800);
    updater.start(0);
    EXPECT_EQ(updater.nextScheduledCheck(), last.addSecs(2629800));
}

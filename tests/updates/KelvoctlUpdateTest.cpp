#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include "UpdateTestRig.h"
#include "updates/Updater.h"

using kelvo::Updater;
using kelvo::UpdaterConfiguration;
using kelvo::test::FeedItem;
using kelvo::test::LocalHttpServer;
using kelvo::test::UpdateTestRig;

namespace {

struct CommandRun {
    int exitCode = -1;
    QString out;
    QString err;
};

// Runs kelvoctl without blocking the event loop, so the in-process server can answer it.
CommandRun kelvoctl(const QStringList& arguments) {
    QProcess process;
    process.start(QStringLiteral(KELVOCTL_BIN), arguments);
    CommandRun run;
    if (!process.waitForStarted(5000)) return run;
    [[maybe_unused]] const bool ended =
        QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 20000);
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(2000);
        return run;
    }
    run.exitCode = process.exitCode();
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

class KelvoctlUpdateTest : public ::testing::Test {
protected:
    QString feed() const { return server.url(QStringLiteral("/appcast.xml")).toString(); }

    UpdateTestRig rig;
    LocalHttpServer server;
    UpdaterConfiguration build = UpdaterConfiguration::fromBuild();
};

}  // namespace

TEST_F(KelvoctlUpdateTest, CheckPrintsTheOfferedUpdateWithItsBuildAndNotes) {
    const QString newer = build.buildVersion + QStringLiteral(".1");
    rig.publish(server,
                {FeedItem{newer, QStringLiteral("9.0.0"), QStringLiteral("/k"), "x", {}, {}, -1}});
    const CommandRun run = kelvoctl(
        {QStringLiteral("update"), QStringLiteral("check"), QStringLiteral("--feed"), feed()});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, QStringLiteral("Update available: Kelvo 9.0.0 (%1)\nRelease notes: "
                                      "https://kelvo.invalid/notes/%1.html\n")
                           .arg(newer));
}

TEST_F(KelvoctlUpdateTest, CheckSaysWhenKelvoIsUpToDate) {
    rig.publish(
        server,
        {FeedItem{
            build.buildVersion, QStringLiteral("9.0.0"), QStringLiteral("/k"), "x", {}, {}, -1}});
    const CommandRun run = kelvoctl(
        {QStringLiteral("update"), QStringLiteral("check"), QStringLiteral("--feed=") + feed()});
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    EXPECT_EQ(run.out, QStringLiteral("Kelvo %1 (%2) is up to date.\n")
                           .arg(build.displayVersion, build.buildVersion));
}

TEST_F(KelvoctlUpdateTest, CheckFailsWithOneLineWhenTheFeedCannotBeFetchedOrParsed) {
    server.serve(QStringLiteral("/appcast.xml"), {503, "busy", -1});
    CommandRun run = kelvoctl(
        {QStringLiteral("update"), QStringLiteral("check"), QStringLiteral("--feed"), feed()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, QStringLiteral("kelvoctl: the server answered HTTP 503 (Error)\n"));
    EXPECT_TRUE(run.out.isEmpty());

    server.serve(QStringLiteral("/appcast.xml"), {200, "<rss><channel>", -1});
    run = kelvoctl(
        {QStringLiteral("update"), QStringLiteral("check"), QStringLiteral("--feed"), feed()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.startsWith(QStringLiteral("kelvoctl: the appcast is not well-formed XML")))
        << run.err.toStdString();
    EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1);

    run = kelvoctl(
        {QStringLiteral("update"), QStringLiteral("check"), QStringLiteral("--feed"),
         QStringLiteral("http://127.0.0.1:%1/a.xml").arg(kelvo::test::closedLoopbackPort())});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.startsWith(QStringLiteral("kelvoctl: cannot fetch")))
        << run.err.toStdString();
}

TEST_F(KelvoctlUpdateTest, AReleaseSignedWithKeygenAndSignIsInstalled) {
    const QString secret = rig.path(QStringLiteral("release.key"));
    const CommandRun keygen =
        kelvoctl({QStringLiteral("update"), QStringLiteral("keygen"), secret});
    ASSERT_EQ(keygen.exitCode, 0) << keygen.err.toStdString();
    const QByteArray publicKey = keygen.out.trimmed().toLatin1();
    EXPECT_EQ(QFile(secret).permissions() & (QFile::ReadOther | QFile::ReadGroup), 0);
    EXPECT_EQ(kelvoctl({QStringLiteral("update"), QStringLiteral("keygen"), secret}).exitCode, 1)
        << "an existing key is never replaced";

    const QString releaseFile = rig.path(QStringLiteral("Kelvo-0.3.0.AppImage"));
    const QByteArray payload = QByteArray(70000, 'r') + "release 30";
    UpdateTestRig::writeFile(releaseFile, payload);
    const CommandRun sign = kelvoctl(
        {QStringLiteral("update"), QStringLiteral("sign"), QStringLiteral("--key"), secret,
         QStringLiteral("--version"), QStringLiteral("30"), QStringLiteral("--short-version"),
         QStringLiteral("0.3.0"), QStringLiteral("--notes"),
         QStringLiteral("https://kelvo.invalid/n/30"), QStringLiteral("--url"),
         server.url(QStringLiteral("/Kelvo-0.3.0.AppImage")).toString(), releaseFile});
    ASSERT_EQ(sign.exitCode, 0) << sign.err.toStdString();
    const QByteArray appcast =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?><rss version=\"2.0\" "
        "xmlns:kelvo=\"urn:kelvo:update\"><channel><title>Kelvo</title>" +
        sign.out.toUtf8() + "</channel></rss>";
    server.serve(QStringLiteral("/appcast.xml"), {200, appcast, -1});
    server.serve(QStringLiteral("/Kelvo-0.3.0.AppImage"), {200, payload, -1});

    const QString target = rig.installFile("installed build 10");
    auto configuration = rig.configuration(server.url(QStringLiteral("/appcast.xml")), target);
    configuration.publicKey = publicKey;
    Updater updater(configuration);
    QSignalSpy found(&updater, &Updater::updateFound);
    updater.checkForUpdates();
    ASSERT_TRUE(found.wait(10000));
    const auto item = found.front().at(0).value<kelvo::AppcastItem>();
    EXPECT_EQ(item.shortVersion, QStringLiteral("0.3.0"));
    EXPECT_EQ(item.releaseNotesLink, QUrl(QStringLiteral("https://kelvo.invalid/n/30")));
    QSignalSpy installed(&updater, &Updater::updateInstalled);
    updater.installUpdate(item);
    ASSERT_TRUE(installed.wait(10000));
    EXPECT_EQ(UpdateTestRig::readFile(target), payload);
}

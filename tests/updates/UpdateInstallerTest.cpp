#include <gtest/gtest.h>

#include "tests/QtTestPrinters.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include "UpdateTestRig.h"
#include "updates/UpdateInstaller.h"

namespace UpdateInstaller = kelvo::UpdateInstaller;
using kelvo::test::UpdateTestRig;

namespace {

class UpdateInstallerTest : public ::testing::Test {
protected:
    QString path(const QString& name) const { return dir.filePath(name); }

    // An install directory with bin/kelvo holding `content`.
    QString makeInstall(const QString& name, const QByteArray& content) {
        const QString root = path(name);
        QDir().mkpath(root + QStringLiteral("/bin"));
        UpdateTestRig::writeFile(root + QStringLiteral("/bin/kelvo"), content);
        return root;
    }

    // tar.gz of a folder's contents, made with the system's tar.
    QString archive(const QString& folder, const QString& name, const QStringList& extra = {}) {
        const QString file = path(name);
        QProcess tar;
        tar.start(QStringLiteral("tar"),
                  QStringList{QStringLiteral("-czf"), file, QStringLiteral("-C"), folder} + extra +
                      QStringList{QStringLiteral(".")});
        EXPECT_TRUE(tar.waitForFinished(20000));
        EXPECT_EQ(tar.exitCode(), 0) << tar.readAllStandardError().toStdString();
        return file;
    }

    QTemporaryDir dir;
};

}  // namespace

TEST_F(UpdateInstallerTest, AFileTargetIsReplacedAndTheOldOneKept) {
    const QString target = path(QStringLiteral("Kelvo.AppImage"));
    UpdateTestRig::writeFile(target, "old build");
    const QString payload = path(QStringLiteral("download"));
    UpdateTestRig::writeFile(payload, "new build");
    ASSERT_EQ(UpdateInstaller::install(payload, target), QString());
    EXPECT_EQ(UpdateTestRig::readFile(target), QByteArray("new build"));
    EXPECT_TRUE(QFileInfo(target).isExecutable());
    EXPECT_EQ(UpdateTestRig::readFile(UpdateInstaller::previousBuildPath(target)),
              QByteArray("old build"));
    UpdateInstaller::removePreviousBuild(target);
    EXPECT_FALSE(QFileInfo::exists(UpdateInstaller::previousBuildPath(target)));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 2)
        << "no staging file is left behind";
}

TEST_F(UpdateInstallerTest, AnInstallDirectoryIsSwappedForTheArchivesContents) {
    const QString target = makeInstall(QStringLiteral("kelvo"), "old build");
    UpdateTestRig::writeFile(target + QStringLiteral("/old-only.txt"), "x");
    const QString next = makeInstall(QStringLiteral("next"), "new build");
    const QString payload = archive(next, QStringLiteral("kelvo-next.tar.gz"));
    ASSERT_EQ(UpdateInstaller::install(payload, target), QString());
    EXPECT_EQ(UpdateTestRig::readFile(target + QStringLiteral("/bin/kelvo")),
              QByteArray("new build"));
    EXPECT_FALSE(QFileInfo::exists(target + QStringLiteral("/old-only.txt")));
    const QString previous = UpdateInstaller::previousBuildPath(target);
    EXPECT_EQ(UpdateTestRig::readFile(previous + QStringLiteral("/bin/kelvo")),
              QByteArray("old build"));
    UpdateInstaller::removePreviousBuild(target);
    EXPECT_FALSE(QFileInfo::exists(previous));
}

TEST_F(UpdateInstallerTest, AnArchiveReachingOutsideItsFolderLeavesTheInstallUntouched) {
    const QString target = makeInstall(QStringLiteral("kelvo"), "old build");
    QDir().mkpath(path(QStringLiteral("evil/inner")));
    UpdateTestRig::writeFile(path(QStringLiteral("evil/escape.txt")), "escaped");
    const QString payload = path(QStringLiteral("evil.tar"));
    QProcess tar;
    // -P keeps the "../" that tar would otherwise strip.
    tar.start(QStringLiteral("tar"),
              {QStringLiteral("-P"), QStringLiteral("-cf"), payload, QStringLiteral("-C"),
               path(QStringLiteral("evil/inner")), QStringLiteral("../escape.txt")});
    ASSERT_TRUE(tar.waitForFinished(20000));
    ASSERT_EQ(tar.exitCode(), 0);
    const QString error = UpdateInstaller::install(payload, target);
    EXPECT_TRUE(error.startsWith(QStringLiteral("the update archive cannot be unpacked")))
        << error.toStdString();
    EXPECT_EQ(UpdateTestRig::readFile(target + QStringLiteral("/bin/kelvo")),
              QByteArray("old build"));
    EXPECT_FALSE(QFileInfo::exists(UpdateInstaller::previousBuildPath(target)));
    EXPECT_EQ(
        QDir(dir.path())
            .entryList(QStringList{QStringLiteral(".kelvo.update-*")}, QDir::Dirs | QDir::Hidden)
            .size(),
        0);
}

TEST_F(UpdateInstallerTest, ADamagedArchiveLeavesTheInstallUntouched) {
    const QString target = makeInstall(QStringLiteral("kelvo"), "old build");
    const QString payload = path(QStringLiteral("junk.tar.gz"));
    UpdateTestRig::writeFile(payload, QByteArray(4096, '\x7f'));
    EXPECT_FALSE(UpdateInstaller::install(payload, target).isEmpty());
    EXPECT_EQ(UpdateTestRig::readFile(target + QStringLiteral("/bin/kelvo")),
              QByteArray("old build"));
}

TEST_F(UpdateInstallerTest, AMissingTargetIsReported) {
    const QString payload = path(QStringLiteral("download"));
    UpdateTestRig::writeFile(payload, "new build");
    EXPECT_EQ(
        UpdateInstaller::install(payload, path(QStringLiteral("gone"))),
        QStringLiteral("the installed build at %1 is missing").arg(path(QStringLiteral("gone"))));
}

TEST_F(UpdateInstallerTest, TheRunningTargetIsTheFolderAboveBin) {
    qunsetenv("APPIMAGE");
    EXPECT_EQ(UpdateInstaller::runningInstallTarget(QStringLiteral("/opt/kelvo/bin/kelvo")),
              QStringLiteral("/opt/kelvo"));
    EXPECT_EQ(UpdateInstaller::runningInstallTarget(QStringLiteral("/opt/kelvo/kelvo")),
              QStringLiteral("/opt/kelvo"));
    const QString appImage = path(QStringLiteral("Kelvo.AppImage"));
    UpdateTestRig::writeFile(appImage, "image");
    qputenv("APPIMAGE", appImage.toLocal8Bit());
    EXPECT_EQ(UpdateInstaller::runningInstallTarget(QStringLiteral("/tmp/.mount_x/usr/bin/kelvo")),
              appImage);
    qunsetenv("APPIMAGE");
}

TEST_F(UpdateInstallerTest, AnArchiveWithoutTheProgramLeavesTheInstallUntouched) {
    const QString target = makeInstall(QStringLiteral("kelvo"), "old build");
    const QString other = path(QStringLiteral("other"));
    QDir().mkpath(other);
    UpdateTestRig::writeFile(other + QStringLiteral("/README"), "not a build");
    const QString payload = archive(other, QStringLiteral("other.tar.gz"));
    EXPECT_EQ(UpdateInstaller::install(payload, target),
              QStringLiteral("the update archive has no bin/kelvo"));
    EXPECT_EQ(UpdateTestRig::readFile(target + QStringLiteral("/bin/kelvo")),
              QByteArray("old build"));
    EXPECT_FALSE(QFileInfo::exists(UpdateInstaller::previousBuildPath(target)));
}

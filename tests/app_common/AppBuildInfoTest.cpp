#include "app_common/AppBuildInfo.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>

#include "foundation/fans/HelperFanController.h"
#include "foundation/fans/HwmonFanService.h"
#include "foundation/fans/HybridFanController.h"
#include "foundation/fans/LocalFanController.h"
#include "tests/QtTestPrinters.h"

namespace kelvo {
namespace {

// Restores an environment variable when the test ends.
class ScopedEnv {
public:
    explicit ScopedEnv(const char* name) : name_(name), had_(qEnvironmentVariableIsSet(name)) {
        if (had_) old_ = qgetenv(name);
    }
    ~ScopedEnv() {
        if (had_) {
            qputenv(name_, old_);
        } else {
            qunsetenv(name_);
        }
    }
    void set(const QString& value) { qputenv(name_, value.toLocal8Bit()); }
    void unset() { qunsetenv(name_); }

private:
    const char* name_;
    bool had_;
    QByteArray old_;
};

void writeFile(const QString& path, const QByteArray& contents = "x") {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    file.write(contents);
}

void setModificationTime(const QString& path, time_t seconds, long nanoseconds) {
    struct timespec times[2];
    times[0].tv_sec = seconds;
    times[0].tv_nsec = nanoseconds;
    times[1] = times[0];
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
}

AppInfoDictionary dictionaryWithBuild(const QString& build,
                                      const QString& shortVersion = QStringLiteral("2.5.0")) {
    AppInfoDictionary dictionary;
    dictionary.raw.insert(QStringLiteral("CFBundleVersion"), build);
    dictionary.raw.insert(QStringLiteral("CFBundleShortVersionString"), shortVersion);
    return dictionary;
}

class AppBuildInfoTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(temp_.isValid());
        dataHome_.set(QDir(temp_.path()).filePath(QStringLiteral("data")));
        settings_ = std::make_unique<QSettings>(
            QDir(temp_.path()).filePath(QStringLiteral("settings.ini")), QSettings::IniFormat);
    }
    void TearDown() override {
        AppBuildInfo::resetInfoDictionary();
        AppBuildInfo::setExecutablePathProvider({});
    }

    QString appFolder() const { return QDir(temp_.path()).filePath(QStringLiteral("data/Kelvo")); }
    QString inAppFolder(const QString& name) const { return QDir(appFolder()).filePath(name); }
    void makeAppFolder() const { ASSERT_TRUE(QDir().mkpath(appFolder())); }
    QVariant marker() const { return settings_->value(legacy::kResetMarkerKey); }

    QTemporaryDir temp_;
    ScopedEnv dataHome_{"XDG_DATA_HOME"};
    std::unique_ptr<QSettings> settings_;
};

// ----- One-time storage reset ----------------------------------------------------------------

TEST_F(AppBuildInfoTest, OtherBuildsLeaveOldDatabasesAloneAndSayNothing) {
    makeAppFolder();
    for (const QString& name : legacy::storageResetCandidateNames()) writeFile(inAppFolder(name));
    for (const QString& build : {QStringLiteral("342"), QStringLiteral("344")}) {
        AppBuildInfo::setInfoDictionary(dictionaryWithBuild(build));
        const auto result = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
        EXPECT_FALSE(result.applied) << build.toStdString();
        EXPECT_EQ(result.build, QStringLiteral("343"));
        EXPECT_TRUE(result.removedFiles.isEmpty());
        EXPECT_TRUE(result.failedFiles.isEmpty());
        EXPECT_EQ(result.startupMessage(), std::nullopt);
        EXPECT_FALSE(marker().isValid());
    }
    for (const QString& name : legacy::storageResetCandidateNames())
        EXPECT_TRUE(QFileInfo::exists(inAppFolder(name))) << name.toStdString();
}

TEST_F(AppBuildInfoTest, MissingBuildNumberNeverResets) {
    makeAppFolder();
    writeFile(inAppFolder(QStringLiteral("kelvo.sqlite")));
    AppBuildInfo::setInfoDictionary(AppInfoDictionary{});
    const auto result = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_FALSE(result.applied);
    EXPECT_TRUE(QFileInfo::exists(inAppFolder(QStringLiteral("kelvo.sqlite"))));
}

TEST_F(AppBuildInfoTest, Build343WithoutFilesAppliesAndWritesMarker) {
    AppBuildInfo::setInfoDictionary(dictionaryWithBuild(QStringLiteral("343")));
    const auto result = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_TRUE(result.applied);
    EXPECT_EQ(result.build, QStringLiteral("343"));
    EXPECT_TRUE(result.removedFiles.isEmpty());
    EXPECT_TRUE(result.failedFiles.isEmpty());
    ASSERT_TRUE(result.startupMessage().has_value());
    EXPECT_TRUE(result.startupMessage()->endsWith(
        QStringLiteral("; no existing capture DB files were present.")));
    EXPECT_EQ(*result.startupMessage(),
              QStringLiteral("Applied one-time storage reset for build 343; no existing capture DB "
                             "files were present."));
    EXPECT_EQ(marker().toString(), QStringLiteral("343"));
    EXPECT_TRUE(QFileInfo(appFolder()).isDir());
    // The marker reaches the settings file, not just this object.
    QSettings reread(settings_->fileName(), QSettings::IniFormat);
    EXPECT_EQ(reread.value(legacy::kResetMarkerKey).toString(), QStringLiteral("343"));
}

TEST_F(AppBuildInfoTest, Build343RemovesEveryCandidateInOrderAndNothingElse) {
    makeAppFolder();
    const QStringList candidates = legacy::storageResetCandidateNames();
    ASSERT_EQ(candidates,
              QStringList({"kelvo.sqlite", "kelvo.sqlite-wal", "kelvo.sqlite-shm", "kelvo.db",
                           "kelvo.sqlite3", "profiling.sqlite", "runtime-events.db",
                           "runtime_events.db", "telemetry.sqlite", "thermal_controller.db"}));
    // Created in reverse so that the result order cannot come from creation order.
    for (auto it = candidates.crbegin(); it != candidates.crend(); ++it)
        writeFile(inAppFolder(*it));
    writeFile(inAppFolder(QStringLiteral("notes.txt")));
    AppBuildInfo::setInfoDictionary(dictionaryWithBuild(QStringLiteral("343")));

    const auto result = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_TRUE(result.applied);
    EXPECT_EQ(result.removedFiles, candidates);
    EXPECT_TRUE(result.failedFiles.isEmpty());
    EXPECT_EQ(*result.startupMessage(),
              QStringLiteral("Applied one-time storage reset for build 343: removed ") +
                  candidates.join(QStringLiteral(", ")) + QStringLiteral("."));
    for (const QString& name : candidates) EXPECT_FALSE(QFileInfo::exists(inAppFolder(name)));
    EXPECT_TRUE(QFileInfo::exists(inAppFolder(QStringLiteral("notes.txt"))));
    EXPECT_EQ(marker().toString(), QStringLiteral("343"));
}

TEST_F(AppBuildInfoTest, Build343SkipsAbsentFilesAndNamesOnlyTheRemovedOnes) {
    makeAppFolder();
    writeFile(inAppFolder(QStringLiteral("telemetry.sqlite")));
    writeFile(inAppFolder(QStringLiteral("kelvo.sqlite-wal")));
    AppBuildInfo::setInfoDictionary(dictionaryWithBuild(QStringLiteral("343")));
    const auto result = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_EQ(result.removedFiles, QStringList({"kelvo.sqlite-wal", "telemetry.sqlite"}));
    EXPECT_EQ(*result.startupMessage(),
              QStringLiteral("Applied one-time storage reset for build 343: removed "
                             "kelvo.sqlite-wal, telemetry.sqlite."));
}

TEST_F(AppBuildInfoTest, Build343UnremovableFileGivesPartialMessageAndRetriesNextLaunch) {
    makeAppFolder();
    writeFile(inAppFolder(QStringLiteral("kelvo.sqlite")));
    // A non-empty directory where a database file would be cannot be removed, even by root.
    ASSERT_TRUE(QDir().mkpath(inAppFolder(QStringLiteral("kelvo.db"))));
    writeFile(QDir(inAppFolder(QStringLiteral("kelvo.db"))).filePath(QStringLiteral("inner")));
    AppBuildInfo::setInfoDictionary(dictionaryWithBuild(QStringLiteral("343")));

    const QString reason = QString::fromLocal8Bit(std::strerror(ENOTEMPTY));
    const auto first = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_TRUE(first.applied);
    EXPECT_EQ(first.removedFiles, QStringList({"kelvo.sqlite"}));
    EXPECT_EQ(first.failedFiles, QStringList({QStringLiteral("kelvo.db: ") + reason}));
    EXPECT_EQ(*first.startupMessage(),
              QStringLiteral("One-time storage reset for build 343 was partial. Removed: "
                             "kelvo.sqlite. Failed: kelvo.db: ") +
                  reason + QStringLiteral("."));
    EXPECT_FALSE(marker().isValid());

    // Next launch: tried again, still partial, still no marker.
    const auto second = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_TRUE(second.applied);
    EXPECT_TRUE(second.removedFiles.isEmpty());
    EXPECT_EQ(second.failedFiles, first.failedFiles);
    EXPECT_EQ(*second.startupMessage(),
              QStringLiteral("One-time storage reset for build 343 was partial. Removed: . Failed: "
                             "kelvo.db: ") +
                  reason + QStringLiteral("."));
    EXPECT_FALSE(marker().isValid());

    // Once the obstacle is gone the reset completes and the marker is written.
    ASSERT_TRUE(QFile::remove(QDir(inAppFolder(QStringLiteral("kelvo.db"))).filePath("inner")));
    const auto third = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_EQ(third.removedFiles, QStringList({"kelvo.db"}));
    EXPECT_TRUE(third.failedFiles.isEmpty());
    EXPECT_EQ(marker().toString(), QStringLiteral("343"));
}

TEST_F(AppBuildInfoTest, AppliedMarkerStopsTheResetEvenWhenFilesReappear) {
    AppBuildInfo::setInfoDictionary(dictionaryWithBuild(QStringLiteral("343")));
    ASSERT_TRUE(legacy::applyOneTimeStorageResetIfNeeded(*settings_).applied);
    writeFile(inAppFolder(QStringLiteral("kelvo.sqlite")));
    const auto again = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_FALSE(again.applied);
    EXPECT_EQ(again.startupMessage(), std::nullopt);
    EXPECT_TRUE(QFileInfo::exists(inAppFolder(QStringLiteral("kelvo.sqlite"))));
}

TEST_F(AppBuildInfoTest, MarkerOfAnotherBuildDoesNotStopTheReset) {
    settings_->setValue(legacy::kResetMarkerKey, QStringLiteral("342"));
    makeAppFolder();
    writeFile(inAppFolder(QStringLiteral("profiling.sqlite")));
    AppBuildInfo::setInfoDictionary(dictionaryWithBuild(QStringLiteral("343")));
    const auto result = legacy::applyOneTimeStorageResetIfNeeded(*settings_);
    EXPECT_TRUE(result.applied);
    EXPECT_EQ(result.removedFiles, QStringList({"profiling.sqlite"}));
    EXPECT_EQ(marker().toString(), QStringLiteral("343"));
}

TEST(OneTimeStorageResetResultTest, StartupMessageJoinsSeveralFilesWithCommas) {
    legacy::OneTimeStorageResetResult result;
    result.applied = true;
    result.build = QStringLiteral("343");
    result.removedFiles = {QStringLiteral("a.db"), QStringLiteral("b.db")};
    result.failedFiles = {QStringLiteral("c.db: busy"), QStringLiteral("d.db: gone")};
    EXPECT_EQ(*result.startupMessage(),
              QStringLiteral("One-time storage reset for build 343 was partial. Removed: a.db, "
                             "b.db. Failed: c.db: busy, d.db: gone."));
    result.applied = false;
    EXPECT_EQ(result.startupMessage(), std::nullopt);
}

// ----- Paths ---------------------------------------------------------------------------------

TEST_F(AppBuildInfoTest, DefaultDatabasePathIsInTheApplicationFolderWhichItCreates) {
    ASSERT_FALSE(QFileInfo::exists(appFolder()));
    const QString path = AppBuildInfo::defaultDatabasePath();
    EXPECT_EQ(QFileInfo(path).absoluteFilePath(),
              QFileInfo(inAppFolder(QStringLiteral("kelvo.sqlite"))).absoluteFilePath());
    EXPECT_TRUE(QFileInfo(appFolder()).isDir());
    EXPECT_FALSE(QFileInfo::exists(path));
}

class ProfilesDirectoryTest : public AppBuildInfoTest {
protected:
    void SetUp() override {
        AppBuildInfoTest::SetUp();
        previousCwd_ = QDir::currentPath();
        cwd_ = QDir(temp_.path()).filePath(QStringLiteral("cwd"));
        ASSERT_TRUE(QDir().mkpath(cwd_));
        ASSERT_TRUE(QDir::setCurrent(cwd_));
        cwd_ = QDir::currentPath();
    }
    void TearDown() override {
        QDir::setCurrent(previousCwd_);
        AppBuildInfoTest::TearDown();
    }
    QString previousCwd_;
    QString cwd_;
    ScopedEnv repoRoot_{"KELVO_REPO_ROOT"};
};

TEST_F(ProfilesDirectoryTest, RepositoryRootVariableWins) {
    ASSERT_TRUE(QDir(cwd_).mkdir(QStringLiteral("Docs")));
    repoRoot_.set(QStringLiteral("/srv/kelvo-checkout"));
    EXPECT_EQ(AppBuildInfo::defaultProfilesBaseDirectory(),
              QStringLiteral("/srv/kelvo-checkout/Docs/profiles"));
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/srv/kelvo-checkout")));
}

TEST_F(ProfilesDirectoryTest, EmptyRepositoryRootFallsThroughToDocsInCurrentDirectory) {
    repoRoot_.set(QString());
    ASSERT_TRUE(QDir(cwd_).mkdir(QStringLiteral("Docs")));
    EXPECT_EQ(AppBuildInfo::defaultProfilesBaseDirectory(),
              QDir(cwd_).filePath(QStringLiteral("Docs/profiles")));
    EXPECT_FALSE(QFileInfo::exists(QDir(cwd_).filePath(QStringLiteral("Docs/profiles"))));
}

TEST_F(ProfilesDirectoryTest, DocsEntryCountsEvenWhenItIsAFile) {
    repoRoot_.unset();
    writeFile(QDir(cwd_).filePath(QStringLiteral("Docs")));
    EXPECT_EQ(AppBuildInfo::defaultProfilesBaseDirectory(),
              QDir(cwd_).filePath(QStringLiteral("Docs/profiles")));
}

TEST_F(ProfilesDirectoryTest, WithoutEitherItUsesTheApplicationFolderWithoutCreatingIt) {
    repoRoot_.unset();
    EXPECT_EQ(QFileInfo(AppBuildInfo::defaultProfilesBaseDirectory()).absoluteFilePath(),
              QFileInfo(inAppFolder(QStringLiteral("profiles"))).absoluteFilePath());
    EXPECT_FALSE(QFileInfo::exists(inAppFolder(QStringLiteral("profiles"))));
}

// ----- Info dictionary -----------------------------------------------------------------------

TEST_F(AppBuildInfoTest, BundleValueTrimsAndTreatsBlankAsAbsent) {
    AppInfoDictionary dictionary;
    dictionary.localized.insert(QStringLiteral("Blank"), QStringLiteral("   "));
    dictionary.raw.insert(QStringLiteral("Blank"), QStringLiteral(" \t "));
    dictionary.localized.insert(QStringLiteral("OnlyLocalizedBlank"), QStringLiteral("  \n"));
    dictionary.raw.insert(QStringLiteral("OnlyLocalizedBlank"), QStringLiteral("\n 7.1 \n"));
    dictionary.localized.insert(QStringLiteral("Both"), QStringLiteral(" localized "));
    dictionary.raw.insert(QStringLiteral("Both"), QStringLiteral("raw"));
    dictionary.raw.insert(QStringLiteral("Number"), 343);
    AppBuildInfo::setInfoDictionary(dictionary);

    EXPECT_EQ(AppBuildInfo::bundleValue(QStringLiteral("Blank")), std::nullopt);
    EXPECT_EQ(AppBuildInfo::bundleValue(QStringLiteral("OnlyLocalizedBlank")),
              std::optional(QStringLiteral("7.1")));
    EXPECT_EQ(AppBuildInfo::bundleValue(QStringLiteral("Both")),
              std::optional(QStringLiteral("localized")));
    EXPECT_EQ(AppBuildInfo::bundleValue(QStringLiteral("Number")),
              std::optional(QStringLiteral("343")));
    EXPECT_EQ(AppBuildInfo::bundleValue(QStringLiteral("Missing")), std::nullopt);
}

TEST_F(AppBuildInfoTest, BlankBuildNumberCountsAsAbsentForTheReset) {
    AppInfoDictionary dictionary;
    dictionary.raw.insert(QStringLiteral("CFBundleVersion"), QStringLiteral("   "));
    AppBuildInfo::setInfoDictionary(dictionary);
    EXPECT_FALSE(legacy::applyOneTimeStorageResetIfNeeded(*settings_).applied);
    // Padding around the right number is not a different build.
    AppBuildInfo::setInfoDictionary(dictionaryWithBuild(QStringLiteral(" 343\n")));
    EXPECT_TRUE(legacy::applyOneTimeStorageResetIfNeeded(*settings_).applied);
}

TEST_F(AppBuildInfoTest, CompiledInDictionaryCarriesTheBuildsVersionAndNumber) {
    AppBuildInfo::resetInfoDictionary();
    EXPECT_EQ(AppBuildInfo::bundleValue(QStringLiteral("CFBundleShortVersionString")),
              std::optional(QStringLiteral(KELVO_VERSION_STRING).trimmed()));
    EXPECT_EQ(AppBuildInfo::bundleValue(QStringLiteral("CFBundleVersion")),
              std::optional(QStringLiteral(KELVO_BUILD_NUMBER_STRING).trimmed()));
}

// ----- Executable identity -------------------------------------------------------------------

TEST_F(AppBuildInfoTest, FingerprintReportsSizeAndWholeSecondsOfTheExecutable) {
    const QString exe = QDir(temp_.path()).filePath(QStringLiteral("kelvo-exe"));
    writeFile(exe, QByteArray(1234, 'k'));
    setModificationTime(exe, 1700000000, 750000000);
    AppBuildInfo::setExecutablePathProvider([exe] { return std::optional(exe); });
    EXPECT_EQ(AppBuildInfo::executableFingerprint(), QStringLiteral("size=1234,mtime=1700000000"));
}

TEST_F(AppBuildInfoTest, FingerprintCutsFractionsTowardZeroBefore1970) {
    const QString exe = QDir(temp_.path()).filePath(QStringLiteral("old-exe"));
    writeFile(exe, QByteArray(3, 'k'));
    setModificationTime(exe, -11, 500000000);  // -10.5 s
    AppBuildInfo::setExecutablePathProvider([exe] { return std::optional(exe); });
    EXPECT_EQ(AppBuildInfo::executableFingerprint(), QStringLiteral("size=3,mtime=-10"));
}

TEST_F(AppBuildInfoTest, FingerprintWithoutExecutableIsUnknownAndWithoutAttributesUnreadable) {
    AppBuildInfo::setExecutablePathProvider([] { return std::optional<QString>(); });
    EXPECT_EQ(AppBuildInfo::executableFingerprint(), QStringLiteral("unknown"));
    const QString missing = QDir(temp_.path()).filePath(QStringLiteral("gone"));
    AppBuildInfo::setExecutablePathProvider([missing] { return std::optional(missing); });
    EXPECT_EQ(AppBuildInfo::executableFingerprint(), QStringLiteral("unreadable"));
}

TEST_F(AppBuildInfoTest, DefaultExecutableIsTheRunningBinary) {
    const auto path = AppBuildInfo::executablePath();
    ASSERT_TRUE(path.has_value());
    const QFileInfo self(QCoreApplication::applicationFilePath());
    EXPECT_EQ(QFileInfo(*path).canonicalFilePath(), self.canonicalFilePath());
    EXPECT_EQ(AppBuildInfo::executableFingerprint(),
              QStringLiteral("size=%1,mtime=%2")
                  .arg(self.size())
                  .arg(self.lastModified().toSecsSinceEpoch()));
}

TEST_F(AppBuildInfoTest, BuildStampIsLocalModificationTimeOrUnknown) {
    const QString exe = QDir(temp_.path()).filePath(QStringLiteral("kelvo-exe"));
    writeFile(exe);
    const time_t when = 1709622489;  // early March 2024
    setModificationTime(exe, when, 0);
    AppBuildInfo::setExecutablePathProvider([exe] { return std::optional(exe); });
    struct tm local {};
    ASSERT_NE(::localtime_r(&when, &local), nullptr);
    char expected[32];
    ASSERT_GT(std::strftime(expected, sizeof expected, "%m/%d %H:%M:%S", &local), 0u);
    EXPECT_EQ(AppBuildInfo::executableBuildStamp(), QString::fromLatin1(expected));

    const QString missing = QDir(temp_.path()).filePath(QStringLiteral("gone"));
    AppBuildInfo::setExecutablePathProvider([missing] { return std::optional(missing); });
    EXPECT_EQ(AppBuildInfo::executableBuildStamp(), QStringLiteral("unknown"));
    AppBuildInfo::setExecutablePathProvider([] { return std::optional<QString>(); });
    EXPECT_EQ(AppBuildInfo::executableBuildStamp(), QStringLiteral("unknown"));
}

TEST_F(AppBuildInfoTest, InitialBuildVersionLabelCombinesVersionBuildAndStamp) {
    const QString exe = QDir(temp_.path()).filePath(QStringLiteral("kelvo-exe"));
    writeFile(exe);
    AppBuildInfo::setExecutablePathProvider([exe] { return std::optional(exe); });
    AppBuildInfo::setInfoDictionary(dictionaryWithBuild(QStringLiteral("343"), " 2.5.0 "));
    EXPECT_EQ(AppBuildInfo::initialBuildVersionLabel(),
              QStringLiteral("Build 2.5.0 (343) \u2022 ") + AppBuildInfo::executableBuildStamp());
    EXPECT_TRUE(AppBuildInfo::initialBuildVersionLabel().contains(
        QRegularExpression(QStringLiteral(" \u2022 \\d\\d/\\d\\d \\d\\d:\\d\\d:\\d\\d$"))));

    AppBuildInfo::setInfoDictionary(AppInfoDictionary{});
    AppBuildInfo::setExecutablePathProvider([] { return std::optional<QString>(); });
    EXPECT_EQ(AppBuildInfo::initialBuildVersionLabel(),
              QStringLiteral("Build unknown (unknown) \u2022 unknown"));
}

// ----- Fan back-end and helper ---------------------------------------------------------------

class NamedController : public FanController {
public:
    explicit NamedController(std::string name) : name_(std::move(name)) {}
    std::string typeName() const override { return name_; }
    FanReadResult readFans() override { return {}; }
    FanResult setTargets(const std::vector<double>&) override { return FanResult::success(); }
    FanResult releaseToAutomatic() override { return FanResult::success(); }
    bool holdsControl() const override { return false; }

private:
    std::string name_;
};

class VersionedController : public NamedController, public HelperVersionSource {
public:
    explicit VersionedController(std::optional<std::string> version)
        : NamedController("VersionedController"), version_(std::move(version)) {}
    HelperVersionSource* helperVersionSource() override { return this; }
    std::optional<std::string> helperVersion() override {
        askedOn = QThread::currentThread();
        return version_;
    }
    QThread* askedOn = nullptr;

private:
    std::optional<std::string> version_;
};

TEST(FanBackendLabelTest, KnownBackEndsHaveShortLabelsOthersTheirTypeName) {
    EXPECT_EQ(AppBuildInfo::fanBackendLabel(NamedController("HelperFanController")), "xpc");
    EXPECT_EQ(AppBuildInfo::fanBackendLabel(NamedController("HybridFanController")), "hybrid");
    EXPECT_EQ(AppBuildInfo::fanBackendLabel(NamedController("LocalFanController")), "local");
    EXPECT_EQ(AppBuildInfo::fanBackendLabel(NamedController("SimulatedFanController")),
              "simulated");
    EXPECT_EQ(AppBuildInfo::fanBackendLabel(NamedController("BenchFanController")),
              "BenchFanController");
}

TEST(FanBackendLabelTest, RealBackEndsAreLabelled) {
    QTemporaryDir root;
    ASSERT_TRUE(root.isValid());
    auto helper = std::make_shared<HelperFanController>(
        QDir(root.path()).filePath(QStringLiteral("helper.sock")).toStdString(), 50);
    auto local = std::make_shared<LocalFanController>(
        std::make_shared<HwmonFanService>(root.path().toStdString()));
    HybridFanController hybrid(helper, local, false);
    EXPECT_EQ(AppBuildInfo::fanBackendLabel(*helper), "xpc");
    EXPECT_EQ(AppBuildInfo::fanBackendLabel(*local), "local");
    EXPECT_EQ(AppBuildInfo::fanBackendLabel(hybrid), "hybrid");
}

TEST(ResolveHelperVersionTest, HelperBackedControllerIsAskedOffTheMainThread) {
    auto controller = std::make_shared<VersionedController>(std::string("1.4.2"));
    const QString version = QCoro::waitFor(AppBuildInfo::resolveHelperVersion(controller));
    EXPECT_EQ(version, QStringLiteral("1.4.2"));
    ASSERT_NE(controller->askedOn, nullptr);
    EXPECT_NE(controller->askedOn, QThread::currentThread());
}

TEST(ResolveHelperVersionTest, SilentHelperIsUnavailable) {
    auto controller = std::make_shared<VersionedController>(std::nullopt);
    EXPECT_EQ(QCoro::waitFor(AppBuildInfo::resolveHelperVersion(controller)),
              QStringLiteral("unavailable"));
}

TEST(ResolveHelperVersionTest, UnreachableRealHelperIsUnavailable) {
    QTemporaryDir root;
    ASSERT_TRUE(root.isValid());
    auto helper = std::make_shared<HelperFanController>(
        QDir(root.path()).filePath(QStringLiteral("helper.sock")).toStdString(), 50);
    EXPECT_EQ(QCoro::waitFor(AppBuildInfo::resolveHelperVersion(helper)),
              QStringLiteral("unavailable"));
}

TEST(ResolveHelperVersionTest, BackEndsWithoutHelperAreNotApplicable) {
    auto controller = std::make_shared<NamedController>("SimulatedFanController");
    EXPECT_EQ(QCoro::waitFor(AppBuildInfo::resolveHelperVersion(controller)),
              QStringLiteral("n/a"));
}

// ----- Durations and folder names ------------------------------------------------------------

TEST(FormatDurationTest, WholeSecondsAsMinutesAndSeconds) {
    EXPECT_EQ(AppBuildInfo::formatDuration(59.9), QStringLiteral("00:59"));
    EXPECT_EQ(AppBuildInfo::formatDuration(3725), QStringLiteral("62:05"));
    EXPECT_EQ(AppBuildInfo::formatDuration(0), QStringLiteral("00:00"));
    EXPECT_EQ(AppBuildInfo::formatDuration(60), QStringLiteral("01:00"));
    EXPECT_EQ(AppBuildInfo::formatDuration(6000.99), QStringLiteral("100:00"));
}

TEST(FormatDurationDeathTest, NonFiniteOrOutOfRangeIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(AppBuildInfo::formatDuration(std::numeric_limits<double>::quiet_NaN()), "");
    EXPECT_DEATH(AppBuildInfo::formatDuration(std::numeric_limits<double>::infinity()), "");
    EXPECT_DEATH(AppBuildInfo::formatDuration(1e19), "");
}

TEST(ProfileTimestampFolderNameTest, UtcCompactPattern) {
    const QDateTime utc(QDate(2024, 3, 5), QTime(7, 8, 9), Qt::UTC);
    EXPECT_EQ(AppBuildInfo::profileTimestampFolderName(utc), QStringLiteral("20240305-070809"));
    // A moment given in another zone is still named by its UTC time.
    const QDateTime plusTwo(QDate(2024, 1, 1), QTime(1, 30, 0), Qt::OffsetFromUTC, 2 * 3600);
    EXPECT_EQ(AppBuildInfo::profileTimestampFolderName(plusTwo), QStringLiteral("20231231-233000"));
}

TEST(ProfileTimestampFolderNameTest, NowIsTheCurrentUtcTime) {
    const QDateTime before = QDateTime::currentDateTimeUtc();
    const QString name = AppBuildInfo::profileTimestampFolderName();
    const QDateTime after = QDateTime::currentDateTimeUtc();
    ASSERT_TRUE(QRegularExpression(QStringLiteral("^\\d{8}-\\d{6}$")).match(name).hasMatch());
    const QDateTime parsed = QDateTime::fromString(name, QStringLiteral("yyyyMMdd-HHmmss"));
    QDateTime asUtc(parsed.date(), parsed.time(), Qt::UTC);
    EXPECT_GE(asUtc.toSecsSinceEpoch(), before.toSecsSinceEpoch());
    EXPECT_LE(asUtc.toSecsSinceEpoch(), after.toSecsSinceEpoch());
}

}  // namespace
}  // namespace kelvo

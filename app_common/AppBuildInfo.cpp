#include "app_common/AppBuildInfo.h"

#include <sys/stat.h>
#include <QCoroFuture>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFuture>
#include <QLocale>
#include <QPromise>
#include <QStandardPaths>
#include <QThreadPool>
#include <QtGlobal>
#include <cmath>
#include <filesystem>
#include <system_error>

namespace kelvo {

namespace {

std::optional<AppInfoDictionary>& installedDictionary() {
    static std::optional<AppInfoDictionary> dictionary;
    return dictionary;
}

AppBuildInfo::ExecutablePathProvider& installedExecutableProvider() {
    static AppBuildInfo::ExecutablePathProvider provider;
    return provider;
}

std::optional<QString> procSelfExe() {
    std::error_code error;
    const auto target = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error || target.empty()) return std::nullopt;
    return QFile::decodeName(target.c_str());
}

std::optional<struct stat> statFile(const QString& path) {
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0) return std::nullopt;
    return info;
}

std::optional<QString> trimmedText(const QVariant& value) {
    if (!value.isValid()) return std::nullopt;
    QString text = value.toString().trimmed();
    if (text.isEmpty()) return std::nullopt;
    return text;
}

}  // namespace

AppInfoDictionary AppInfoDictionary::compiledIn() {
    AppInfoDictionary dictionary;
    dictionary.raw.insert(QString::fromLatin1(legacy::kShortVersionKey),
                          QStringLiteral(KELVO_VERSION_STRING));
    dictionary.raw.insert(QString::fromLatin1(legacy::kBuildNumberKey),
                          QStringLiteral(KELVO_BUILD_NUMBER_STRING));
    return dictionary;
}

namespace AppBuildInfo {

QString applicationFolder() {
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (base.isEmpty()) qFatal("Kelvo: the user's data location is unavailable");
    return QDir(base).filePath(QString::fromLatin1(kApplicationFolderName));
}

QString defaultDatabasePath() {
    const QDir folder(applicationFolder());
    QDir().mkpath(folder.path());
    return folder.filePath(QString::fromLatin1(kDefaultDatabaseFileName));
}

QString defaultProfilesBaseDirectory() {
    const QString repoRoot = qEnvironmentVariable(kRepoRootEnvironmentVariable);
    if (!repoRoot.isEmpty())
        return QDir::cleanPath(QDir(repoRoot).absoluteFilePath(QStringLiteral("Docs/profiles")));
    const QDir current = QDir::current();
    if (QFileInfo::exists(current.filePath(QStringLiteral("Docs"))))
        return QDir::cleanPath(current.absoluteFilePath(QStringLiteral("Docs/profiles")));
    return QDir(applicationFolder()).filePath(QStringLiteral("profiles"));
}

const AppInfoDictionary& infoDictionary() {
    static const AppInfoDictionary compiled = AppInfoDictionary::compiledIn();
    const auto& installed = installedDictionary();
    return installed ? *installed : compiled;
}

void setInfoDictionary(AppInfoDictionary dictionary) {
    installedDictionary() = std::move(dictionary);
}

void resetInfoDictionary() {
    installedDictionary().reset();
}

std::optional<QString> bundleValue(const QString& key) {
    const AppInfoDictionary& dictionary = infoDictionary();
    if (auto localized = trimmedText(dictionary.localized.value(key))) return localized;
    return trimmedText(dictionary.raw.value(key));
}

std::optional<QString> executablePath() {
    const auto& provider = installedExecutableProvider();
    return provider ? provider() : procSelfExe();
}

void setExecutablePathProvider(ExecutablePathProvider provider) {
    installedExecutableProvider() = std::move(provider);
}

QString executableBuildStamp() {
    const auto path = executablePath();
    if (!path) return QStringLiteral("unknown");
    const auto info = statFile(*path);
    if (!info) return QStringLiteral("unknown");
    const qint64 msecs = qint64(info->st_mtim.tv_sec) * 1000 + info->st_mtim.tv_nsec / 1000000;
    const QDateTime modified = QDateTime::fromMSecsSinceEpoch(msecs, Qt::LocalTime);
    return QLocale::c().toString(modified, QStringLiteral("MM/dd HH:mm:ss"));
}

QString initialBuildVersionLabel() {
    const QString unknown = QStringLiteral("unknown");
    return QStringLiteral("Build ") +
           bundleValue(QString::fromLatin1(legacy::kShortVersionKey)).value_or(unknown) +
           QStringLiteral(" (") +
           bundleValue(QString::fromLatin1(legacy::kBuildNumberKey)).value_or(unknown) +
           QStringLiteral(") \u2022 ") + executableBuildStamp();
}

QString executableFingerprint() {
    const auto path = executablePath();
    if (!path) return QStringLiteral("unknown");
    const auto info = statFile(*path);
    if (!info) return QStringLiteral("unreadable");
    // Whole seconds, cut toward zero (tv_sec alone rounds down before 1970).
    qint64 seconds = info->st_mtim.tv_sec;
    if (seconds < 0 && info->st_mtim.tv_nsec > 0) seconds += 1;
    return QStringLiteral("size=%1,mtime=%2").arg(qint64(info->st_size)).arg(seconds);
}

QString fanBackendLabel(const FanController& controller) {
    switch (controller.backendKind()) {
        case FanBackendKind::helper: return QString::fromLatin1(legacy::kHelperBackendLabel);
        case FanBackendKind::hybrid: return QStringLiteral("hybrid");
        case FanBackendKind::local: return QStringLiteral("local");
        case FanBackendKind::simulated: return QStringLiteral("simulated");
        case FanBackendKind::other: break;
    }
    return fanBackendLabelForTypeName(QString::fromStdString(controller.typeName()));
}

QString fanBackendLabelForTypeName(const QString& typeName) {
    if (typeName == QLatin1String("HelperFanController"))
        return QString::fromLatin1(legacy::kHelperBackendLabel);
    if (typeName == QLatin1String("HybridFanController")) return QStringLiteral("hybrid");
    if (typeName == QLatin1String("LocalFanController")) return QStringLiteral("local");
    if (typeName == QLatin1String("SimulatedFanController")) return QStringLiteral("simulated");
    return typeName;
}

QCoro::Task<QString> resolveHelperVersion(std::shared_ptr<FanController> controller) {
    if (!controller || !controller->helperVersionSource()) co_return QStringLiteral("n/a");
    // The query may wait on the helper's socket: keep it off the main thread.
    auto promise = std::make_shared<QPromise<std::optional<std::string>>>();
    QFuture<std::optional<std::string>> future = promise->future();
    promise->start();
    QThreadPool::globalInstance()->start([promise, controller] {
        promise->addResult(controller->helperVersionSource()->helperVersion());
        promise->finish();
    });
    const std::optional<std::string> version = co_await future;
    co_return version ? QString::fromStdString(*version) : QStringLiteral("unavailable");
}

QString formatDuration(double seconds) {
    // The same range a 64-bit conversion accepts; anything else is a programming error.
    if (!std::isfinite(seconds) || seconds < -9223372036854775808.0 ||
        seconds >= 9223372036854775808.0)
        qFatal("Kelvo: duration %f cannot be shown as whole seconds", seconds);
    const auto total = static_cast<long long>(seconds);
    return QString::asprintf("%02lld:%02lld", total / 60, total % 60);
}

QString profileTimestampFolderName() {
    return profileTimestampFolderName(QDateTime::currentDateTimeUtc());
}

QString profileTimestampFolderName(const QDateTime& moment) {
    return QLocale::c().toString(moment.toUTC(), QStringLiteral("yyyyMMdd-HHmmss"));
}

}  // namespace AppBuildInfo

}  // namespace kelvo

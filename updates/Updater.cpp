#include "updates/Updater.h"

#include <QDir>
#include <QFileInfo>
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "updates/UpdateInstaller.h"
#include "updates/UpdateSignature.h"

namespace kelvo {

namespace {

QString key(const char* name) {
    return QString::fromLatin1(name);
}

double sanitisedInterval(double seconds) {
    if (!std::isfinite(seconds) || seconds <= 0) return Updater::kDefaultCheckInterval;
    return std::max(seconds, Updater::kMinimumCheckInterval);
}

// The enclosure's file name, reduced to a safe local name.
QString payloadName(const AppcastItem& item) {
    QString name = QFileInfo(item.enclosureUrl.path()).fileName();
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    if (name.isEmpty() || name.startsWith(QLatin1Char('.'))) name.prepend(QStringLiteral("update"));
    return name;
}

}  // namespace

Updater::Updater(UpdaterConfiguration configuration, QObject* parent)
    : QObject(parent), configuration_(std::move(configuration)) {
    settings_ = configuration_.settings;
    if (!settings_) {
        ownedSettings_ =
            std::make_unique<QSettings>(QStringLiteral("Kelvo"), QStringLiteral("Kelvo"));
        settings_ = ownedSettings_.get();
    }
    automaticallyChecks_ = settings_->value(key(kAutomaticallyChecksKey), true).toBool();
    automaticallyDownloads_ = settings_->value(key(kAutomaticallyDownloadsKey), false).toBool();
    checkInterval_ = sanitisedInterval(
        settings_->value(key(kCheckIntervalKey), kDefaultCheckInterval).toDouble());
    allowsAutomaticUpdates_ = UpdateSignature::publicKeyProblem(configuration_.publicKey).isEmpty();
    transfer_.setTransferTimeout(configuration_.transferTimeoutMs);
    scheduleTimer_.setSingleShot(true);
    connect(&scheduleTimer_, &QTimer::timeout, this, &Updater::onScheduleTimer);
    canCheck_ = !configuration_.feedUrl.isEmpty();
}

Updater::~Updater() = default;

void Updater::setAutomaticallyChecksForUpdates(bool enabled) {
    if (automaticallyChecks_ == enabled) return;
    automaticallyChecks_ = enabled;
    settings_->setValue(key(kAutomaticallyChecksKey), enabled);
    emit automaticallyChecksForUpdatesChanged(enabled);
    scheduleNextCheck();
}

void Updater::setAutomaticallyDownloadsUpdates(bool enabled) {
    if (automaticallyDownloads_ == enabled) return;
    automaticallyDownloads_ = enabled;
    settings_->setValue(key(kAutomaticallyDownloadsKey), enabled);
    emit automaticallyDownloadsUpdatesChanged(enabled);
}

void Updater::setUpdateCheckInterval(double seconds) {
    const double interval = sanitisedInterval(seconds);
    if (checkInterval_ == interval) return;
    checkInterval_ = interval;
    settings_->setValue(key(kCheckIntervalKey), interval);
    emit updateCheckIntervalChanged(interval);
    scheduleNextCheck();
}

void Updater::start(int firstCheckDelayMs) {
    // This build is running, so the one it replaced is no longer needed as a way back.
    if (!configuration_.installTarget.isEmpty())
        UpdateInstaller::removePreviousBuild(configuration_.installTarget);
    started_ = true;
    firstCheckDelayMs_ = std::max(0, firstCheckDelayMs);
    scheduleNextCheck();
}

void Updater::scheduleNextCheck() {
    scheduleTimer_.stop();
    nextCheck_ = {};
    if (!started_ || !automaticallyChecks_ || configuration_.feedUrl.isEmpty()) return;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QDateTime last = settings_->value(key(kLastCheckKey)).toDateTime();
    QDateTime due = last.isValid() && last <= now
                        ? last.addMSecs(static_cast<qint64>(checkInterval_ * 1000))
                        : now;
    due = std::max(due, now.addMSecs(firstCheckDelayMs_));
    nextCheck_ = due;
    scheduleTimer_.start(static_cast<int>(std::min<qint64>(now.msecsTo(due), INT32_MAX)));
}

void Updater::onScheduleTimer() {
    // A timer runs at most about 24 days, a monthly interval is longer: wait on when early.
    if (nextCheck_.isValid() && QDateTime::currentDateTimeUtc() < nextCheck_) {
        scheduleTimer_.start(static_cast<int>(
            std::min<qint64>(QDateTime::currentDateTimeUtc().msecsTo(nextCheck_), INT32_MAX)));
        return;
    }
    // The user's own check or an install is running: try again a little later.
    if (busy_) {
        scheduleTimer_.start(kBusyRetryMs);
        return;
    }
    checkForUpdatesInBackground();
}

void Updater::recordCheck() {
    settings_->setValue(key(kLastCheckKey), QDateTime::currentDateTimeUtc());
    // After launch the schedule follows the interval alone.
    firstCheckDelayMs_ = 0;
    scheduleNextCheck();
}

void Updater::checkForUpdates() {
    check(true);
}

void Updater::checkForUpdatesInBackground() {
    check(false);
}

void Updater::check(bool userInitiated) {
    if (busy_) return;
    if (configuration_.feedUrl.isEmpty()) {
        fail(QStringLiteral("No update feed is configured for this build."), userInitiated);
        return;
    }
    setBusy(true);
    transfer_.fetch(configuration_.feedUrl, Appcast::kMaximumBytes,
                    [this, userInitiated](const QByteArray& body, const QString& error) {
                        handleFeed(body, error, userInitiated);
                    });
}

void Updater::handleFeed(const QByteArray& body, const QString& error, bool userInitiated) {
    recordCheck();
    if (!error.isEmpty()) {
        fail(QStringLiteral("The update check failed: %1.").arg(error), userInitiated);
        return;
    }
    const AppcastParseResult parsed = Appcast::parse(body);
    if (!parsed.ok()) {
        fail(QStringLiteral("The update feed cannot be read: %1.").arg(parsed.error),
             userInitiated);
        return;
    }
    if (parsed.items.isEmpty() && !parsed.skipped.isEmpty()) {
        fail(QStringLiteral("The update feed has no usable item (%1).")
                 .arg(parsed.skipped.join(QStringLiteral("; "))),
             userInitiated);
        return;
    }
    const auto item = Appcast::newestApplicableItem(parsed.items, configuration_.buildVersion,
                                                    configuration_.systemVersion);
    setBusy(false);
    if (!item) {
        emit updateNotFound(userInitiated);
        return;
    }
    if (!userInitiated && automaticallyDownloads_ && allowsAutomaticUpdates_) {
        startInstall(*item, false);
        return;
    }
    emit updateFound(*item, userInitiated);
}

void Updater::installUpdate(const AppcastItem& item) {
    startInstall(item, true);
}

void Updater::startInstall(const AppcastItem& item, bool userInitiated) {
    if (busy_) return;
    const QString keyProblem = UpdateSignature::publicKeyProblem(configuration_.publicKey);
    if (!keyProblem.isEmpty()) {
        fail(QStringLiteral("The update was not installed: %1, and Kelvo installs no unverified "
                            "build.")
                 .arg(keyProblem),
             userInitiated);
        return;
    }
    workDirectory_ = std::make_unique<QTemporaryDir>();
    if (!workDirectory_->isValid()) {
        fail(QStringLiteral("The update cannot be downloaded: no temporary folder (%1).")
                 .arg(workDirectory_->errorString()),
             userInitiated);
        return;
    }
    setBusy(true);
    const QString payload = workDirectory_->filePath(payloadName(item));
    transfer_.download(
        item.enclosureUrl, payload, item.enclosureLength,
        [this](qint64 received, qint64 total) { emit downloadProgress(received, total); },
        [this, item, payload, userInitiated](const QString& error) {
            handleDownload(item, payload, error, userInitiated);
        });
}

void Updater::handleDownload(const AppcastItem& item, const QString& payload, const QString& error,
                             bool userInitiated) {
    if (!error.isEmpty()) {
        fail(QStringLiteral("The update download failed: %1.").arg(error), userInitiated);
        return;
    }
    const QString invalid = UpdateSignature::verifyFile(payload, item.enclosureLength,
                                                        item.edSignature, configuration_.publicKey);
    if (!invalid.isEmpty()) {
        fail(QStringLiteral("The update was not installed: %1.").arg(invalid), userInitiated);
        return;
    }
    const QString installError = UpdateInstaller::install(payload, configuration_.installTarget);
    workDirectory_.reset();
    if (!installError.isEmpty()) {
        fail(QStringLiteral("The update could not be installed: %1.").arg(installError),
             userInitiated);
        return;
    }
    setBusy(false);
    emit updateInstalled(item, configuration_.installTarget);
}

void Updater::cancel() {
    transfer_.cancel();
    workDirectory_.reset();
    setBusy(false);
}

void Updater::fail(const QString& message, bool userInitiated) {
    transfer_.cancel();
    workDirectory_.reset();
    setBusy(false);
    emit updateFailed(message, userInitiated);
}

void Updater::setBusy(bool busy) {
    busy_ = busy;
    refreshCanCheck();
}

void Updater::refreshCanCheck() {
    const bool canCheck = !busy_ && !configuration_.feedUrl.isEmpty();
    if (canCheck_ == canCheck) return;
    canCheck_ = canCheck;
    emit canCheckForUpdatesChanged(canCheck);
}

}  // namespace kelvo

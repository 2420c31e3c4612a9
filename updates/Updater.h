// Kelvo's updater: checks the feed on request and on a schedule, offers the newest applicable
// build, downloads it with progress, verifies its length and Ed25519 signature against the key
// compiled into this build, and installs it in place of the running build. Its preferences
// persist in the settings under "kelvo.updates.*". Failures end in updateFailed with a sentence
// a user can act on; none of them touches the installed build.
#pragma once

#include <QDateTime>
#include <QObject>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <memory>

#include "updates/Appcast.h"
#include "updates/UpdateTransfer.h"
#include "updates/UpdaterConfiguration.h"

namespace kelvo {

class Updater : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool automaticallyChecksForUpdates READ automaticallyChecksForUpdates WRITE
                   setAutomaticallyChecksForUpdates NOTIFY automaticallyChecksForUpdatesChanged)
    Q_PROPERTY(bool automaticallyDownloadsUpdates READ automaticallyDownloadsUpdates WRITE
                   setAutomaticallyDownloadsUpdates NOTIFY automaticallyDownloadsUpdatesChanged)
    Q_PROPERTY(double updateCheckInterval READ updateCheckInterval WRITE setUpdateCheckInterval
                   NOTIFY updateCheckIntervalChanged)
    Q_PROPERTY(bool allowsAutomaticUpdates READ allowsAutomaticUpdates CONSTANT)
    Q_PROPERTY(bool canCheckForUpdates READ canCheckForUpdates NOTIFY canCheckForUpdatesChanged)
public:
    static constexpr char kAutomaticallyChecksKey[] = "kelvo.updates.automatically_checks";
    static constexpr char kAutomaticallyDownloadsKey[] = "kelvo.updates.automatically_downloads";
    static constexpr char kCheckIntervalKey[] = "kelvo.updates.check_interval";
    static constexpr char kLastCheckKey[] = "kelvo.updates.last_check_time";
    static constexpr double kDefaultCheckInterval = 86400;
    static constexpr double kMinimumCheckInterval = 3600;

    explicit Updater(UpdaterConfiguration configuration, QObject* parent = nullptr);
    ~Updater() override;

    const UpdaterConfiguration& configuration() const { return configuration_; }
    // A distribution's package has none: updates come from its package manager.
    bool hasFeed() const { return !configuration_.feedUrl.isEmpty(); }

    bool automaticallyChecksForUpdates() const { return automaticallyChecks_; }
    void setAutomaticallyChecksForUpdates(bool enabled);
    bool automaticallyDownloadsUpdates() const { return automaticallyDownloads_; }
    void setAutomaticallyDownloadsUpdates(bool enabled);
    // Seconds between scheduled checks; at least an hour.
    double updateCheckInterval() const { return checkInterval_; }
    void setUpdateCheckInterval(double seconds);
    // Updates may be installed without asking: this build can verify what it installs.
    bool allowsAutomaticUpdates() const { return allowsAutomaticUpdates_; }
    // A feed is configured and no check or install is under way.
    bool canCheckForUpdates() const { return canCheck_; }

    // Removes the build the last install kept beside this one, and starts the schedule (the
    // first scheduled check comes after firstCheckDelayMs at the earliest, so a launch is never
    // slowed by it).
    void start(int firstCheckDelayMs = 60000);
    // The moment of the next scheduled check; invalid while none is scheduled.
    QDateTime nextScheduledCheck() const { return nextCheck_; }

    // A check the user asked for: its outcome, also "up to date", is reported.
    Q_INVOKABLE void checkForUpdates();
    // A scheduled check: with automatic downloads allowed and on, an update found is installed.
    void checkForUpdatesInBackground();
    // Downloads, verifies and installs an offered item.
    void installUpdate(const kelvo::AppcastItem& item);
    // Stops a running check or download; nothing is installed.
    void cancel();

signals:
    void automaticallyChecksForUpdatesChanged(bool enabled);
    void automaticallyDownloadsUpdatesChanged(bool enabled);
    void updateCheckIntervalChanged(double seconds);
    void canCheckForUpdatesChanged(bool canCheck);

    void updateFound(const kelvo::AppcastItem& item, bool userInitiated);
    void updateNotFound(bool userInitiated);
    void downloadProgress(qint64 received, qint64 total);
    void updateInstalled(const kelvo::AppcastItem& item, const QString& target);
    void updateFailed(const QString& message, bool userInitiated);

private:
    void check(bool userInitiated);
    void startInstall(const AppcastItem& item, bool userInitiated);
    void handleFeed(const QByteArray& body, const QString& error, bool userInitiated);
    void handleDownload(const AppcastItem& item, const QString& payload, const QString& error,
                        bool userInitiated);
    void fail(const QString& message, bool userInitiated);
    void setBusy(bool busy);
    void refreshCanCheck();
    void recordCheck();
    void scheduleNextCheck();
    void onScheduleTimer();

    static constexpr int kBusyRetryMs = 60000;

    UpdaterConfiguration configuration_;
    std::unique_ptr<QSettings> ownedSettings_;
    QSettings* settings_ = nullptr;
    UpdateTransfer transfer_;
    QTimer scheduleTimer_;
    std::unique_ptr<QTemporaryDir> workDirectory_;
    QDateTime nextCheck_;
    bool started_ = false;
    int firstCheckDelayMs_ = 60000;
    bool automaticallyChecks_ = true;
    bool automaticallyDownloads_ = false;
    double checkInterval_ = kDefaultCheckInterval;
    bool allowsAutomaticUpdates_ = false;
    bool busy_ = false;
    bool canCheck_ = false;
};

}  // namespace kelvo

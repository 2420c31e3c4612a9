// Follows logind's PrepareForSleep on the system bus: before the machine sleeps the fans go to
// the firmware, after it wakes Kelvo takes them again. The helper does the same for the fans it
// holds; this side makes Kelvo stop writing and tells the user.
//
// A sleep announced but never followed by a wake would leave the fans with the firmware for
// good. The wait for the wake runs on the monotonic clock, which stands still while the machine
// is suspended: when it runs out, the process has evidently been running all along, the sleep
// never came, and Kelvo takes the fans back.
#pragma once

#include <QDBusConnection>
#include <QObject>
#include <chrono>
#include <functional>

class QTimer;

namespace kelvo {

class SleepWatcher : public QObject {
    Q_OBJECT
public:
    // How long Kelvo waits, awake, for the sleep it was told of.
    static constexpr std::chrono::milliseconds kSleepNeverCameAfter = std::chrono::minutes(3);

    struct Callbacks {
        // true before sleep, false after waking (or when the sleep never came).
        std::function<void(bool)> changed;
        // Once, when there is no system bus to follow.
        std::function<void(QString)> unavailable;
        // When a sleep was announced and the machine stayed awake for `sleepNeverCameAfter`;
        // `changed(false)` follows at once.
        std::function<void(std::chrono::milliseconds)> sleepNeverCame;
    };

    // Does not subscribe: subscribe() does.
    explicit SleepWatcher(Callbacks callbacks,
                          std::chrono::milliseconds sleepNeverCameAfter = kSleepNeverCameAfter,
                          QObject* parent = nullptr);

    // Follows logind's PrepareForSleep; `unavailable` when there is no system bus.
    void subscribe();
    // The same on `bus` (a private bus in tests).
    void subscribe(QDBusConnection bus);
    bool sleeping() const { return sleeping_; }

public slots:
    // logind's signal. A repeat of the state already announced changes nothing.
    void onPrepareForSleep(bool sleeping);

private:
    void sleepNeverCame();

    Callbacks callbacks_;
    std::chrono::milliseconds sleepNeverCameAfter_;
    QTimer* awakeTimer_;
    bool sleeping_ = false;
};

}  // namespace kelvo

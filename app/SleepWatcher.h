// Follows logind's PrepareForSleep on the system bus: before the machine sleeps the fans go to
// the firmware, after it wakes Kelvo takes them again. The helper does the same for the fans it
// holds; this side makes Kelvo stop writing and tells the user.
#pragma once

#include <QObject>
#include <functional>

namespace kelvo {

class SleepWatcher : public QObject {
    Q_OBJECT
public:
    // `changed(true)` before sleep, `changed(false)` after waking. `unavailable(reason)` once
    // when there is no system bus to follow.
    SleepWatcher(std::function<void(bool)> changed, std::function<void(QString)> unavailable,
                 QObject* parent = nullptr);

private slots:
    void onPrepareForSleep(bool sleeping);

private:
    std::function<void(bool)> changed_;
};

}  // namespace kelvo

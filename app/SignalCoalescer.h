// A burst of one kind of signal from other processes, handled as one: the first notice opens a
// window, the work runs when it closes (so the newest state is what is applied), and no more
// than once per window however many notices arrive. A burst is reported once, with its count,
// when a window passes without a notice, or every `longestBurst` while a flood goes on. Holds
// a counter, never the notices: a flood costs no memory.
#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <chrono>
#include <functional>

class QTimer;

namespace kelvo {

class SignalCoalescer : public QObject {
    Q_OBJECT
public:
    using Apply = std::function<void()>;
    // The notices of a burst (or of its part since the last report) and the times `apply` ran.
    using Report = std::function<void(long notices, long applications)>;

    SignalCoalescer(std::chrono::milliseconds window, std::chrono::milliseconds longestBurst,
                    Apply apply, Report report, QObject* parent = nullptr);

    void notify();

    long applications() const { return totalApplications_; }
    long reports() const { return totalReports_; }

private:
    void windowClosed();
    void reportBurst();

    Apply apply_;
    Report report_;
    std::chrono::milliseconds longestBurst_;
    QTimer* window_;
    QElapsedTimer burstAge_;
    long pending_ = 0;
    long burstNotices_ = 0;
    long burstApplications_ = 0;
    long totalApplications_ = 0;
    long totalReports_ = 0;
};

}  // namespace kelvo

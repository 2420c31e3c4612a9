#include "app/SignalCoalescer.h"

#include <QTimer>

namespace kelvo {

SignalCoalescer::SignalCoalescer(std::chrono::milliseconds window,
                                 std::chrono::milliseconds longestBurst, Apply apply, Report report,
                                 QObject* parent)
    : QObject(parent),
      apply_(std::move(apply)),
      report_(std::move(report)),
      longestBurst_(longestBurst),
      window_(new QTimer(this)) {
    window_->setSingleShot(true);
    window_->setInterval(window);
    connect(window_, &QTimer::timeout, this, &SignalCoalescer::windowClosed);
}

void SignalCoalescer::notify() {
    if (burstNotices_ == 0) burstAge_.start();
    ++pending_;
    ++burstNotices_;
    // Not restarted by later notices: a steady flood must not postpone the work forever.
    if (!window_->isActive()) window_->start();
}

void SignalCoalescer::windowClosed() {
    if (pending_ == 0) {
        // A whole window without a notice: the burst is over.
        reportBurst();
        return;
    }
    pending_ = 0;
    ++burstApplications_;
    ++totalApplications_;
    if (apply_) apply_();
    if (burstAge_.isValid() && burstAge_.elapsed() >= longestBurst_.count()) {
        reportBurst();
        burstAge_.start();
    }
    // One more window: notices in it are applied at its end, and none means the burst ended.
    window_->start();
}

void SignalCoalescer::reportBurst() {
    if (burstNotices_ == 0) return;
    ++totalReports_;
    if (report_) report_(burstNotices_, burstApplications_);
    burstNotices_ = 0;
    burstApplications_ = 0;
}

}  // namespace kelvo

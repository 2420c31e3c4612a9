// The auto-stop of an open capture run: one planned call, after a delay or at once when it is
// already due. A cancel, or the plan for the next run, drops the one before.
#pragma once

#include <QMetaObject>
#include <QTimer>
#include <cstdint>
#include <functional>

namespace kelvo {

class CaptureAutoStopTimer {
public:
    CaptureAutoStopTimer();
    CaptureAutoStopTimer(const CaptureAutoStopTimer&) = delete;
    CaptureAutoStopTimer& operator=(const CaptureAutoStopTimer&) = delete;

    // Calls `fire` once, `delaySeconds` from now; a delay of zero or less calls it on the next
    // turn of the event loop, after the caller has finished publishing.
    void schedule(double delaySeconds, std::function<void()> fire);
    void cancel();
    // Whether a call is planned and has not happened yet.
    bool pending() const { return timer_.isActive() || queued_; }

private:
    QTimer timer_;
    QMetaObject::Connection connection_;
    bool queued_ = false;
    // Bumped by every cancel: a queued call from an earlier plan finds it changed and does nothing.
    std::uint64_t generation_ = 0;
};

}  // namespace kelvo

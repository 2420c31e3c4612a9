// Mode and cooldown requests from other processes, coalesced: a flood of them costs a handful of
// applications a second instead of one setting write and one event each.
#pragma once

#include <QObject>
#include <functional>
#include <optional>

#include "foundation/core/Types.h"

class QTimer;

namespace kelvo {

class ExternalRequestQueue : public QObject {
    Q_OBJECT
public:
    // At most one pending mode and one pending cooldown; the newest of each wins.
    struct Batch {
        std::optional<ControlMode> mode;
        std::optional<bool> cooldown;
        bool operator==(const Batch&) const = default;
    };
    using Apply = std::function<void(const Batch&)>;

    // `apply` gets the pending requests `coalesceMs` after the first of a burst arrived.
    ExternalRequestQueue(int coalesceMs, Apply apply, QObject* parent = nullptr);

    void queueMode(ControlMode mode);
    void queueCooldown(bool enabled);

    const Batch& pending() const { return pending_; }
    bool flushScheduled() const;
    // Hands the pending requests to `apply` now and empties the queue; the timer's own path.
    void flush();

private:
    void scheduleFlush();

    Apply apply_;
    QTimer* timer_;
    Batch pending_;
};

}  // namespace kelvo

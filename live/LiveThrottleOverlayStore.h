// A throttle-warning list of its own for an overlay to observe. The live store creates it and
// nothing writes it yet; the overlay can bind to it without depending on the whole store.
#pragma once

#include <QObject>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

class LiveThrottleOverlayStore : public QObject {
    Q_OBJECT
    Q_PROPERTY(double historyWindowSeconds READ historyWindowSeconds CONSTANT)
public:
    static constexpr double kHistoryWindowSeconds = 300.0;

    explicit LiveThrottleOverlayStore(QObject* parent = nullptr);

    const std::vector<ThrottleWarningTrendPoint>& warningHistory() const { return warningHistory_; }
    double historyWindowSeconds() const { return kHistoryWindowSeconds; }

signals:
    void warningHistoryChanged();

private:
    std::vector<ThrottleWarningTrendPoint> warningHistory_;
};

}  // namespace kelvo

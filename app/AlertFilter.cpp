#include "app/AlertFilter.h"

#include <algorithm>

namespace kelvo {

std::vector<AlertFilter::Alert> AlertFilter::alertsFor(const RuntimeEvent& event,
                                                       ControlMode mode) {
    std::vector<Alert> alerts;
    const QString message = QString::fromStdString(event.message);
    if (message.contains(QLatin1String("monitor+alert fallback")))
        alerts.push_back(
            {QStringLiteral("Kelvo fallback mode"),
             QStringLiteral("Fan control released to system auto: ") + fallbackReason(message)});
    if (message.contains(QLatin1String("Fan telemetry degraded")))
        alerts.push_back(
            {QStringLiteral("Kelvo fan telemetry degraded"),
             QStringLiteral("Continuing with last known fan readings while retrying the helper.")});
    if (message.startsWith(QLatin1String("Stopped taking back ")))
        alerts.push_back({QStringLiteral("Kelvo left a fan to the firmware"), message});
    if (message.contains(QLatin1String("Repeated boundary pressure while in")))
        alerts.push_back({QStringLiteral("Kelvo boundary warning"),
                          QStringLiteral("Repeated boundary pressure detected while ") +
                              QString::fromUtf8(displayName(mode).data()) +
                              QStringLiteral(" was active.")});
    return alerts;
}

QString AlertFilter::fallbackReason(const QString& message) {
    const qsizetype open = message.lastIndexOf(QLatin1Char('('));
    if (open < 0) return QStringLiteral("fan control path unavailable");
    const qsizetype close = message.lastIndexOf(QLatin1Char(')'));
    if (close < 0 || close < open) return QStringLiteral("fan control path unavailable");
    return message.mid(open + 1, close - open - 1);
}

AlertFilter::Events::const_iterator AlertFilter::firstUnhandled(const Events& events) const {
    if (!lastID_) return events.begin();
    const auto seen = std::find_if(events.begin(), events.end(),
                                   [this](const RuntimeEvent& e) { return e.id == *lastID_; });
    if (seen != events.end()) return seen + 1;
    return std::find_if(events.begin(), events.end(),
                        [this](const RuntimeEvent& e) { return e.timestamp > lastTimestamp_; });
}

std::vector<AlertFilter::Alert> AlertFilter::admit(const RuntimeEvent& event, ControlMode mode) {
    if (lastID_ && *lastID_ == event.id) return {};
    lastID_ = event.id;
    lastTimestamp_ = event.timestamp;
    return alertsFor(event, mode);
}

}  // namespace kelvo

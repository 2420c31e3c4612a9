// Which runtime events become desktop alerts, and which events are new since the last one
// handled, so that an event seen in several ticks' windows alerts once.
#pragma once

#include <QString>
#include <optional>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

class AlertFilter {
public:
    struct Alert {
        QString title;
        QString body;
        bool operator==(const Alert&) const = default;
    };
    using Events = std::vector<RuntimeEvent>;

    // The alerts one event raises, in the order they are shown; one message can raise several.
    // `mode` is the mode the boundary warning names (the runtime's, not the one in the text).
    static std::vector<Alert> alertsFor(const RuntimeEvent& event, ControlMode mode);
    // The reason inside the last parentheses of a fallback message; a general one without them.
    static QString fallbackReason(const QString& message);

    // The first of `events` (oldest first) after the last one handled. When that one has left
    // the window, the first event newer than it.
    Events::const_iterator firstUnhandled(const Events& events) const;
    // The alerts `event` raises, or none when it is the event handled last; it becomes the last
    // handled either way.
    std::vector<Alert> admit(const RuntimeEvent& event, ControlMode mode);

private:
    std::optional<Uuid> lastID_;
    Timestamp lastTimestamp_ = 0;
};

}  // namespace kelvo

// Decoding of external-control requests (mode and cooldown), independent of the transport: the
// D-Bus bridge converts each signal's a{sv} into an ExternalPayload and asks these functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

#include "foundation/core/Types.h"

namespace kelvo {

using ExternalValue = std::variant<std::monostate, bool, std::int64_t, double, std::string>;
using ExternalPayload = std::map<std::string, ExternalValue>;

struct ExternalControl {
    static constexpr const char* setModeNotificationName = "SetMode";
    static constexpr const char* setCooldownNotificationName = "SetCooldown";
    // kelvoctl wrote the user's fan choices or limits: re-read them. No payload.
    static constexpr const char* fanSettingsChangedNotificationName = "FanSettingsChanged";
    // Kelvo's answer to mode and cooldown requests, once per coalesced burst: (s request, for
    // instance "mode quiet" or "cooldown on"; b applied; s what Kelvo did or why it did not).
    static constexpr const char* requestAnsweredNotificationName = "RequestAnswered";
    static constexpr const char* interfaceName = "org.kelvo.ExternalControl";
    static constexpr const char* objectPath = "/org/kelvo/ExternalControl";
    static constexpr const char* modeKey = "mode";
    static constexpr const char* enabledKey = "enabled";
    // Any sender on the session bus may post; longer strings are refused unread.
    static constexpr std::size_t maxStringLength = 64;

    // The mode named by "mode": exactly one ControlMode raw value, else nothing.
    static std::optional<ControlMode> requestedMode(const ExternalPayload& payload);
    // "enabled" as a bool, the integers 0/1, or "on"/"off"/"true"/"false"/"1"/"0".
    static std::optional<bool> requestedCooldownEnabled(const ExternalPayload& payload);
};

}  // namespace kelvo

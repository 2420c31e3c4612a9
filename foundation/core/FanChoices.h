// Which fans Kelvo may touch, per fan: drive it (auto, with an optional floor), leave it to the
// firmware, or hold it at a fixed duty. Keyed by the fan's stable identity (FanState::name).
#pragma once

#include <map>
#include <optional>
#include <string>

#include "foundation/core/FanController.h"

namespace kelvo {

enum class FanChoiceKind { automatic, firmware, fixed };

struct FanChoice {
    FanChoiceKind kind = FanChoiceKind::automatic;
    double fixedPercent = 0;    // duty held while kind is fixed
    double minimumPercent = 0;  // the lowest duty auto control may pick
    bool operator==(const FanChoice&) const = default;
};

using FanChoices = std::map<std::string, FanChoice>;

// The choice words, for messages: "auto, firmware, fixed N, min N".
const char* fanChoiceWords();

// "auto", "firmware", "fixed N" or "min N" (N a percentage 0-100) applied to `base`: "min"
// keeps the kind, the others keep the minimum. A stored form such as "auto min 20" is accepted
// too. Nothing for anything else.
std::optional<FanChoice> parseFanChoice(const std::string& text, FanChoice base = {});
// "auto", "firmware" or "fixed 60", followed by " min 20" when a minimum is set.
std::string formatFanChoice(const FanChoice& choice);

// A channel that moves liquid: stopping or slowing it is never the quiet choice.
bool isPumpChannel(const std::string& label, const std::string& driver);
// The driver part of an hwmon identity ("nct6798@/sys/...#fan1" → "nct6798").
std::string driverOfIdentity(const std::string& identity);

// The user's choice for the fan, else a pump's fixed 100, else auto.
FanChoice effectiveFanChoice(const FanState& fan, const FanChoices& choices);

struct FanSpeedRange {
    double minRPM = 0;
    double maxRPM = 0;
};
// The RPM range a duty of 0-1 maps onto, with defaults where the fan does not report one.
FanSpeedRange fanSpeedRange(const FanState& fan);
// The target for a fan under its choice when auto control asks for `duty` (0-1); 0 leaves the
// fan to the firmware.
double fanTargetRPM(const FanState& fan, const FanChoice& choice, double duty);

}  // namespace kelvo

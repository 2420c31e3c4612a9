// Which fans Kelvo may touch, per fan: drive it (auto, with an optional floor, stopping it when
// everything is cool or not), leave it to the firmware, or hold it at a fixed duty. Keyed by the
// fan's stable identity (FanState::name).
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
    // Whether auto control may stop the fan while every die is cool; none until the user says,
    // which means "where the firmware's own curve stops it".
    std::optional<bool> stopWhenCool;
    // False for a stored entry that names no kind ("min 20", "stop off"): it keeps the fan's
    // default kind, which for a pump is a fixed 100.
    bool kindGiven = true;
    // What was wrong with the stored entry, for the user; empty when nothing was. An entry that
    // cannot be read is the firmware's until it is fixed.
    std::string problem = {};
    bool operator==(const FanChoice&) const = default;
};

using FanChoices = std::map<std::string, FanChoice>;

// The key of the choice for every fan without an entry of its own: present only when the whole
// stored value could not be read, never stored.
inline constexpr const char* kEveryOtherFan = "*";

// The choice words, for messages: "auto, firmware, fixed N, min N, stop on|off".
const char* fanChoiceWords();

// "auto", "firmware", "fixed N", "min N" (N a percentage 0-100) or "stop on|off" applied to
// `base`: "min" and "stop" keep the kind, the others keep the minimum and the stop choice.
// Stored forms such as "auto min 20 stop on" are accepted too. Nothing for anything else, with
// what was wrong in `why` when given.
std::optional<FanChoice> parseFanChoice(const std::string& text, FanChoice base = {},
                                        std::string* why = nullptr);
// An entry that names no kind is written as "min N" (and " stop ..."), as it was stored.
// "auto", "firmware" or "fixed 60", followed by " min 20" when a minimum is set and by
// " stop on" / " stop off" once the user has said.
std::string formatFanChoice(const FanChoice& choice);

// A channel that moves liquid: stopping or slowing it is never the quiet choice.
bool isPumpChannel(const std::string& label, const std::string& driver);
// The driver part of an hwmon identity ("nct6798@/sys/...#fan1" → "nct6798").
std::string driverOfIdentity(const std::string& identity);

// The user's choice for the fan (kEveryOtherFan's when it has none), else a pump's fixed 100,
// else auto. An entry that names no kind takes the fan's default kind.
FanChoice effectiveFanChoice(const FanState& fan, const FanChoices& choices);

// Whether the user's stop choice (or, unsaid, the firmware's habit) lets the fan stop; a pump
// never does, whatever is stored.
bool fanStopWanted(const FanState& fan, const FanChoice& choice);
// Why auto control will not stop the fan under this choice even where stopping is wanted ("a
// pump never stops", "it runs at a fixed duty", ...); empty when nothing in the choice stands in
// the way.
std::string fanStopBlocker(const FanState& fan, const FanChoice& choice);
// Auto control may stop the fan when every die is cool: wanted and nothing blocks it.
bool fanMayStop(const FanState& fan, const FanChoice& choice);
// Auto control sets the fan's speed under this choice (not the firmware, a fixed duty, a pump or
// an entry that cannot be read): the fans whose work Kelvo may share out, and measures.
bool fanUnderAutoControl(const FanState& fan, const FanChoice& choice);

struct FanSpeedRange {
    double minRPM = 0;
    double maxRPM = 0;
};
// The RPM range a duty of 0-1 maps onto, with defaults where the fan does not report one. A fan
// with no reported minimum starts at a token speed just above 0: the back-end maps any small
// target onto the lowest duty at which the fan still turns, so duty 0 is the fan's own floor.
FanSpeedRange fanSpeedRange(const FanState& fan);
// The target for a fan under its choice when auto control asks for `duty` (0-1); 0 leaves the
// fan to the firmware.
double fanTargetRPM(const FanState& fan, const FanChoice& choice, double duty);

}  // namespace kelvo

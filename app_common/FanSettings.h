// The user's fan choices and limits in Kelvo's settings file, shared by the app and kelvoctl.
#pragma once

#include <QSettings>
#include <QString>
#include <optional>
#include <string>
#include <vector>

#include "foundation/control/UserLimits.h"
#include "foundation/core/FanChoices.h"

namespace kelvo::fan_settings {

// A JSON object: fan identity → "auto" | "firmware" | "fixed N", each optionally followed by
// " min N" and " stop on" / " stop off".
inline constexpr const char* choicesKey = "kelvo.fans.choices";
inline constexpr const char* cpuQuietKey = "kelvo.limits.cpuQuietC";
inline constexpr const char* gpuQuietKey = "kelvo.limits.gpuQuietC";
inline constexpr const char* performanceTargetKey = "kelvo.limits.performanceTargetC";
// "on" or "off": whether the quiet modes share the work among the fans by what each cools.
inline constexpr const char* shareKey = "kelvo.fans.share";
// kelvoctl's latest "calibrate this fan": "<request id> <fan identity>". A running Kelvo acts on
// each request id once, when FanSettingsChanged tells it to look.
inline constexpr const char* calibrationRequestKey = "kelvo.fans.calibrationRequest";

// kelvoctl's latest "measure which die each fan cools again": a request id, acted on once, like
// a calibration request.
inline constexpr const char* measureAgainRequestKey = "kelvo.fans.measureAgainRequest";
std::optional<QString> readMeasureAgainRequest(QSettings& settings);
void writeMeasureAgainRequest(QSettings& settings, const QString& id);

struct CalibrationRequest {
    QString id;
    std::string identity;
    bool operator==(const CalibrationRequest&) const = default;
};
std::optional<CalibrationRequest> readCalibrationRequest(QSettings& settings);
void writeCalibrationRequest(QSettings& settings, const CalibrationRequest& request);

// Every entry that can be read, as stored; an entry that cannot is the firmware's with its
// `problem` set, and a value that cannot be read at all is one kEveryOtherFan entry for the
// firmware saying why. A hand-edited file must not stop Kelvo, nor make it drive a fan the user
// may have meant to leave alone.
FanChoices readChoices(QSettings& settings);
// Entries with a problem are written as the firmware's (what they mean now), and the
// kEveryOtherFan stand-in not at all.
void writeChoices(QSettings& settings, const FanChoices& choices);
// Stored values outside the accepted range, or not numbers, are ignored in favour of the
// defaults; `problems` gets one line for the user about each.
UserLimits readLimits(QSettings& settings, const DieCriticalTemperatures& critical,
                      std::vector<std::string>* problems = nullptr);
void writeLimit(QSettings& settings, UserLimitKind kind, double valueC);

// The sharing switch: on unless stored "off". Any other value is on (as shipped), with a line
// for the user in `problem` when given.
bool readShare(QSettings& settings, std::string* problem = nullptr);
void writeShare(QSettings& settings, bool share);

const char* limitKey(UserLimitKind kind);

}  // namespace kelvo::fan_settings

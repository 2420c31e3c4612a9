// How the store writes values that have no column of their own into a text column: fan curves,
// a run event's named figures, and the thermal pressure level. Every number round-trips exactly.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/core/Types.h"
#include "foundation/store/SQLiteStore.h"

namespace kelvo::store {

// "pwm:rpm,pwm:rpm". Decoding refuses anything malformed (a missing colon, a number that does
// not parse or is not finite, a trailing comma); the empty text is the empty curve.
std::string encodeCurve(const SQLiteStore::FanCurve& curve);
std::optional<SQLiteStore::FanCurve> decodeCurve(std::string_view text);

// "name=value;name=value": names are ours (no '=' or ';'). Non-finite values are left out when
// encoding; items that do not parse are skipped when decoding.
std::string encodeValues(const std::vector<std::pair<std::string, double>>& values);
std::vector<std::pair<std::string, double>> decodeValues(std::string_view text);

// The level whose rawValue() is `raw`, or none.
std::optional<ThermalPressureLevel> pressureFromRaw(std::string_view raw);

}  // namespace kelvo::store

// Number formats of the Peak Performance card and its help.
#pragma once

#include <optional>
#include <string>

namespace kelvo {

// A performance-state level: a whole number when within 0.05 of one ("16"), else one decimal
// ("15.9").
std::string formatPerformanceLevel(double level);

// "%.1f%%" of the retention a deficit leaves; "—" without a deficit.
std::string formatRetentionPercent(const std::optional<double>& deficit);
// "%.1f%%" of a retention fraction, floored at 0.
std::string formatRetentionFraction(double retention);

// The card and the help show this where there is no figure.
inline constexpr const char* kPeakPerformanceNoValue = "\u2014";

}  // namespace kelvo

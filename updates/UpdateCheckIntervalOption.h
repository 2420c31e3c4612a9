// The choices of the "Check frequency" picker. The raw value is the interval in seconds.
#pragma once

#include <QString>
#include <array>
#include <optional>

namespace kelvo {

enum class UpdateCheckIntervalOption { hourly, daily, weekly, monthly };

inline constexpr std::array<UpdateCheckIntervalOption, 4> kAllUpdateCheckIntervalOptions = {
    UpdateCheckIntervalOption::hourly, UpdateCheckIntervalOption::daily,
    UpdateCheckIntervalOption::weekly, UpdateCheckIntervalOption::monthly};

double rawValue(UpdateCheckIntervalOption option);
QString label(UpdateCheckIntervalOption option);
// Only the four exact intervals name an option.
std::optional<UpdateCheckIntervalOption> updateCheckIntervalOptionFromRaw(double seconds);

namespace UpdateCheckIntervalOptions {
// The option nearest to an interval; on a tie the shorter interval wins.
UpdateCheckIntervalOption closest(double seconds);
}  // namespace UpdateCheckIntervalOptions

}  // namespace kelvo

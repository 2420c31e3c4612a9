#include "updates/UpdateCheckIntervalOption.h"

#include <cmath>

namespace kelvo {

double rawValue(UpdateCheckIntervalOption option) {
    switch (option) {
        case UpdateCheckIntervalOption::hourly: return 3600;
        case UpdateCheckIntervalOption::daily: return 86400;
        case UpdateCheckIntervalOption::weekly: return 604800;
        case UpdateCheckIntervalOption::monthly: return 2629800;
    }
    return 86400;
}

QString label(UpdateCheckIntervalOption option) {
    switch (option) {
        case UpdateCheckIntervalOption::hourly: return QStringLiteral("Hourly");
        case UpdateCheckIntervalOption::daily: return QStringLiteral("Daily");
        case UpdateCheckIntervalOption::weekly: return QStringLiteral("Weekly");
        case UpdateCheckIntervalOption::monthly: return QStringLiteral("Monthly");
    }
    return {};
}

std::optional<UpdateCheckIntervalOption> updateCheckIntervalOptionFromRaw(double seconds) {
    for (auto option : kAllUpdateCheckIntervalOptions)
        if (rawValue(option) == seconds) return option;
    return std::nullopt;
}

namespace UpdateCheckIntervalOptions {

UpdateCheckIntervalOption closest(double seconds) {
    UpdateCheckIntervalOption best = kAllUpdateCheckIntervalOptions.front();
    double bestDistance = std::abs(rawValue(best) - seconds);
    for (auto option : kAllUpdateCheckIntervalOptions) {
        const double distance = std::abs(rawValue(option) - seconds);
        // Strictly closer only: a value halfway between two options keeps the shorter one.
        if (distance < bestDistance) {
            best = option;
            bestDistance = distance;
        }
    }
    return best;
}

}  // namespace UpdateCheckIntervalOptions

}  // namespace kelvo

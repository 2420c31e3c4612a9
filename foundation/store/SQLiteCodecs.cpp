// The store's text codecs: fan curves, named figures, pressure levels.
#include "foundation/store/SQLiteCodecs.h"

#include <charconv>
#include <cmath>
#include <system_error>

namespace kelvo::store {

namespace {

std::string formatNumber(double value) {
    char buffer[64];
    auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

std::optional<double> parseNumber(std::string_view text) {
    double value = 0;
    auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec != std::errc() || result.ptr != text.data() + text.size()) return std::nullopt;
    if (!std::isfinite(value)) return std::nullopt;
    return value;
}

}  // namespace

std::string encodeCurve(const SQLiteStore::FanCurve& curve) {
    std::string out;
    for (const auto& [pwm, rpm] : curve) {
        if (!out.empty()) out += ',';
        out += formatNumber(pwm);
        out += ':';
        out += formatNumber(rpm);
    }
    return out;
}

std::optional<SQLiteStore::FanCurve> decodeCurve(std::string_view text) {
    SQLiteStore::FanCurve curve;
    while (!text.empty()) {
        const auto comma = text.find(',');
        const std::string_view point = text.substr(0, comma);
        const auto colon = point.find(':');
        if (colon == std::string_view::npos) return std::nullopt;
        auto pwm = parseNumber(point.substr(0, colon));
        auto rpm = parseNumber(point.substr(colon + 1));
        if (!pwm || !rpm) return std::nullopt;
        curve.emplace_back(*pwm, *rpm);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
        if (text.empty()) return std::nullopt;  // trailing comma
    }
    return curve;
}

std::string encodeValues(const std::vector<std::pair<std::string, double>>& values) {
    std::string out;
    for (const auto& [name, value] : values) {
        if (!std::isfinite(value)) continue;
        if (!out.empty()) out += ';';
        out += name;
        out += '=';
        out += formatNumber(value);
    }
    return out;
}

std::vector<std::pair<std::string, double>> decodeValues(std::string_view text) {
    std::vector<std::pair<std::string, double>> values;
    while (!text.empty()) {
        const auto semicolon = text.find(';');
        const std::string_view item = text.substr(0, semicolon);
        const auto equals = item.find('=');
        if (equals != std::string_view::npos)
            if (auto value = parseNumber(item.substr(equals + 1)))
                values.emplace_back(std::string(item.substr(0, equals)), *value);
        if (semicolon == std::string_view::npos) break;
        text.remove_prefix(semicolon + 1);
    }
    return values;
}

std::optional<ThermalPressureLevel> pressureFromRaw(std::string_view raw) {
    for (auto level : {ThermalPressureLevel::nominal, ThermalPressureLevel::fair,
                       ThermalPressureLevel::serious, ThermalPressureLevel::critical})
        if (rawValue(level) == raw) return level;
    return std::nullopt;
}

}  // namespace kelvo::store

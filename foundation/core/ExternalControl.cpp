#include "foundation/core/ExternalControl.h"

namespace kelvo {

namespace {
const std::string* boundedString(const ExternalPayload& payload, const char* key) {
    auto it = payload.find(key);
    if (it == payload.end()) return nullptr;
    const auto* text = std::get_if<std::string>(&it->second);
    if (!text || text->size() > ExternalControl::maxStringLength) return nullptr;
    return text;
}
}  // namespace

std::optional<ControlMode> ExternalControl::requestedMode(const ExternalPayload& payload) {
    const std::string* text = boundedString(payload, modeKey);
    if (!text) return std::nullopt;
    return controlModeFromRaw(*text);
}

std::optional<bool> ExternalControl::requestedCooldownEnabled(const ExternalPayload& payload) {
    auto it = payload.find(enabledKey);
    if (it == payload.end()) return std::nullopt;
    if (const auto* flag = std::get_if<bool>(&it->second)) return *flag;
    if (const auto* number = std::get_if<std::int64_t>(&it->second)) {
        if (*number == 0) return false;
        if (*number == 1) return true;
        return std::nullopt;
    }
    const std::string* text = boundedString(payload, enabledKey);
    if (!text) return std::nullopt;
    if (*text == "on" || *text == "true" || *text == "1") return true;
    if (*text == "off" || *text == "false" || *text == "0") return false;
    return std::nullopt;
}

}  // namespace kelvo

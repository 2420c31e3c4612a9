#include "foundation/core/Types.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <random>

namespace kelvo {

Timestamp wallClockNow() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

std::string_view rawValue(ControlMode mode) {
    switch (mode) {
        case ControlMode::systemAuto: return "systemAuto";
        case ControlMode::quiet: return "quiet";
        case ControlMode::quietHybrid: return "quietHybrid";
        case ControlMode::performance: return "performance";
    }
    return "systemAuto";
}

std::string_view displayName(ControlMode mode) {
    switch (mode) {
        case ControlMode::systemAuto: return "System";
        case ControlMode::quiet: return "Quiet";
        case ControlMode::quietHybrid: return "Quiet Hybrid";
        case ControlMode::performance: return "Performance";
    }
    return "System";
}

std::optional<ControlMode> controlModeFromRaw(std::string_view raw) {
    for (auto mode : kAllControlModes)
        if (rawValue(mode) == raw) return mode;
    return std::nullopt;
}

std::string_view rawValue(ControlStatus status) {
    switch (status) {
        case ControlStatus::starting: return "starting";
        case ControlStatus::controlling: return "controlling";
        case ControlStatus::monitoring: return "monitoring";
        case ControlStatus::fallback: return "fallback";
    }
    return "starting";
}

std::string_view rawValue(ControlAuthorityState state) {
    switch (state) {
        case ControlAuthorityState::system: return "system";
        case ControlAuthorityState::kelvo: return "kelvo";
        case ControlAuthorityState::unavailable: return "unavailable";
    }
    return "system";
}

std::string_view rawValue(ThermalPressureLevel level) {
    switch (level) {
        case ThermalPressureLevel::nominal: return "nominal";
        case ThermalPressureLevel::fair: return "fair";
        case ThermalPressureLevel::serious: return "serious";
        case ThermalPressureLevel::critical: return "critical";
    }
    return "nominal";
}

std::optional<double> TelemetrySample::hottestTemperatureC() const {
    if (cpuTemperatureC && gpuTemperatureC) return std::max(*cpuTemperatureC, *gpuTemperatureC);
    return cpuTemperatureC ? cpuTemperatureC : gpuTemperatureC;
}

std::optional<double> TelemetrySample::maxUtilizationPct() const {
    if (cpuUtilizationPct && gpuUtilizationPct)
        return std::max(*cpuUtilizationPct, *gpuUtilizationPct);
    return cpuUtilizationPct ? cpuUtilizationPct : gpuUtilizationPct;
}

std::optional<double> TelemetrySample::meanFanCurrentRPM() const {
    double sum = 0;
    int readable = 0;
    for (double rpm : fanCurrentRPM)
        if (isReadableRPM(rpm)) {
            sum += rpm;
            ++readable;
        }
    if (readable == 0) return std::nullopt;
    return sum / readable;
}

TelemetrySample TelemetrySample::compactedForTrendHistory() const {
    TelemetrySample compact = *this;
    compact.fanMinRPM = {};
    compact.fanNames = {};
    compact.fanCurrentRPM.shrink_to_fit();
    compact.fanTargetRPM.shrink_to_fit();
    compact.fanMaxRPM.shrink_to_fit();
    return compact;
}

namespace {
std::mt19937_64& uuidEngine() {
    thread_local std::mt19937_64 engine{std::random_device{}() ^
                                        static_cast<std::uint64_t>(wallClockNow() * 1e6)};
    return engine;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

Uuid Uuid::generate() {
    Uuid id;
    auto& engine = uuidEngine();
    for (int half = 0; half < 2; ++half) {
        std::uint64_t bits = engine();
        for (int i = 0; i < 8; ++i)
            id.bytes[half * 8 + i] = static_cast<std::uint8_t>(bits >> (8 * i));
    }
    id.bytes[6] = static_cast<std::uint8_t>((id.bytes[6] & 0x0F) | 0x40);  // version 4
    id.bytes[8] = static_cast<std::uint8_t>((id.bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return id;
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    Uuid id;
    std::size_t byte = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (i == 8 || i == 13 || i == 18 || i == 23) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        int hi = hexValue(text[i]);
        int lo = hexValue(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        id.bytes[byte++] = static_cast<std::uint8_t>(hi * 16 + lo);
        i += 2;
    }
    return id;
}

std::string Uuid::toString() const {
    char out[37];
    std::snprintf(out, sizeof out,
                  "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", bytes[0],
                  bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8],
                  bytes[9], bytes[10], bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
    return out;
}

bool Uuid::isNull() const {
    return std::all_of(bytes.begin(), bytes.end(), [](auto b) { return b == 0; });
}

RuntimeEvent RuntimeEvent::make(std::string message, bool isFailure, bool isBuildIdentity) {
    return RuntimeEvent{Uuid::generate(), wallClockNow(), std::move(message), isFailure,
                        isBuildIdentity};
}

}  // namespace kelvo

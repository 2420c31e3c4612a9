// Shared value types of the Kelvo framework. Qt-free on purpose: the control loop,
// samplers and stores are usable from the helper and tools without a Qt dependency.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelvo {

// Wall-clock time as seconds since the Unix epoch; the data timeline of every history.
using Timestamp = double;

Timestamp wallClockNow();

// ----- Control mode -------------------------------------------------------------------------

enum class ControlMode { systemAuto, quiet, quietHybrid, performance };

inline constexpr std::array<ControlMode, 4> kAllControlModes = {
    ControlMode::systemAuto, ControlMode::quiet, ControlMode::quietHybrid,
    ControlMode::performance};

std::string_view rawValue(ControlMode mode);
std::string_view displayName(ControlMode mode);
std::optional<ControlMode> controlModeFromRaw(std::string_view raw);

// ----- Loop state enumerations (first case is the initial value) ----------------------------

enum class ControlStatus { starting, controlling, monitoring, fallback };
enum class ControlAuthorityState { system, kelvo, unavailable };
enum class ThermalPressureLevel { nominal, fair, serious, critical };

std::string_view rawValue(ControlStatus status);
std::string_view rawValue(ControlAuthorityState state);
std::string_view rawValue(ThermalPressureLevel level);

// ----- Telemetry -----------------------------------------------------------------------------

// Driver-reported reasons the GPU runs under its requested clock (bit flags).
enum GpuThrottleReason : std::uint32_t {
    gpuThrottleNone = 0,
    gpuThrottleThermal = 1u << 0,
    gpuThrottlePowerCap = 1u << 1,
    gpuThrottleOther = 1u << 2,
};

// A fan speed that could not be read (see TelemetrySample::fanCurrentRPM).
inline constexpr double kUnreadableRPM = std::numeric_limits<double>::quiet_NaN();
inline bool isReadableRPM(double rpm) {
    return rpm == rpm;  // false only for NaN
}

struct TelemetrySample {
    Timestamp timestamp = 0;
    std::optional<double> cpuTemperatureC;
    std::optional<double> gpuTemperatureC;
    std::optional<double> cpuClockMHz;
    std::optional<double> gpuClockMHz;
    std::optional<double> gpuReferenceMaxClockMHz;
    std::optional<double> cpuUtilizationPct;
    std::optional<double> gpuUtilizationPct;
    std::optional<double> totalPowerW;
    std::optional<ThermalPressureLevel> thermalPressure;
    // Per-fan lists share one index per fan. Target is the speed last commanded (0 when the
    // firmware is in charge); max is the fan's rated maximum. A speed that could not be read is
    // kUnreadableRPM (NaN), never 0: a stopped fan and a broken tachometer must look different.
    std::vector<double> fanCurrentRPM;
    std::vector<double> fanTargetRPM;
    std::vector<double> fanMaxRPM;
    std::vector<double> fanMinRPM;
    std::vector<std::string> fanNames;
    // GPU performance-state probes (lower number = faster state), where the driver reports them.
    std::optional<double> gpuRequestedPState;
    std::optional<double> gpuGrantedPState;
    std::uint32_t gpuThrottleReasons = gpuThrottleNone;

    std::optional<double> hottestTemperatureC() const;
    std::optional<double> maxUtilizationPct() const;
    std::optional<double> meanFanCurrentRPM() const;

    // The trend keeps minutes of these at 4 Hz: names and minimum speeds are never drawn.
    TelemetrySample compactedForTrendHistory() const;

    bool operator==(const TelemetrySample&) const = default;
};

// ----- Decisions and assessments -------------------------------------------------------------

struct ControlDecision {
    Timestamp timestamp = 0;
    ControlMode mode = ControlMode::systemAuto;
    std::vector<double> targetRPM;  // one per fan; 0 = leave to firmware
    bool cooldownActive = false;
    bool anticipating = false;  // raised ahead of temperature by the lead model
    // A probe runs this fan a little faster than the rest of the decision asked, to measure
    // which die it cools (already in targetRPM).
    std::optional<std::string> probedFan;
    std::string reason;

    bool operator==(const ControlDecision&) const = default;
};

struct ThrottleAssessment {
    bool isWarning = false;
    bool highLoad = false;
    bool cpuClockDeficit = false;
    bool gpuClockDeficit = false;
    bool thermalPressureElevated = false;
    std::optional<std::string> reason;
    std::optional<double> cpuClockMHz;
    std::optional<double> cpuReferenceMHz;
    std::optional<double> gpuClockMHz;
    std::optional<double> gpuReferenceMHz;

    bool operator==(const ThrottleAssessment&) const = default;
};

struct ThrottleWarningTrendPoint {
    Timestamp timestamp = 0;
    bool isWarning = false;
    bool operator==(const ThrottleWarningTrendPoint&) const = default;
};

// ----- Events --------------------------------------------------------------------------------

struct Uuid {
    std::array<std::uint8_t, 16> bytes{};
    static Uuid generate();
    static std::optional<Uuid> parse(std::string_view text);
    std::string toString() const;  // lower-case 8-4-4-4-12
    bool isNull() const;
    bool operator==(const Uuid&) const = default;
};

struct RuntimeEvent {
    Uuid id;
    Timestamp timestamp = 0;
    std::string message;
    bool isFailure = false;
    bool isBuildIdentity = false;

    static RuntimeEvent make(std::string message, bool isFailure = false,
                             bool isBuildIdentity = false);
    bool operator==(const RuntimeEvent&) const = default;
};

// ----- Analysis configuration and learned models ---------------------------------------------

// What the clock-window analyses of the dashboard need from the loop: the high-load references
// (a learned model's, else what the loop has learned online) and the high-load definition.
struct GPUClockWindowAnalysisConfig {
    std::optional<double> referenceClockMHz;       // GPU high-load reference
    std::optional<double> cpuReferenceClockMHz;    // CPU high-load reference
    std::optional<double> highLoadUtilizationPct;  // override of the 70 % high-load threshold
    std::optional<double> highLoadPowerW;          // the machine's own high-load power level
    std::optional<double> deficitThresholdPct;     // override of the 7 % clock-deficit threshold
    bool operator==(const GPUClockWindowAnalysisConfig&) const = default;
};

struct LearnedModel {
    std::int64_t id = 0;
    std::string source;  // "kelvo", "background-capture", ...
    Timestamp createdAt = 0;
    std::optional<double> cpuReferenceClockMHz;
    std::optional<double> gpuReferenceClockMHz;
    std::optional<double> temperatureReferenceC;
    bool operator==(const LearnedModel&) const = default;
};

struct AdaptiveLeadModel {
    std::int64_t id = 0;
    std::string name = "Adaptive lead";
    int version = 1;
    Timestamp createdAt = 0;
    double utilizationThresholdPct = 70;  // load rise that triggers anticipation
    double averageLeadMs = 0;             // how long before the temperature the fans start
    int misses = 0;                       // predicted rises that did not come
    bool operator==(const AdaptiveLeadModel&) const = default;
};

// The lowest temperature limit a user may set: below this the fans would run flat out on an idle
// machine.
inline constexpr double kLowestUserLimitC = 50;

// The dies' own critical trip points, where the machine tells them (a trip point at or below the
// lowest user limit is not believed).
struct DieCriticalTemperatures {
    std::optional<double> cpuC;
    std::optional<double> gpuC;
};

}  // namespace kelvo

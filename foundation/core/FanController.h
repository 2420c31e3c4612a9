// Fan back-end interface shared by the simulated, local (hwmon), helper and hybrid back-ends.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/core/Types.h"

namespace kelvo {

struct FanState {
    std::string name;
    double currentRPM = 0;  // kUnreadableRPM when the tachometer gives no number
    double targetRPM = 0;   // 0 while the firmware is in charge
    double minRPM = 0;
    double maxRPM = 0;
    std::string label;  // the channel's own label (hwmon fanN_label), empty when none
    // The fan has been seen standing still at a duty cycle its controller set (the firmware's or
    // Kelvo's), so it is one that stops at low duty and needs a start duty to spin up again.
    bool canStop = false;
    // It was seen standing still while the firmware drove it: the firmware's own curve stops it.
    bool firmwareStops = false;
    // Kelvo asked it to stand still and it does (a commanded stop is never a stall).
    bool stopCommanded = false;
    // The lowest duty the back-end lets Kelvo set on this fan, 0-100 (a floor in the helper's
    // configuration); 0 when there is none. Kelvo's writes are raised to it, never refused.
    double floorPercent = 0;
    // Why the back-end will not drive this fan at all (the helper's configuration forbids it);
    // empty when it may. Such a fan stays with the firmware.
    std::string heldBackWhy = {};
};

// A fan the back-end could not drive this round although the others went through: it is left
// with the firmware, and `why` says what refused it.
struct FanRefusal {
    std::string fan;
    std::string why;
    bool operator==(const FanRefusal&) const = default;
};

// A target that asks a fan to stand still while Kelvo keeps holding it (fan stop). A back-end
// that cannot stop a fan runs it at its lowest speed instead. 0 still means "the firmware's".
inline constexpr double kFanStopRPM = -1;
inline bool isFanStopTarget(double targetRPM) {
    return targetRPM < 0;
}

// Outcome of a back-end call. `error` is a short reason suitable for an event message
// ("helper unavailable", "write timed out", ...).
struct FanResult {
    bool ok = true;
    std::string error;
    static FanResult success() { return {}; }
    static FanResult failure(std::string why) { return {false, std::move(why)}; }
};

struct FanReadResult {
    bool ok = true;
    std::string error;
    std::vector<FanState> fans;
};

class FanCurveLearning;
class HelperVersionSource;

// A back-end's family, for the labels users see; a subclass keeps its family's.
enum class FanBackendKind { other, local, helper, hybrid, simulated };

class FanController {
public:
    virtual ~FanController() = default;

    // Concrete type name, used where a back-end has no label of its own.
    virtual std::string typeName() const = 0;
    virtual FanBackendKind backendKind() const { return FanBackendKind::other; }
    // What a back-end offers beyond moving fans, asked of the back-end itself: none unless it
    // says so.
    virtual FanCurveLearning* curveLearning() { return nullptr; }
    virtual HelperVersionSource* helperVersionSource() { return nullptr; }

    virtual FanReadResult readFans() = 0;
    // One target per fan, in RPM. A target of 0 leaves that fan to the firmware; kFanStopRPM
    // stops it (see above).
    virtual FanResult setTargets(const std::vector<double>& targetRPM) = 0;
    // Gives every fan back to firmware automatic control (restoring the original mode).
    virtual FanResult releaseToAutomatic() = 0;
    // Whether Kelvo currently holds manual control of at least one fan.
    virtual bool holdsControl() const = 0;
    // The fans taken from Kelvo since the last call without Kelvo giving them back (a helper
    // whose lease on them ran out, or that lost the connection they were held on). Back-ends
    // that write the fans themselves never lose one this way.
    virtual std::vector<std::string> takeFansLostBehindOurBack() { return {}; }
    // The fans Kelvo held whose mode someone else changed since the last call (the firmware after
    // a resume or a driver reload, another program). The back-end has stopped holding them.
    virtual std::vector<std::string> takeFansReclaimedFromUs() { return {}; }
    // The fans whose targets were refused one by one since the last call (the others were set):
    // each is the firmware's until Kelvo is asked to try again.
    virtual std::vector<FanRefusal> takeFanRefusals() { return {}; }
};

// Back-ends that drive real fans by duty cycle learn each fan's RPM-to-duty curve and keep it in
// the store attached here (the database, which exists only after the back-end is made).
using FanCurve = std::vector<std::pair<double, double>>;  // (duty 0-255, RPM), by duty

// Where learned curves live; either function may be empty.
struct FanCurveStore {
    std::function<std::optional<FanCurve>(const std::string& identity)> load;
    std::function<bool(const std::string& identity, const FanCurve& curve)> save;
};

// A full calibration the user asked for: the fan is run from full speed down to its lowest
// duty (and to a stop where it stops), one held step at a time.
struct FanCalibrationStatus {
    bool running = false;
    double progress = 0;     // 0..1 while running
    double secondsLeft = 0;  // an estimate while running
    // Set once it has ended: whether a curve came of it, and what to tell the user.
    std::optional<bool> succeeded;
    std::string message;
};

class FanCurveLearning {
public:
    virtual ~FanCurveLearning() = default;
    virtual void attachCurveStore(FanCurveStore store) = 0;
    virtual std::optional<FanCurve> learnedCurve(const std::string& identity) = 0;
    // Starts a full calibration of one fan on the user's request. False (with why) when the fan
    // is unknown, cannot be driven, or one is already running.
    virtual bool requestCalibration(const std::string& identity, std::string* why) {
        (void)identity;
        if (why) *why = "this fan back-end cannot calibrate fans";
        return false;
    }
    // The calibration of that fan, running or last ended; none when never asked for.
    virtual std::optional<FanCalibrationStatus> calibrationStatus(const std::string& identity) {
        (void)identity;
        return std::nullopt;
    }
};

// Back-ends that talk to the privileged helper can report its version.
class HelperVersionSource {
public:
    virtual ~HelperVersionSource() = default;
    virtual std::optional<std::string> helperVersion() = 0;
};

}  // namespace kelvo

// Fan back-end that goes through kelvo-helperd, the privileged daemon that owns fan writes for
// unprivileged sessions, over its Unix socket (protocol: helper/PROTOCOL.md).
//
// The helper gives a client's fans back to the firmware when the client stops renewing its
// lease, so there is no background thread here: every readFans()/setTargets() call renews the
// lease, and the control loop makes one of those every tick. renewLease() is there for callers
// that hold fans without ticking.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "foundation/core/FanController.h"
#include "foundation/fans/FanCurveLearner.h"
#include "foundation/fans/FanTargets.h"
#include "foundation/helper_protocol/HelperClient.h"

namespace kelvo {

class HelperFanController : public FanController,
                            public HelperVersionSource,
                            public FanCurveLearning {
public:
    static constexpr const char* serviceName = "org.kelvo.helper";
    // Nothing accepts connections at the socket path (not installed, not running).
    static constexpr const char* kUnavailable = "helper unavailable";
    // Connected, but no reply in time.
    static constexpr const char* kNotResponding = "helper not responding";
    // Replies wait at most this long; a longer stall is reported as kNotResponding.
    static constexpr int kReplyTimeoutMs = 1000;

    // `curveClock` times curve learning and calibration (tests step it by hand).
    explicit HelperFanController(std::string socketPath = "/run/kelvo/helper.sock",
                                 int connectTimeoutMs = 250,
                                 FanCurveLearner::Now curveClock = FanCurveLearner::Clock::now);

    const std::string& socketPath() const { return socketPath_; }

    std::string typeName() const override { return "HelperFanController"; }
    FanBackendKind backendKind() const override { return FanBackendKind::helper; }
    FanCurveLearning* curveLearning() override { return this; }
    HelperVersionSource* helperVersionSource() override { return this; }
    // Every fan the helper sees, in its order (by identity, as LocalFanController).
    FanReadResult readFans() override;
    // Targets follow the order of readFans(). A positive target takes the fan (RPM mapped to
    // a duty here); kFanStopRPM holds it at the duty it rests at; 0 gives a held fan back.
    // Non-controllable fans are skipped.
    FanResult setTargets(const std::vector<double>& targetRPM) override;
    FanResult releaseToAutomatic() override;
    bool holdsControl() const override;
    std::vector<std::string> takeFansLostBehindOurBack() override;
    std::vector<std::string> takeFansReclaimedFromUs() override;
    std::vector<FanRefusal> takeFanRefusals() override;

    std::optional<std::string> helperVersion() override;

    // Targets are sent as duty cycles mapped through what is learned of each fan while it
    // works (see FanCurveLearner), and that is stored.
    void attachCurveStore(FanCurveStore store) override;
    std::optional<FanCurve> learnedCurve(const std::string& identity) override;
    // Only for a fan held through this connection; it runs on the following setTargets().
    bool requestCalibration(const std::string& identity, std::string* why) override;
    std::optional<FanCalibrationStatus> calibrationStatus(const std::string& identity) override;

    // Keeps the helper from giving the held fans back. Fails when the helper cannot be reached
    // or has already released them (the lease ran out); either way the fans are the
    // firmware's again and holdsControl() turns false.
    FanResult renewLease();

    // Whether a stream connection to the helper's socket can be opened within the timeout.
    bool helperReachable() const;

private:
    FanResult failureFrom(const HelperCallResult& call);
    // Forgets held fans when the connection they were taken on has ended: the helper released
    // them when it saw the connection close.
    void dropHeldIfReconnected();
    // The helper's fan list; also brings held_ in line with what the helper says is ours.
    std::optional<helper_protocol::Inventory> list(FanResult* failure);
    // The floors and forbidden fans of the helper on this connection, asked once per connection
    // (its configuration is read only when it starts); what its refusals taught is kept beside.
    void learnHelperLimits();
    std::optional<int> floorOf(const std::string& identity) const;
    std::string forbiddenWhy(const std::string& identity) const;
    // A per-fan refusal of a set_target: the fan is left out of this round and reported, the
    // others go on. A below_floor refusal teaches the floor and is tried once more above it.
    FanStep refused(const helper_protocol::Request& request, const helper_protocol::Reply& reply,
                    double target);
    // Reports the refusal and gives the fan back if it was held; a failed release fails the
    // round.
    FanStep giveBack(const std::string& fan, const helper_protocol::Reply& reply);

    std::string socketPath_;
    int connectTimeoutMs_;
    mutable std::mutex mutex_;
    HelperClient client_;
    std::map<std::string, double> held_;  // identity -> target RPM
    std::vector<std::string> lostBehindOurBack_;
    std::vector<std::string> reclaimed_;  // held fans the helper let go: their mode was changed
    FanCurveLearner curves_;
    std::uint64_t heldConnection_ = 0;              // HelperClient::connectionNumber() when taken
    std::uint64_t limitsConnection_ = 0;            // the connection the limits were asked on
    std::map<std::string, int> floors_;             // identity -> lowest duty cycle
    std::map<std::string, std::string> forbidden_;  // identity -> why
    std::vector<FanRefusal> refusals_;
};

}  // namespace kelvo

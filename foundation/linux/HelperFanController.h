// Fan back-end that goes through kelvo-helperd, the privileged daemon that owns fan writes for
// unprivileged sessions, over its Unix socket.
#pragma once

#include <optional>
#include <string>

#include "foundation/FanController.h"

namespace kelvo {

class HelperFanController : public FanController, public HelperVersionSource {
public:
    static constexpr const char* serviceName = "org.kelvo.helper";
    static constexpr const char* kUnavailable = "helper unavailable";
    static constexpr const char* kProtocolUnsupported =
        "helper protocol not supported by this build";

    explicit HelperFanController(std::string socketPath = "/run/kelvo/helper.sock",
                                 int connectTimeoutMs = 250);

    const std::string& socketPath() const { return socketPath_; }

    std::string typeName() const override { return "HelperFanController"; }
    FanReadResult readFans() override;
    FanResult setTargets(const std::vector<double>& targetRPM) override;
    FanResult releaseToAutomatic() override;
    bool holdsControl() const override { return false; }

    std::optional<std::string> helperVersion() override;

    // Whether a stream connection to the helper's socket can be opened within the timeout.
    bool helperReachable() const;

private:
    // Fails with kUnavailable or kProtocolUnsupported; success once the protocol exists.
    FanResult checkHelper() const;

    std::string socketPath_;
    int connectTimeoutMs_;
};

}  // namespace kelvo

// What kelvo-helperd does with a decoded request: fans (hwmon and NVIDIA, behind one FanOwner,
// under the configured floors and forbidden fans), sensors, powercap counters, and logind's sleep
// signal, which gives every fan back before sleep and retakes the hwmon ones after resume.
// Connections, leases and admission are HelperTransport's; it tells this class when a client
// goes and when a lease runs out.
#pragma once

#include <poll.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/ClientInfo.h"
#include "helper/FanOwner.h"
#include "helper/HelperConfig.h"
#include "helper/HelperOptions.h"
#include "helper/HwmonFans.h"
#include "helper/HwmonSensors.h"
#include "helper/NvmlFans.h"
#include "helper/PowercapCounter.h"
#include "helper/SleepWatcher.h"

namespace kelvo::helperd {

class HelperRequestHandler {
public:
    using Clock = std::chrono::steady_clock;
    using Logger = std::function<void(const std::string&)>;
    // Starts a client's lease afresh: the time asleep does not count against it.
    using LeaseRestarter = std::function<void(ClientId)>;

    HelperRequestHandler(const HelperOptions& options, HelperConfig config, std::string version,
                         Logger log, LeaseRestarter restartLease);
    HelperRequestHandler(const HelperRequestHandler&) = delete;
    HelperRequestHandler& operator=(const HelperRequestHandler&) = delete;

    // Before any client can connect: follows sleep, gives back what the journal lists.
    void start();
    // Gives every fan back; the helper is stopping.
    void stop();

    helper_protocol::Reply handle(const ClientInfo& client,
                                  const helper_protocol::Request& request);

    // hwmon and NVIDIA fans together.
    std::size_t heldBy(ClientId id) const { return owner_.heldBy(id); }
    void releaseFans(ClientId id, const std::string& reason) { owner_.releaseClient(id, reason); }
    // The client's connection has ended: its fans go back, and it is not retaken after a resume.
    void clientGone(const ClientInfo& client, const std::string& reason);

    // The system bus, for the transport's poll loop (a negative descriptor when there is none).
    pollfd busDescriptor() const;
    // Handles what the bus has; called after every poll, since sd-bus has deadlines of its own.
    void processBus();
    // The earliest time this class needs retryFailedRestores() or processBus() called again.
    std::optional<Clock::time_point> nextDeadline(Clock::time_point now) const;
    // Retries restores that failed, at most once a second.
    void retryFailedRestores(Clock::time_point now);

private:
    static bool isNvidia(const std::string& identity);
    helper_protocol::Reply list(const ClientInfo& client);
    helper_protocol::Reply setTarget(const ClientInfo& client,
                                     const helper_protocol::Request& request);
    helper_protocol::Reply setNvidiaTarget(const ClientInfo& client,
                                           const helper_protocol::Request& request);
    helper_protocol::Reply release(const ClientInfo& client,
                                   const helper_protocol::Request& request);
    helper_protocol::Reply releaseAll(const ClientInfo& client);
    helper_protocol::Reply readCounter(const helper_protocol::Request& request);
    helper_protocol::Reply leaseReply(ClientId id) const;
    helper_protocol::Reply configReply() const;
    // The configuration's refusals, as replies; nothing when `fan` (at `pwm`) keeps to it.
    std::optional<helper_protocol::Reply> forbiddenReply(const std::string& fan) const;
    std::optional<helper_protocol::Reply> floorReply(const std::string& fan, int pwm,
                                                     const std::string& note) const;
    // logind's PrepareForSleep: give every fan back before sleep, retake them after resume.
    void prepareForSleep(bool goingToSleep);
    void retakeAfterResume();
    void forgetSleepHold(ClientId id, const std::string* identity);

    HelperConfig config_;
    std::string version_;
    Logger log_;
    LeaseRestarter restartLease_;
    FanOwner owner_;  // before the kinds, which it outlives
    HwmonFans hwmon_;
    std::unique_ptr<NvmlFans> nvidia_;  // none with --nvml-library none
    HwmonSensors sensors_;
    PowercapCounter counters_;
    SleepWatcher sleep_;
    // What live clients held when the system went to sleep: fan identity, duty cycle.
    std::map<ClientId, std::vector<std::pair<std::string, int>>> sleepHolds_;
    Clock::time_point lastPendingRetry_;
};

}  // namespace kelvo::helperd

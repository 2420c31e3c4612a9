// kelvo-helperd's server: one thread, one poll() loop over the listening socket, the clients and
// a stop descriptor (the signalfd main() makes for SIGTERM/SIGINT).
//
// Fail-safe rules it keeps:
// - a client that holds fans and sends no request for kLeaseExpiryMs loses them;
// - a client whose connection ends (exit, crash, SIGKILL, a bad frame) loses them at once;
// - fans are journaled before they are taken and the journal is replayed at start;
// - stopping releases everything before the socket goes away.
// Every peer-controlled cost is bounded: who gets a connection is ClientAdmission's call, a
// connection that says nothing is closed, a frame must complete in time, unread replies are capped.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/ClientAdmission.h"
#include "helper/FanArbiter.h"
#include "helper/HelperConfig.h"
#include "helper/HelperOptions.h"
#include "helper/HwmonSensors.h"
#include "helper/NvmlFans.h"
#include "helper/PeerAuthorizer.h"
#include "helper/PowercapCounter.h"
#include "helper/SleepWatcher.h"

namespace kelvo::helperd {

class HelperServer {
public:
    using Logger = std::function<void(const std::string&)>;

    // A frame that starts arriving must be complete within this time.
    static constexpr int kFrameAssemblyMs = 2000;
    // A client that does not read its replies is dropped past this much unsent output.
    static constexpr std::size_t kMaxPendingOutput = 1024 * 1024;

    HelperServer(HelperOptions options, HelperConfig config, std::string version, Logger log);
    ~HelperServer();
    HelperServer(const HelperServer&) = delete;
    HelperServer& operator=(const HelperServer&) = delete;

    // Takes the runtime directory's lock, gives back fans an earlier run left journaled, then
    // opens the socket. False, with `error`, when the helper cannot run.
    bool start(std::string* error);
    // Serves until `stopFd` becomes readable, then releases every fan and removes the socket.
    void run(int stopFd);

private:
    using Clock = std::chrono::steady_clock;

    struct Client {
        ClientId id = 0;
        int fd = -1;
        pid_t pid = 0;
        uid_t uid = 0;
        ClientAdmission::Slot slot = ClientAdmission::Slot::ordinary;
        helper_protocol::FrameReader reader;
        std::string output;
        Clock::time_point lastRequest;  // or when it connected, before its first request
        bool everRequested = false;
        std::optional<Clock::time_point> frameStarted;
        bool closeAfterFlush = false;
    };

    void acceptClients();
    // Whether `peer` may have a slot, closing a quiet connection to make room when needed.
    std::optional<ClientAdmission::Slot> admit(pid_t pid, uid_t uid, int fd);
    // Refusals are peer-driven: logged at most once a second, with a count of the rest.
    void logRefusal(const std::string& line);
    void readFrom(Client& client);
    void flush(Client& client);
    void queue(Client& client, const helper_protocol::Reply& reply);
    void closeClient(ClientId id, const std::string& reason);
    // hwmon and NVIDIA fans together.
    std::size_t heldBy(ClientId id) const;
    void releaseClientFans(ClientId id, const std::string& reason);
    static bool isNvidia(const std::string& identity);
    void checkTimers(Clock::time_point now);
    int pollTimeoutMs(Clock::time_point now) const;
    helper_protocol::Reply handle(Client& client, const std::string& payload);
    helper_protocol::Reply list(const Client& client);
    helper_protocol::Reply setTarget(Client& client, const helper_protocol::Request& request);
    helper_protocol::Reply release(Client& client, const helper_protocol::Request& request);
    helper_protocol::Reply configReply() const;
    std::string describe(const Client& client) const;
    // logind's PrepareForSleep: give every fan back before sleep, retake them after resume.
    void prepareForSleep(bool goingToSleep);
    void forgetSleepHold(ClientId id, const std::string* identity);

    HelperOptions options_;
    HelperConfig config_;
    std::string version_;
    Logger log_;
    std::shared_ptr<HwmonFanService> fans_;
    FanArbiter arbiter_;
    std::unique_ptr<NvmlFans> nvidia_;  // none with --nvml-library none
    HwmonSensors sensors_;
    PowercapCounter counters_;
    PeerAuthorizer authorizer_;
    int listenFd_ = -1;
    int lockFd_ = -1;
    ClientId nextClientId_ = 1;
    std::map<ClientId, Client> clients_;
    Clock::time_point lastPendingRetry_;
    std::optional<Clock::time_point> lastRefusalLog_;
    SleepWatcher sleep_;
    // What live clients held when the system went to sleep: fan identity, duty cycle.
    std::map<ClientId, std::vector<std::pair<std::string, int>>> sleepHolds_;
    std::size_t unloggedRefusals_ = 0;
};

}  // namespace kelvo::helperd

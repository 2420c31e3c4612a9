// kelvo-helperd's socket side: the runtime directory's lock, the listening socket, one poll()
// loop over it, the clients and a stop descriptor (the signalfd main() makes for SIGTERM/SIGINT),
// frames in and replies out, and the timers that end a lease or a connection. What a request
// does is HelperRequestHandler's.
//
// Every peer-controlled cost is bounded: who gets a connection is ClientAdmission's call, a
// connection that says nothing is closed, a frame must complete in time, unread replies are capped.
// A client that holds fans and sends no request for kLeaseExpiryMs loses them; so does one whose
// connection ends, at once.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "foundation/helper_protocol/HelperProtocol.h"
#include "helper/ClientAdmission.h"
#include "helper/ClientInfo.h"
#include "helper/HelperOptions.h"
#include "helper/HelperRequestHandler.h"
#include "helper/PeerAuthorizer.h"

namespace kelvo::helperd {

class HelperTransport {
public:
    using Logger = std::function<void(const std::string&)>;

    // A frame that starts arriving must be complete within this time.
    static constexpr int kFrameAssemblyMs = 2000;
    // A client that does not read its replies is dropped past this much unsent output.
    static constexpr std::size_t kMaxPendingOutput = 1024 * 1024;

    HelperTransport(HelperOptions options, HelperRequestHandler& handler, Logger log);
    ~HelperTransport();
    HelperTransport(const HelperTransport&) = delete;
    HelperTransport& operator=(const HelperTransport&) = delete;

    // Creates the runtime directory and takes its lock. False, with `error`, when another
    // helper holds it or the directory cannot be had.
    bool lock(std::string* error);
    // Opens the socket, replacing one a killed helper left behind.
    bool listen(std::string* error);
    // Serves until `stopFd` becomes readable, then has the handler give every fan back and
    // removes the socket.
    void run(int stopFd);

    // Starts the client's lease afresh (after a resume from sleep).
    void restartLease(ClientId id);

private:
    using Clock = std::chrono::steady_clock;

    struct Client {
        ClientInfo info;
        int fd = -1;
        ClientAdmission::Slot slot = ClientAdmission::Slot::ordinary;
        helper_protocol::FrameReader reader;
        std::string output;
        Clock::time_point lastRequest;  // or when it connected, before its first request
        bool everRequested = false;
        std::optional<Clock::time_point> frameStarted;
        bool closeAfterFlush = false;
    };

    void serveReady(const std::vector<pollfd>& descriptors, const std::vector<ClientId>& owners);
    void acceptClients();
    // Whether the peer may have a slot, closing a quiet connection to make room when needed.
    std::optional<ClientAdmission::Slot> admit(pid_t pid, uid_t uid, int fd);
    std::vector<ClientAdmission::Connection> connections() const;
    // Refusals are peer-driven: logged at most once a second, with a count of the rest.
    void logRefusal(const std::string& line);
    void readFrom(Client& client);
    // Answers every complete frame the client has sent.
    void answerFrames(Client& client);
    helper_protocol::Reply answer(Client& client, const std::string& payload);
    void flush(Client& client);
    void queue(Client& client, const helper_protocol::Reply& reply);
    void closeClient(ClientId id, const std::string& reason);
    void checkTimers(Clock::time_point now);
    int pollTimeoutMs(Clock::time_point now) const;

    HelperOptions options_;
    HelperRequestHandler& handler_;
    Logger log_;
    PeerAuthorizer authorizer_;
    int listenFd_ = -1;
    int lockFd_ = -1;
    ClientId nextClientId_ = 1;
    std::map<ClientId, Client> clients_;
    std::optional<Clock::time_point> lastRefusalLog_;
    std::size_t unloggedRefusals_ = 0;
};

}  // namespace kelvo::helperd

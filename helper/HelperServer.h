// kelvo-helperd's server: HelperTransport (the socket, its clients and their timers) serving
// HelperRequestHandler (fans, sensors, counters, sleep), on one thread.
//
// Fail-safe rules the two keep together:
// - a client that holds fans and sends no request for kLeaseExpiryMs loses them;
// - a client whose connection ends (exit, crash, SIGKILL, a bad frame) loses them at once;
// - fans are journaled before they are taken and the journal is replayed before the socket opens;
// - stopping releases everything before the socket goes away.
#pragma once

#include <functional>
#include <string>

#include "helper/HelperConfig.h"
#include "helper/HelperOptions.h"
#include "helper/HelperRequestHandler.h"
#include "helper/HelperTransport.h"

namespace kelvo::helperd {

class HelperServer {
public:
    using Logger = std::function<void(const std::string&)>;

    HelperServer(HelperOptions options, HelperConfig config, std::string version, Logger log);
    HelperServer(const HelperServer&) = delete;
    HelperServer& operator=(const HelperServer&) = delete;

    // Takes the runtime directory's lock, gives back fans an earlier run left journaled, then
    // opens the socket. False, with `error`, when the helper cannot run.
    bool start(std::string* error);
    // Serves until `stopFd` becomes readable, then releases every fan and removes the socket.
    void run(int stopFd);

private:
    // A floor or forbid naming a fan the helper does not see is logged, once, at start.
    void warnAboutAbsentFans();

    HelperConfig config_;
    Logger log_;
    HelperRequestHandler handler_;
    HelperTransport transport_;
};

}  // namespace kelvo::helperd
